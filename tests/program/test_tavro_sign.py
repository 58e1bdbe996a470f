"""The signed copies of the configuration: what `tavro tweaks sign` writes and `tavro tweaks verify` finds."""

import errno
import itertools
import json
import os
import shutil
import subprocess
import zlib
from pathlib import Path

import pytest

from programs import DEADLINE_SEC, Tavro
from test_tweaks import CONSISTENT, put, slot
from tracing import TracedProgram, calls_of, files_below, first_call

PAIR = "olm_tweaks"


class Signer:
    """The tool, at work in the folder of a program."""

    def __init__(self, program, tool):
        self.program, self.folder, self.tool = program, program.folder, tool

    def path(self):
        """The path of the consistent file as the tool shows it."""
        return CONSISTENT.replace("/", self.program.separator)

    def run(self, *arguments):
        """Returns the exit code, standard output and standard error."""
        return self.tool.run(self.folder, "tweaks", *arguments)

    def sign(self, text, *options):
        (self.folder / "text.txt").write_bytes(text)
        return self.run("sign", "text.txt", *options)

    def start_signing(self, text):
        (self.folder / "text.txt").write_bytes(text)
        return self.tool.start(self.folder, "tweaks", "sign", "text.txt", stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE)

    def command(self):
        """Signs the text of the folder in which it runs; only on Linux."""
        return [self.tool.path, "tweaks", "sign", "text.txt"]

    def verify(self):
        """Returns the exit code and what is found."""
        code, out, _ = self.run("verify", "--json")
        return code, json.loads(out)

    def effective(self):
        """Starts the program and leaves its dialog. Returns the tweak t_text that it logs, None without one."""
        assert self.program.open_dialog()() == 0
        found = [line[6] for line in self.program.last_run()[0] if line[6].startswith("t_text=")]
        return int(found[0].partition("=")[2]) if found else None


@pytest.fixture
def linux_signer(linux_program, linux_build):
    return Signer(linux_program, Tavro(linux_build, None))


@pytest.fixture
def windows_signer(windows_program, windows_build, wine):
    return Signer(windows_program, Tavro(windows_build, wine))


@pytest.fixture
def signer(program, request):
    """The tool of each target that was built."""
    return request.getfixturevalue("windows_signer" if hasattr(program, "desktop") else "linux_signer")


def text(number):
    return b"t_text = %d\n" % number


def read_pair(folder):
    """The text that the program takes: that of the newest copy that matches its signature. None without a pair, an
    empty list with one that has no valid copy."""
    found = []
    for number in range(2):
        try:
            data = (folder / f"{CONSISTENT}.{number}").read_bytes()
            sequence, crc = map(int, (folder / f"{CONSISTENT}.{number}.sig").read_bytes().split())
        except (OSError, ValueError):
            continue
        found += [(sequence, number, data)] if crc == zlib.crc32(data) else []
    return max(found)[2] if found else [] if (folder / PAIR).exists() else None


def test_signing_in_turns(signer):
    assert signer.run("verify") == (0, f"There is no pair: the program starts without {signer.path()}.\n", "")
    put(signer.folder, {f"{PAIR}.new/tweaks.txt.0": b"left by a tool that was killed"})
    for number in range(1, 6):
        code, out, _ = signer.sign(text(number), "--json")
        copy = (number - 1) % 2
        assert (code, json.loads(out)["written"]) == (0, {
            "copy": copy, "sequence": number, "crc": zlib.crc32(text(number)), "file": f"{signer.path()}.{copy}"})
        assert read_pair(signer.folder) == text(number)
        if number in (1, 5):
            assert signer.effective() == number
    code, found = signer.verify()
    assert (code, found["starts"], found["read"], found["nextCopy"], found["nextSequence"]) == (0, True, 0, 1, 6)
    assert {path.name for path in (signer.folder / PAIR).iterdir()} == {
        f"tweaks.txt.{copy}{end}" for copy in range(2) for end in ("", ".sig")}
    assert not list(signer.folder.glob("*.new")) and not (signer.folder / ".lock").exists()


def test_line_ends_are_those_of_the_copy(signer):
    long = b"t_long = 1 ;".ljust(511, b".")
    code, out, _ = signer.sign(b"t_text = 7\r\n\r\nt_x = \r\r\n" + long + b"\r\nt_last = 1 ; no end\r")
    assert code == 0 and "takes effect when the program is started" in out
    assert read_pair(signer.folder) == b"t_text = 7\n\nt_x = \n" + long + b"\nt_last = 1 ; no end\n"
    assert (signer.verify()[0], signer.effective()) == (0, 7)


def test_a_text_that_the_program_would_not_take_is_refused(signer):
    bad = [b"\xef\xbb\xbft_bom = 1", b"word ; = 1", b"t_twice = 1", b"T_TWICE = 2", b"t_twice =",
           b't_open = "x', b"t_word = many", b"t_zero = 1 ; \0", b't_qlogMaxFiles = "x"', b"t_long = 1 ;".ljust(512, b"."),
           b"t_eof = 1 ; \x1a"]
    code, out, _ = signer.sign(b"t_good = 1\n" + b"\r\n".join(bad[1:]))
    expected = [(2, 'tweak line without "=": word'), (3, "more than once"), (5, "more than once"),
                (6, "no closing double quote"), (7, "'many'"), (8, "zero byte"), (9, "must be an integer"),
                (10, "511 characters"), (11, "0x1A")]
    lines = out.splitlines()
    assert code == 1 and len(lines) == len(expected), out
    for (number, part), line in zip(expected, lines):
        assert line.startswith(f"text.txt:{number}: error: ") and part in line
    code, out, _ = signer.sign(bad[0], "--json")
    assert code == 1 and json.loads(out)["written"] is None and json.loads(out)["errors"][0]["line"] == 1
    assert not (signer.folder / PAIR).exists()
    assert signer.run("sign", "missing.txt") == (2, "", "tavro: missing.txt: there is no such file\n")
    assert signer.run("sign")[0] == signer.run("verify", "missing")[0] == 2


@pytest.mark.parametrize(("files", "code", "states", "read"), [
    (slot(0, 4) | slot(1, 5), 0, ["valid", "valid"], 1),
    (slot(0, 7) | slot(1, 3, crc=0), 1, ["valid", "mismatched"], 0),  # the program does not read the older one
    ({f"{CONSISTENT}.0": b""}, 1, ["incomplete", "absent"], None),
    (slot(1, 0), 1, ["absent", "valid"], None),
    (slot(0, 1) | {f"{CONSISTENT}.1": None}, 1, ["valid", "absent"], 0),
    (slot(1, 2, b"t_slot = 1\n".ljust(600, b"."), zlib.crc32(b"t_slot = 1\n")), 1, ["absent", "valid"], 1),
    ({PAIR: b""}, 0, ["absent", "absent"], None),
], ids=["valid", "older broken", "no signature", "number 0", "a folder for data", "cut", "a file for the folder"])
def test_verify(signer, files, code, states, read):
    put(signer.folder, files)
    status, found = signer.verify()
    assert (status, [copy["state"] for copy in found["copies"]], found["read"]) == (code, states, read)
    assert found["starts"] == (read is not None or code == 0)
    if "mismatched" in states:
        assert f"number 3, CRC 0 expected, {zlib.crc32(b't_slot = 1' + bytes([10]))} found" in signer.run("verify")[1]


@pytest.mark.parametrize("files", [{PAIR: None}, {PAIR: b"file"}, {f"{PAIR}/other": b""}, slot(0, 5, crc=0),
                                   slot(0, 0) | slot(1, 9, crc=0)],
                         ids=["empty", "a file", "other files", "broken", "number 0"])
def test_without_a_valid_copy_it_must_be_forced(signer, files):
    put(signer.folder, files)
    before = files_below(signer.folder)
    code, out, err = signer.sign(text(1))
    assert (code, out) == (2, "") and "--force" in err
    assert files_below(signer.folder) == before | {Path("text.txt"): text(1)}
    assert signer.sign(text(1), "--force")[0] == 0
    assert read_pair(signer.folder) == text(1)
    assert not files.get(PAIR) or (signer.folder / f"{PAIR}.old").read_bytes() == files[PAIR]
    assert signer.sign(text(2))[0] == 0
    assert signer.effective() == 2


def test_signing_at_the_same_time(signer):
    assert signer.sign(text(1))[0] == 0
    processes = [signer.start_signing(text(2)) for _ in range(6)]
    errors = [process.communicate(timeout=DEADLINE_SEC)[1] for process in processes]
    codes = [process.returncode for process in processes]
    assert codes.count(0) >= 1
    assert all(code == 0 or code == 2 and b"another signing is at work" in error
               for code, error in zip(codes, errors)), errors
    code, found = signer.verify()
    assert (code, found["nextSequence"]) == (0, 2 + codes.count(0))


def test_a_file_that_another_program_has_open_is_waited_for(windows_signer, windows_build, wine):
    signer = windows_signer
    put(signer.folder, slot(0, 1) | slot(1, 2))
    probe = "Z:" + str(windows_build / "window_probe.exe").replace("/", "\\")  # ends at the end of its input
    holder = wine.start("cmd", signer.folder, arguments=["/c", f"{probe} 2>> {signer.path()}.0"],
                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    holder.stdin.write(b"\n")
    holder.stdin.flush()
    assert holder.stdout.readline()
    signing = signer.start_signing(text(3))
    with pytest.raises(subprocess.TimeoutExpired):
        signing.wait(1)
    assert read_pair(signer.folder) == slot(1, 2)[f"{CONSISTENT}.1"]
    holder.communicate(timeout=DEADLINE_SEC)
    assert signing.wait(DEADLINE_SEC) == 0
    assert read_pair(signer.folder) == text(3)


def test_one_that_waits_keeps_others_out_until_it_ends(linux_signer):
    assert linux_signer.sign(text(1))[0] == 0
    (linux_signer.folder / "text.txt").write_bytes(text(2))
    held = TracedProgram(linux_signer.command(), linux_signer.folder)
    while not (linux_signer.folder / PAIR / "tweaks.txt.new").exists():
        held.next_call()
    code, _, err = linux_signer.sign(text(3))
    assert code == 2 and "another signing is at work" in err
    held.kill()
    assert linux_signer.sign(text(3))[0] == 0
    assert read_pair(linux_signer.folder) == text(3)


def test_what_is_flushed_before_what_becomes_visible(linux_signer):
    """A rename may survive a loss of power while what it shows does not: the bytes are flushed before it, and the
    folder after it and before the next."""
    (linux_signer.folder / "text.txt").write_bytes(text(1))
    command = linux_signer.command()
    assert calls_of(command, linux_signer.folder) == "flock mkdir fsync fsync fsync renameat2 fsync".split()
    assert calls_of(command, linux_signer.folder) == "flock fsync fsync rename fsync rename fsync".split()


def test_first_pair_where_a_rename_cannot_spare_its_target(linux_signer):
    """Some file systems know no rename that fails if the target exists."""
    (linux_signer.folder / "text.txt").write_bytes(text(1))
    signing = TracedProgram(linux_signer.command(), linux_signer.folder)
    signing.to_named_call("renameat2")
    signing.fail_call(errno.EINVAL)
    assert signing.finish() == 0
    assert read_pair(linux_signer.folder) == text(1)


OLD, NEW, NEXT = 2, 3, 4
IS_THOROUGH = os.environ.get("TAVRO_THOROUGH") == "1"


@pytest.mark.parametrize("is_killed", [True, False], ids=["killed", "failing"])
@pytest.mark.parametrize(("before", "old"), [(slot(0, 1, text(1)) | slot(1, 2, text(OLD)), text(OLD)), ({}, None)],
                         ids=["over a pair", "first pair"])
def test_interrupted_at_every_call(linux_signer, before, old, is_killed):
    """Each system call of a signing is its last one, or fails. The program then reads the whole old text or the whole
    new one, and the next signing works."""
    scratch = linux_signer.folder / "scratch"
    (linux_signer.folder / "text.txt").write_bytes(text(NEW))
    command = linux_signer.command()
    states = {}  # what was left behind, and by the interruption of which call
    # What fails before the folder is locked changes nothing, and takes half of the time.
    for call in itertools.count(1 if is_killed or IS_THOROUGH else first_call("flock", command, linux_signer.folder)):
        shutil.rmtree(scratch, ignore_errors=True)
        put(scratch, before | {"text.txt": text(NEW)})
        signing = TracedProgram(command, scratch)
        if not signing.to_call(call):
            break
        signing.kill() if is_killed else signing.fail_call(errno.EIO)
        status = signing.finish()
        assert read_pair(scratch) in ((text(NEW),) if status == 0 else (old, text(NEW))), call
        folders = tuple(path.name for path in scratch.iterdir() if path.is_dir())
        states.setdefault((folders, tuple(files_below(scratch).items())), call)
    assert signing.status == 0 and call > 100
    assert len(states) >= (6 if is_killed else 2)
    for (folders, files), call in states.items():
        for folder in linux_signer.folder.glob(f"{PAIR}*"):
            shutil.rmtree(folder)
        put(linux_signer.folder, {str(path): data for path, data in files})
        for folder in folders:
            (linux_signer.folder / folder).mkdir(exist_ok=True)
        assert linux_signer.effective() in (old and OLD, NEW), call
        assert linux_signer.sign(text(NEXT))[0] == 0, call
        assert linux_signer.verify()[0] == 0, call
        assert linux_signer.effective() == NEXT, call
        left = {path.name for path in linux_signer.folder.rglob("*.new*")}
        assert not left, call
