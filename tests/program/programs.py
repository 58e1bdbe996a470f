"""The finished program on each target, in a scratch folder of its own beside a stand-in agent."""

import contextlib
import csv
import glob
import json
import os
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

AGENT = "TavroVssAgent.exe"
EDIT, OK, CANCEL = 1002, 1, 2
DEADLINE_SEC = 60
# The lines that the allocator's worker and the deadlock checker log when they start. The log file is being made at that
# moment and may miss them; it always misses those of its own writer and of the CPU counters.
THREAD_START = re.compile(r"Info,(\d+),NON,(MemWatcher,AddThread,added  pid=\1 |"
                          r"ThreadWrapper,threadCallback,Starting ThreadWrapper of type "
                          r"(MemShieldAO internalId=[12]|class DeadLockCheckerManager internalId=[23]) )")
LOG_COLUMNS = ["time", "level", "thread", "logger", "method", "message", "exception"]


def wait_for(condition, what):
    deadline = time.monotonic() + DEADLINE_SEC
    while not (result := condition()):
        assert time.monotonic() < deadline, f"waited in vain for {what}"
        time.sleep(0.02)
    return result


class Program:
    def __init__(self, build, folder, name, app_data):
        self.folder = folder
        self.log = app_data / "Tavro" / "logs" / "TavroVssAgentGUI.exe.log.txt"
        shutil.rmtree(app_data / "Tavro", ignore_errors=True)
        self.path = Path(shutil.copy(build / name, folder))
        self.agent = Path(shutil.copy(build / "stand-in" / AGENT, folder))
        self.settings = folder / f"{name}.conf"
        self.mark = {"TAVRO_TEST_FOLDER": str(folder)}  # every process that the program starts inherits it

    def extend_folder_name(self, more):
        folder = self.folder.rename(self.folder.with_name(self.folder.name + more))
        self.path, self.agent, self.settings = (folder / path.name for path in (self.path, self.agent, self.settings))
        if self.log.is_relative_to(self.folder):
            self.log = folder / self.log.relative_to(self.folder)
        self.folder = folder
        self.mark["TAVRO_TEST_FOLDER"] = str(folder)

    def log_lines(self):
        """The lines of the log file, split by a CSV reader."""
        with open(self.log, encoding="utf-8") as text:
            return list(csv.reader(text))

    def last_run(self):
        """The lines of the log's last run after the header: those of the main thread, and those of the others."""
        lines = self.log_lines()
        lines = lines[len(lines) - lines[::-1].index(LOG_COLUMNS):]
        main = next(line[2] for line in lines if line[6] == "Invoked.")
        return [line for line in lines if line[2] == main], [line for line in lines if line[2] != main]

    def agent_record(self):
        """What the agent has noted, or None if none was started. To be called when the program has ended: a process
        that is still at work in the folder is then the agent."""
        wait_for(lambda: not self._is_busy(), "the end of the agent")
        record = self.folder / "TavroVssAgent.record.json"
        return json.loads(record.read_text("utf-8")) if record.exists() else None

    def _is_busy(self):
        # Both signs are needed: Wine leaves the working folder for moments, and execve hides the environment.
        mark = os.fsencode(f"TAVRO_TEST_FOLDER={self.folder}\0")
        for process in Path("/proc").glob("[0-9]*"):
            try:
                if os.readlink(process / "cwd") == str(self.folder) or mark in (process / "environ").read_bytes():
                    return True
            except OSError:
                pass  # it has just ended
        return False


class LinuxProgram(Program):
    ABNORMAL_END = -signal.SIGABRT

    def __init__(self, build, folder):
        super().__init__(build, folder, "TavroVssAgentGUI", folder)
        self.agent_folder, self.separator = str(folder), "/"

    def run(self, text, **options):
        """Gives the text on standard input; returns the exit code."""
        return subprocess.run([self.path], input=text.encode(), timeout=DEADLINE_SEC, **self._surroundings(),
                              **options).returncode

    def start(self, **options):
        return subprocess.Popen([self.path], **self._surroundings(), **options)

    def open_dialog(self):
        """Returns a function that leaves the dialog without a name, waits for the end and returns the exit code."""
        process = self.start(stdin=subprocess.PIPE)
        return lambda: process.communicate(b"\n", DEADLINE_SEC) and process.returncode

    def submit(self, name, **options):
        return self.run(name + "\n", **options)

    def threads(self):
        """The ids of all threads of all processes that run the program, as the log shows them."""
        ids = set()
        for thread in map(Path, glob.glob("/proc/[0-9]*/task/[0-9]*")):
            with contextlib.suppress(OSError):  # it has just ended, or is not ours
                if os.readlink(thread / "exe") == str(self.path):
                    ids.add(thread.name)
        return ids

    def _surroundings(self):
        return {"cwd": self.folder, "env": os.environ | {"PROGRAMDATA": str(self.folder)} | self.mark}


class WindowsProgram(Program):
    ABNORMAL_END = 3

    def __init__(self, build, folder, desktop):
        super().__init__(build, folder, "TavroVssAgentGUI.exe", desktop.wine.prefix / "drive_c" / "ProgramData")
        self.agent_folder, self.separator = "Z:" + str(folder).replace("/", "\\"), "\\"
        self.desktop = desktop
        self.process = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process:
            self.process.kill()
            self.process.wait()
            wait_for(lambda: not self.desktop.dialog(), "the end of the window")

    def start(self, **options):
        """Returns when the dialog is on the screen, or when the program has ended without one."""
        self.process = self.desktop.wine.start(self.path, self.folder, self.mark, **options)
        wait_for(lambda: self.process.poll() is not None or
                 (state := self.desktop.dialog()) and state["foreground"] and state["focus"], "the dialog")
        return self.desktop

    def open_dialog(self):
        desktop = self.start()
        return lambda: desktop.click_control(CANCEL) or self.exit_code()

    def exit_code(self):
        return self.process.wait(DEADLINE_SEC)

    def submit(self, name, **options):
        """Submits any name, even one for which the keyboard has no keys."""
        if self.start(**options).dialog(name):
            self.desktop.press("Return")
        return self.exit_code()

    def threads(self):
        """The ids of all threads of all processes that run the program, as the log shows them, but for the threads that
        Wine starts in each process, which have names."""
        listing = self.desktop.wine.run("winedbg", "--command", "info threads", stdout=subprocess.PIPE).decode()
        processes = re.findall(rf"^[0-9a-f]{{8}} {self.path.name}\b.*\n((?:\t.*\n)*)", listing.replace("\r", ""), re.M)
        ids = re.findall(r"^\t([0-9a-f]{8}) (?!.* wine_)", "".join(processes), re.M)
        return {str(int(thread_id, 16)) for thread_id in ids}


class FlushedLog:
    """The program that logs until it is killed, and prints how many lines are flushed."""

    def __init__(self, build, wine):
        self.wine = wine  # None on Linux
        self.path = build / ("flushed_log.exe" if wine else "flushed_log")

    def start(self, folder, output):
        return (self.wine.start(self.path, folder, stdout=output) if self.wine
                else subprocess.Popen([self.path], cwd=folder, stdout=output))


class Tavro:
    """The console tool."""

    def __init__(self, build, wine):
        self.wine = wine  # None on Linux
        self.path = build / ("tavro.exe" if wine else "tavro")

    def start(self, folder, *arguments, **options):
        return (self.wine.start(self.path, folder, arguments=arguments, **options) if self.wine
                else subprocess.Popen([self.path, *arguments], cwd=folder, **options))

    def run(self, folder, *arguments, **options):
        """Runs it in the folder; returns the exit status, and what it writes to the two streams, with LF line ends."""
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE} | options
        with self.start(folder, *arguments, **options) as process:
            streams = process.communicate(timeout=DEADLINE_SEC)
        return process.returncode, *(stream.decode().replace("\r\n", "\n") for stream in streams)


class Wine:
    def __init__(self, folder, prefix, screen):
        self.folder = folder
        self.prefix = prefix
        # winemenubuilder would put each shortcut into the menu of the user of this machine too.
        self.variables = {"DISPLAY": screen, "WINEPREFIX": str(prefix), "WINEDEBUG": "-all",
                          "WINEDLLOVERRIDES": "mscoree,mshtml,winemenubuilder.exe="}

    def start(self, program, folder, more_variables=(), arguments=(), **options):
        environment = os.environ | self.variables | dict(more_variables)
        return subprocess.Popen(["wine", program, *arguments], cwd=folder, env=environment, **options)

    def run(self, *command, check=True, stdout=subprocess.DEVNULL):
        return subprocess.run(command, cwd=self.folder, env=os.environ | self.variables, check=check,
                              timeout=3 * DEADLINE_SEC, stdout=stdout, stderr=subprocess.DEVNULL).stdout

    def end(self):
        self.run("wineserver", "-k", check=False)  # fails if the server has ended by itself
        self.run("wineserver", "-w", check=False)


class Desktop:
    """The screen with the dialog on it, seen by the probe and worked with keys and clicks."""

    def __init__(self, wine, probe):
        self.wine = wine
        self._probe_path = probe
        self._probe = None

    def __enter__(self):
        self.restart(96)
        return self

    def __exit__(self, *_):
        if self._probe:
            self._probe.communicate()

    def restart(self, dots_per_inch):
        """Ends all programs and begins again with a screen of that density."""
        self.__exit__()
        self.wine.run("wine", "reg", "add", r"HKCU\Control Panel\Desktop", "/v", "LogPixels", "/t", "REG_DWORD",
                      "/d", str(dots_per_inch), "/f")
        self.wine.end()  # processes that run already have no virtual desktop, and the old density
        self._probe = self.wine.start(self._probe_path, self.wine.folder, text=True, encoding="utf-8",
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.dialog()  # brings up the desktop's own processes, outside the folders of the tests

    def dialog(self, name=None):
        """Puts a given name into the edit control. Returns the state of the dialog, None if there is none."""
        self._probe.stdin.write("\n" if name is None else f"={name}\n")
        self._probe.stdin.flush()
        return json.loads(self._probe.stdout.readline())

    def load_library(self, name):
        """Has the probe load a library, which it looks for as any program does."""
        self._probe.stdin.write(f"!{name}\n")
        self._probe.stdin.flush()
        self._probe.stdout.readline()

    def control(self, control_id):
        return next(control for control in self.dialog()["controls"] if control["id"] == control_id)

    def type(self, text):
        self.wine.run("xdotool", "type", text)

    def press(self, key):
        self.wine.run("xdotool", "key", key)

    def click(self, x, y):
        self.wine.run("xdotool", "mousemove", str(x), str(y), "click", "1")

    def click_control(self, control_id):
        left, top, right, bottom = self.control(control_id)["rectangle"]
        self.click((left + right) // 2, (top + bottom) // 2)

    def capture(self, path):
        left, top, right, bottom = self.dialog()["rectangle"]
        area = f"{right - left}x{bottom - top}+{left}+{top}"
        self.wine.run("import", "-window", "root", "-crop", area, "+repage", path)
