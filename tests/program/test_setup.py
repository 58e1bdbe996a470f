"""The setup program for Windows, on a Windows of its own: what it installs, keeps, refuses and removes."""

import contextlib
import csv
import json
import os
import random
import re
import resource
import shutil
import struct
import subprocess
import time
import zipfile
from pathlib import Path

import pytest

from programs import AGENT, DEADLINE_SEC, wait_for

BUILD_SETUP = Path(__file__).resolve().parents[2] / "packaging" / "windows" / "build-setup"
COMMIT = "0123456789abcdef0123456789abcdef01234567"
SETTINGS = b"10.0.0.1 80 host 443"
PROGRAM, CONSOLE_TOOL, UNINSTALLER = "TavroVssAgentGUI.exe", "tavro.exe", "uninstall.exe"
ENTRY = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\TavroVssAgentGUI"
FILE_LIST = r"HKLM\Software\Tavro\TavroVssAgentGUI\Files"
DONE, OLD_WINDOWS, SECOND_SETUP, DOWNGRADE, IN_USE, NOT_WRITTEN, BAD_FOLDER = 0, 4, 5, 6, 7, 8, 9
KILLS = 40
SEED = 1


def contents(folder):
    """The bytes of each file below the folder; None for a folder."""
    return {str(path.relative_to(folder)): None if path.is_dir() else path.read_bytes() for path in folder.rglob("*")}


def read_json(path):
    """None as long as the file is not complete."""
    with contextlib.suppress(OSError, ValueError):
        return json.loads(path.read_text("utf-8"))


def build_setup(stage, version, path):
    subprocess.run([BUILD_SETUP, stage, version, COMMIT, path], check=True, timeout=DEADLINE_SEC,
                   env=os.environ | {"SOURCE_DATE_EPOCH": "1700000000"})
    return path


@pytest.fixture(scope="module")
def current(packages):
    """The finished setup program, with its version."""
    path, = packages.glob("*-windows-x64-setup.exe")
    return path, re.search(r"-(\d+\.\d+\.\d+)-", path.name)[1]


@pytest.fixture(scope="module")
def stage(packages, tmp_path_factory):
    """The folder with the files of the zip."""
    archive, = packages.glob("*-windows-x64.zip")
    folder = tmp_path_factory.mktemp("zip")
    zipfile.ZipFile(archive).extractall(folder)
    return next(folder.iterdir())


@pytest.fixture(scope="module")
def older(stage, tmp_path_factory):
    """The setup program of version 0.9.0, which installs a file more, and others of the same names."""
    if not shutil.which("makensis"):
        pytest.skip("makensis is missing")
    folder = tmp_path_factory.mktemp("older")
    old_stage = Path(shutil.copytree(stage, folder / "stage"))
    (old_stage / "OldNotes.txt").write_bytes(b"old")
    for name in os.listdir(stage):
        if not name.endswith(".exe"):
            (old_stage / name).write_bytes(b"older")
    return build_setup(old_stage, "0.9.0", folder / "TavroVssAgentGUI-0.9.0-setup.exe")


class Machine:
    def __init__(self, desktop, build):
        self.desktop, self.wine, self.build = desktop, desktop.wine, build
        self.drive = self.wine.prefix / "drive_c"
        self.folder = self.drive / "Program Files" / "Tavro"
        self.data = self.drive / "ProgramData"
        self.log = self.data / "Tavro" / "logs" / "TavroVssAgentGUI-setup.log"
        self.menu = self.data / "Microsoft" / "Windows" / "Start Menu" / "Programs" / "Tavro"

    def clear(self):
        """As if nothing had ever been installed."""
        for folder in [self.folder, self.data / "Tavro", self.menu, *self.drive.glob("users/*/Temp/ns*.tmp"),
                       self.drive / "Another Folder"]:
            shutil.rmtree(folder, ignore_errors=True)
        for key in (ENTRY, r"HKLM\Software\Tavro"):
            self.wine.run("wine", "reg", "delete", key, "/f", check=False)

    def start(self, program, *arguments, folder=None, **options):
        # A path must stand without quotes after /D= and _?=, and Wine puts quotes around an argument with blanks.
        words = [word for argument in arguments for word in argument.split(" ")]
        return self.wine.start(program, folder or self.wine.folder, arguments=words, **options)

    def run(self, program, *arguments):
        with self.start(program, "/S", *arguments) as process:
            return process.wait(DEADLINE_SEC)

    def uninstall(self):
        return self.run(self.folder / UNINSTALLER, "_?=" + self.windows_path())

    def windows_path(self, path=None):
        return "C:\\" + str((path or self.folder).relative_to(self.drive)).replace("/", "\\")

    def lines(self):
        with open(self.log, encoding="utf-8", newline="") as text:
            return list(csv.reader(text, strict=True))

    def registry(self, key):
        try:
            text = self.wine.run("wine", "reg", "query", key, stdout=subprocess.PIPE).decode("cp437")
        except subprocess.CalledProcessError:
            return {}
        found = re.findall(r"^    (\S+)    REG_(\w+)    ?(.*?)\r?$", text, re.M)
        return {name: int(value, 0) if kind == "DWORD" else value for name, kind, value in found}

    def add_customers_files(self):
        shutil.copy(self.build / "stand-in" / AGENT, self.folder)
        (self.folder / f"{PROGRAM}.conf").write_bytes(SETTINGS)

    def diagnose(self):
        """The faults that the console tool finds, in the working folder of the shortcuts."""
        with self.start(self.folder / CONSOLE_TOOL, "doctor", "--json", "--program", f"../{PROGRAM}",
                        folder=self.folder / "tweaks", stdout=subprocess.PIPE) as tool:
            results = json.loads(tool.communicate(timeout=DEADLINE_SEC)[0])
        return [result["text"] for result in results if result["state"] == "fault"]

    @contextlib.contextmanager
    def program_from_menu(self):
        """Starts the program through its shortcut; closes its dialog at the end, if it is still there."""
        shortcut = self.windows_path(self.menu / "Add VSS Checkpoint.lnk")
        with self.wine.start("start", self.wine.folder, arguments=["/wait", shortcut]) as process:
            wait_for(lambda: (state := self.desktop.dialog()) and state["foreground"] and state["focus"], "the dialog")
            try:
                yield process
            finally:
                if self.desktop.dialog():
                    self.desktop.press("Escape")


@pytest.fixture
def machine(fresh_desktop, windows_build):
    machine = Machine(fresh_desktop, windows_build)
    machine.clear()
    return machine


def test_what_is_installed(machine, current, stage):
    setup, version = current
    assert machine.run(setup) == DONE
    installed = contents(machine.folder)
    assert installed.pop("tweaks", "missing") is None
    assert installed.pop(UNINSTALLER)[:2] == b"MZ"
    assert installed == contents(stage)
    time, *line = machine.lines()[-1]
    assert re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}", time)
    assert line == [version, "install", machine.windows_path(), "done"]

    entry = machine.registry(ENTRY)
    path = machine.windows_path()
    size = sum((machine.folder / name).stat().st_size for name in [*installed, UNINSTALLER])
    assert re.fullmatch(r"commit [0-9a-f]{40}", entry.pop("Comments"))
    assert entry == {"DisplayName": "Tavro VSS Checkpoint", "DisplayVersion": version, "Publisher": "Tavro",
                     "DisplayIcon": rf"{path}\{PROGRAM},0", "InstallLocation": path, "NoModify": 1, "NoRepair": 1,
                     "UninstallString": rf'"{path}\{UNINSTALLER}"', "EstimatedSize": (size + 1023) // 1024,
                     "QuietUninstallString": rf'"{path}\{UNINSTALLER}" /S'}

    # With the rights that setup asks for, Wine leaves others nothing; without, they could read.
    for folder in (machine.folder, machine.folder / "tweaks", machine.data / "Tavro", machine.log.parent):
        assert folder.stat().st_mode & 0o007 == 0, folder
    assert any(AGENT in fault for fault in machine.diagnose())
    machine.add_customers_files()
    assert machine.diagnose() == []


def test_the_shortcuts(machine, current):
    machine.folder = machine.drive / "Another Folder" / "T & T"
    assert machine.run(current[0], "/D=" + machine.windows_path()) == DONE
    machine.add_customers_files()
    path = machine.windows_path()
    shortcuts = {shortcut.stem: shortcut.read_bytes() for shortcut in machine.menu.iterdir()}
    targets = {"Add VSS Checkpoint": rf"{path}\{PROGRAM}", "Check the installation": r"C:\windows\system32\cmd.exe",
               "Guide": rf"{path}\Guide.txt"}
    assert shortcuts.keys() == targets.keys()
    for name, shortcut in shortcuts.items():
        assert targets[name].encode() + b"\0" in shortcut, name
        assert rf"{path}\tweaks".encode("utf-16-le") in shortcut, name
    _, _, command = shortcuts["Check the installation"].partition("/k ".encode("utf-16-le"))
    command = re.match(r'".*%""', command.decode("utf-16-le", "replace"))[0]
    # The same command line, then what a user types, but the console does not stay.
    (machine.folder / "tweaks" / "check.bat").write_text("@setlocal enabledelayedexpansion\r\n@cmd /c !COMMAND!\r\n")
    with machine.start("cmd", "/c", "check.bat", folder=machine.folder / "tweaks", stdout=subprocess.PIPE,
                       more_variables={"COMMAND": command[:-1] + ' & tavro --version"'}) as console:
        output = console.communicate(timeout=DEADLINE_SEC)[0].decode()
    assert rf"program   ok     {path}\{PROGRAM}" in output
    assert f"tavro {current[1]}" in output


def test_nothing_is_replaced_or_removed_while_the_program_runs(machine, current, older):
    assert machine.run(older) == DONE
    machine.add_customers_files()
    before, entry = contents(machine.folder), machine.registry(ENTRY)
    with machine.program_from_menu() as process:
        assert machine.run(current[0]) == IN_USE
        assert machine.uninstall() == IN_USE
        during = contents(machine.folder)
        del during["tweaks/test_appdata"]  # the program has made it
        assert during == before
        assert machine.registry(ENTRY) == entry
        for line, what in zip(machine.lines()[-2:], ["upgrade from 0.9.0", "uninstall"]):
            assert line[2] == what
            assert line[4].startswith(rf"exit code 7: {machine.windows_path()}\{PROGRAM} runs or is open")
        machine.desktop.type("nightly")
        machine.desktop.press("Return")
        assert process.wait(DEADLINE_SEC) == 0
    called = wait_for(lambda: read_json(machine.folder / "tweaks" / "TavroVssAgent.record.json"), "the agent's record")
    assert called["arguments"] == [AGENT, "-GUI", *SETTINGS.decode().split(), "nightly"]
    assert called["workingFolder"] == machine.windows_path() + r"\tweaks"
    assert "Done." in (machine.log.parent / "TavroVssAgentGUI.exe.log.txt").read_text("utf-8")


def test_a_moments_use_of_a_file_is_waited_for(machine, current, older):
    assert machine.run(older) == DONE
    log = machine.folder / "tweaks" / "log.txt"
    log.write_text("a line of another program\n")
    with machine.start(machine.folder / CONSOLE_TOOL, "log", "text", "--follow", "log.txt", folder=log.parent,
                       stdout=subprocess.PIPE) as user:
        try:
            assert user.stdout.readline()
            with machine.start(current[0], "/S") as setup:
                wait_for(lambda: list(machine.drive.glob("users/*/Temp/ns*.tmp/System.dll")), "the checks")
                time.sleep(0.7)
                assert setup.poll() is None
                user.kill()
                assert setup.wait(DEADLINE_SEC) == DONE
        finally:
            user.kill()


def test_an_upgrade_keeps_what_is_the_customers(machine, current, older, stage):
    setup, version = current
    machine.folder = machine.drive / "Another Folder" / "Tavro"
    machine.log.parent.mkdir(parents=True)
    machine.log.parent.chmod(0o777)
    assert machine.run(older, "/D=" + machine.windows_path()) == DONE
    assert machine.registry(ENTRY)["DisplayVersion"] == "0.9.0"
    machine.add_customers_files()
    (machine.folder / "tweaks" / "tweaks_extension.txt").write_bytes(b"t_qlogMaxFiles = 3")
    (machine.folder / "tweaks").chmod(0o777)
    outside = machine.folder.parent / "outside.txt"
    outside.write_bytes(b"")
    for name in [r"..\outside.txt", "../outside.txt", machine.windows_path(outside), AGENT, f"{AGENT}.",
                 f"{PROGRAM}.conf", f"{PROGRAM}.conf ", "tweaks", ".."]:
        machine.wine.run("wine", "reg", "add", FILE_LIST, "/v", name, "/d", "", "/f")
    assert any(" may write " in fault or "may be written" in fault for fault in machine.diagnose())

    assert machine.run(setup) == DONE
    assert machine.lines()[-1][1:] == [version, "upgrade from 0.9.0", machine.windows_path(), "done"]
    assert machine.registry(ENTRY)["DisplayVersion"] == version
    after = contents(machine.folder)
    del after[UNINSTALLER], after["tweaks"]
    assert after == contents(stage) | {
        AGENT: (machine.build / "stand-in" / AGENT).read_bytes(), f"{PROGRAM}.conf": SETTINGS,
        "tweaks/tweaks_extension.txt": b"t_qlogMaxFiles = 3"}
    assert outside.exists() and not machine.drive.joinpath("Program Files", "Tavro").exists()
    assert "OldNotes.txt" not in machine.registry(FILE_LIST)
    assert [fault for fault in machine.diagnose() if "ProgramData" not in fault] == []
    assert machine.log.parent.stat().st_mode & 0o777 == 0o777

    before, entry = contents(machine.folder), machine.registry(ENTRY)
    assert machine.run(older) == DOWNGRADE
    assert machine.lines()[-1][2] == f"downgrade from {version}"
    assert "remove that one first" in machine.lines()[-1][4]
    assert (contents(machine.folder), machine.registry(ENTRY)) == (before, entry)


def test_a_move_to_another_folder_leaves_no_second_program(machine, current, older):
    assert machine.run(older) == DONE
    machine.add_customers_files()
    left = machine.folder
    machine.folder = machine.drive / "Another Folder" / "T\u00e4vro"
    assert machine.run(current[0], "/D=" + machine.windows_path()) == DONE
    assert sorted(contents(left)) == [AGENT, f"{PROGRAM}.conf"]
    assert machine.lines()[-1][4] == f"done; moved from {machine.windows_path(left)}, where settings and tweaks stay"
    assert machine.registry(ENTRY)["InstallLocation"] == machine.windows_path()


def test_a_file_that_cannot_be_replaced_leaves_the_old_version(machine, current, older, stage):
    assert machine.run(older) == DONE
    (machine.folder / "Guide.txt").unlink()
    (machine.folder / "Guide.txt").mkdir()
    (machine.folder / f"{PROGRAM}.new").write_bytes(b"left by a setup that was killed")
    before = contents(machine.folder)
    assert machine.run(current[0]) == NOT_WRITTEN
    assert machine.uninstall() == NOT_WRITTEN
    for line in machine.lines()[-2:]:
        assert re.match(r"exit code 8: .*\\Guide\.txt cannot be replaced or removed: .*\(Windows error 5\)", line[4])
    after = contents(machine.folder)
    before.pop(f"{PROGRAM}.new"), after.pop(f"{PROGRAM}.new", None)
    assert after == before
    (machine.folder / "Guide.txt").rmdir()
    (machine.folder / f"{CONSOLE_TOOL}.new").mkdir()
    before = contents(machine.folder)
    assert machine.run(current[0]) == NOT_WRITTEN
    assert rf"\{CONSOLE_TOOL}.new cannot be written. Nothing was changed: " in machine.lines()[-1][4]
    before.pop(f"{PROGRAM}.new", None)
    assert contents(machine.folder) == before
    (machine.folder / f"{CONSOLE_TOOL}.new").rmdir()
    assert machine.run(current[0]) == DONE
    assert sorted(os.listdir(machine.folder)) == sorted([*os.listdir(stage), "tweaks", UNINSTALLER])


def test_a_full_disk_leaves_no_new_folder(machine, current):
    outer = machine.drive / "Another Folder"
    outer.mkdir()
    machine.folder = outer / "New" / "Tavro"
    # No file may be as large as the program. Python ignores the signal about that, and setup inherits this.
    with machine.start(current[0], "/S", "/D=" + machine.windows_path(), restore_signals=False,
                       preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, 2 * (600_000,))) as process:
        assert process.wait(DEADLINE_SEC) == NOT_WRITTEN
    assert rf"\{PROGRAM}.new could not be written completely" in machine.lines()[-1][4]
    assert contents(outer) == {}


@pytest.mark.parametrize("used", [False, True], ids=["unused", "used"])
def test_what_is_left_after_the_removal(machine, current, used):
    assert machine.run(current[0]) == DONE
    (machine.folder / "tweaks" / "test_appdata").mkdir()
    if used:
        machine.add_customers_files()
        (machine.folder / "tweaks" / "tweaks_extension.txt").write_bytes(b"")
    # Without _?= the uninstaller copies itself elsewhere, and the first process ends at once.
    assert machine.run(machine.folder / UNINSTALLER) == DONE
    wait_for(lambda: machine.lines()[-1][2:] == ["uninstall", machine.windows_path(), "done"], "the removal")
    expected = {AGENT, f"{PROGRAM}.conf", "tweaks", "tweaks/tweaks_extension.txt"} if used else set()
    assert set(contents(machine.folder)) == expected
    assert machine.folder.exists() == used
    assert not machine.menu.exists()
    assert machine.registry(ENTRY) == machine.registry(FILE_LIST) == {}


def test_a_removal_that_waits(machine, current):
    copy = machine.drive / "tavro-uninstall.exe"
    for _ in range(2):  # the second one begins with the uninstaller that the first has left
        assert machine.run(current[0]) == DONE
        installed = contents(machine.folder)
        assert machine.uninstall() == DONE
        assert os.listdir(machine.folder) == [UNINSTALLER]  # it runs
    assert machine.run(current[0]) == DONE
    machine.wine.run("wineboot", "-r")
    assert contents(machine.folder) == installed

    shutil.copy(machine.folder / UNINSTALLER, copy)
    assert machine.uninstall() == DONE
    assert machine.run(copy, "_?=" + machine.windows_path()) == DONE
    assert not machine.folder.exists()
    assert machine.run(current[0]) == DONE
    assert machine.run(copy, "_?=" + machine.windows_path()) == DONE
    assert not machine.folder.exists() and not machine.registry(ENTRY)


def test_what_is_refused(machine, current):
    setup, _ = current
    (machine.drive / "file.txt").write_bytes(b"")
    for option in ["relative", "C:\\", r"\\host\share\folder", r"C:\x\..\..", r"Q:\folder", r"C:\file.txt\folder",
                   r"C:\folder\con", r"C:\folder\a:b", "C:/folder", "C:\\" + 198 * "a", "C:\\" + 99 * "\u00e4", ""]:
        assert machine.run(setup, f"/D={option}") == BAD_FOLDER, option
        assert machine.lines()[-1][4].startswith(f"exit code 9: The folder {option} cannot be used. ")
    for argument in [r"/D=C:\a folder", r"/d=C:\folder"]:
        # Wine puts quotes around the first one.
        with machine.wine.start(setup, machine.wine.folder, arguments=["/S", argument]) as process:
            assert process.wait(DEADLINE_SEC) == BAD_FOLDER, argument
        assert machine.lines()[-1][4].startswith(f"exit code 9: The folder {argument[3:]} cannot be used. ")
    assert machine.run(setup, "/D=C:\\" + 900 * "a") == BAD_FOLDER
    assert machine.log.read_bytes().endswith(b'a"\r\n') and len(machine.lines()[-1]) == 5
    version = rf"HKCU\Software\Wine\AppDefaults\{setup.name}"
    machine.wine.run("wine", "reg", "add", version, "/v", "Version", "/d", "vista", "/f")
    assert machine.run(setup) == OLD_WINDOWS
    machine.wine.run("wine", "reg", "delete", version, "/f")
    assert "needs Windows 7 SP1" in machine.lines()[-1][4]
    with machine.start(setup) as first:
        # The library for the first page is there after all checks that come before it.
        try:
            wait_for(lambda: list(machine.drive.glob("users/*/Temp/ns*.tmp/nsDialogs.dll")), "the first page")
            assert machine.run(setup) == SECOND_SETUP
        finally:
            first.kill()
    assert "Another setup" in machine.lines()[-1][4]
    assert not machine.folder.exists() and not machine.registry(ENTRY)


def test_a_bad_folder_disables_the_button(machine, current):
    with machine.start(current[0]) as process:
        try:
            wait_for(lambda: list(machine.drive.glob("users/*/Temp/ns*.tmp/nsDialogs.dll")), "the first page")
            time.sleep(1)  # until it can be seen
            machine.desktop.press("Return")
            for folder in ["C:\\", "C:\\x\\..", r"\\localhost\c$\x", "C:\\" + 198 * "a", machine.windows_path()]:
                machine.desktop.press("ctrl+a")
                machine.desktop.type(folder)
                machine.desktop.press("Return")
            wait_for(machine.log.exists, "the end of the installation")
            assert [line[3:] for line in machine.lines()] == [[machine.windows_path(), "done"]]
        finally:
            process.kill()


def test_the_same_content_gives_the_same_bytes(stage, older, tmp_path):
    copy = shutil.copytree(older.parent / "stage", tmp_path / "a longer name")
    for path in copy.iterdir():
        os.utime(path, (1, 1))
    again = build_setup(copy, "0.9.0", tmp_path / "again.exe").read_bytes()
    assert again == older.read_bytes()
    assert f"commit {COMMIT}".encode("utf-16-le") in again
    fixed = again.index(struct.pack("<I", 0xFEEF04BD))  # the signature of the version resource
    assert struct.unpack_from("<4H", again, fixed + 8) == (9, 0, 0, 0)  # 0.9.0.0, the low word of each half first
    (copy / "TavroVssAgent.exe").write_bytes(b"")
    with pytest.raises(subprocess.CalledProcessError):
        build_setup(copy, "0.9.0", tmp_path / "with the agent.exe")


@pytest.mark.thorough
def test_a_killed_upgrade_is_mended_by_the_next(machine, current, older, stage):
    new, moments, mixed = contents(stage), random.Random(SEED), 0
    for kill in range(KILLS):
        machine.clear()
        assert machine.run(older) == DONE
        old = contents(machine.folder)
        with machine.start(current[0], "/S") as process:
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(moments.uniform(0.05, 0.4))
            process.kill()
        after = contents(machine.folder)
        mixed += old.items() <= after.items() and any(name.endswith(".new") for name in after)
        for name in new:
            assert after.get(name) in (old[name], new[name]), f"kill {kill} of seed {SEED}: {name}"
        assert machine.run(current[0]) == DONE
        assert sorted(os.listdir(machine.folder)) == sorted([*new, "tweaks", UNINSTALLER])
        assert {name: (machine.folder / name).read_bytes() for name in new} == new
    assert mixed, "no kill came while the files were unpacked"
