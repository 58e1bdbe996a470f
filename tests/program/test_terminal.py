"""The dialogue that takes the window's place on Linux, and what the agent inherits there."""

import contextlib
import ctypes
import os
import pty
import select
import signal
import subprocess
import tempfile
from pathlib import Path

import pytest

from programs import DEADLINE_SEC, LinuxProgram, wait_for

PR_SET_CHILD_SUBREAPER = 36

WAITING_AGENT = """#!/bin/sh
echo $$ > agent.part && mv agent.part agent.pid
read -r line < gate
"""

# Without a child: a shell blocks all signals while it starts one.
MASK_READING_AGENT = """#!/bin/sh
while read -r name mask; do
    case $name in SigBlk:) echo $mask >part ;; esac
done </proc/self/status
mv part blocked
"""


def dialogue(program, *lines):
    """Types each line when it is asked for in a terminal, and returns what is shown until the program has ended."""
    controller, terminal = pty.openpty()
    process = program.start(stdin=terminal, stdout=terminal, stderr=terminal)
    os.close(terminal)
    shown = b""
    for number, line in enumerate(lines, 1):
        while shown.count(b"Enter a name for a checkpoint: ") < number:
            assert select.select([controller], [], [], DEADLINE_SEC)[0], shown
            shown += os.read(controller, 1024)
        os.write(controller, line)
    assert process.wait(DEADLINE_SEC) == 0
    with os.fdopen(controller, "rb", 0) as rest, contextlib.suppress(OSError):  # raised when all has been read
        while True:
            shown += rest.read(1024)
    return shown.decode()


@pytest.mark.parametrize("text", ["", "\n", "\r\n", "a\tb\nmore\n", "\x1b\n", "name", "name\r\n", "name\nmore\n"],
                         ids=["end of input", "empty line", "empty DOS line", "tab", "Esc", "name", "DOS line", "lines"])
def test_the_first_line_is_the_name(linux_program, text):
    with tempfile.TemporaryFile() as err:
        assert linux_program.run(text, stderr=err) == 0
        err.seek(0)
        assert (b"control characters" in err.read()) == ("\t" in text or "\x1b" in text)
    record = linux_program.agent_record()
    assert (record and record["arguments"][-1]) == ("name" if text.startswith("name") else None)


def test_dialogue_in_a_terminal(linux_program):
    shown = dialogue(linux_program, b"na\x1b[Dme\n", b"C1\xc2\x9b\n", b"x" * 4500 + b"\n", b"typed\n")
    assert shown.startswith("Add VSS Checkpoint\r\nTo cancel: Return alone, Esc and Return, or Ctrl-D.\r\n")
    assert shown.count("control characters") == 2 and shown.count("at most 4094 bytes") == 1
    assert linux_program.agent_record()["arguments"][-1] == "typed"


def test_program_whose_file_was_removed_finds_its_settings(linux_program):
    linux_program.settings.write_text("a b c d")
    process = linux_program.start(stdin=subprocess.PIPE)
    wait_for(linux_program.log.exists, "the start of the program")
    linux_program.path.unlink()
    process.communicate(b"name\n", DEADLINE_SEC)
    assert linux_program.agent_record()["arguments"][2:] == ["a", "b", "c", "d", "name"]


def test_agent_takes_every_signal(linux_program):
    linux_program.agent.write_text(MASK_READING_AGENT)
    linux_program.run("name\n", preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM}))
    wait_for((linux_program.folder / "blocked").exists, "the agent")
    assert (linux_program.folder / "blocked").read_text() == "0000000000000000\n"


@pytest.mark.parametrize("leave", [b"\n", b"\x1b\n", b"text\x1b\n", b"\x04", b"text\x04\x04"], ids=ascii)
def test_leaving_the_dialogue_starts_nothing(linux_program, leave):
    dialogue(linux_program, leave)
    assert linux_program.agent_record() is None


def test_agent_that_cannot_be_started_is_reported(linux_program):
    linux_program.agent.unlink()
    shown = dialogue(linux_program, b"name\n")
    assert "TavroVssAgent.exe could not be started: No such file or directory\r\nThe log is " in shown
    assert linux_program.log.name in shown
    (linux_program.folder / "tweaks_extension.txt").write_text("t_FileLoggerEnabled = 0")
    assert "The log" not in dialogue(linux_program, b"name\n")


@pytest.mark.parametrize("closed", [[0], [1], [2], [0, 1, 2]], ids=str)
def test_log_does_not_take_the_place_of_a_closed_stream(linux_program, closed):
    linux_program.agent.unlink()  # reported on standard error, after the prompt on standard output
    controller, terminal = pty.openpty()
    os.write(controller, b"name\n")
    process = linux_program.start(stdin=terminal, preexec_fn=lambda: list(map(os.close, closed)))
    assert process.wait(DEADLINE_SEC) == 0
    os.close(terminal)
    os.close(controller)
    text = linux_program.log.read_text()
    assert ("IDCANCEL" if 0 in closed else "IDOK") in text and "Done." in text
    assert "Enter a name" not in text and "could not" not in text


@pytest.mark.parametrize(("program_in", "agent_in"), [
    ("own:folder", "own:folder"), ("elsewhere", "work"), ("elsewhere", "on path")],
    ids=["program's folder", "current folder", "PATH"])
def test_agent_is_found(linux_build, tmp_path, program_in, agent_in):
    for folder in ("own:folder", "elsewhere", "work", "on path"):
        (tmp_path / folder).mkdir()
    program = LinuxProgram(linux_build, tmp_path / program_in)
    program.agent.rename(tmp_path / agent_in / program.agent.name)
    program.folder = tmp_path / "work"  # where it runs
    program.mark["PATH"] = f"/nowhere::{tmp_path}/on path"
    assert program.run("name\n") == 0
    assert program.agent_record()["arguments"][-1] == "name"


def test_hardened(linux_build):
    headers = subprocess.run(["readelf", "-hldsW", linux_build / "TavroVssAgentGUI"], capture_output=True, text=True,
                             check=True).stdout
    assert "DYN (Position-Independent Executable file)" in headers
    assert "GNU_RELRO" in headers and "BIND_NOW" in headers
    assert " RW " in next(line for line in headers.splitlines() if "GNU_STACK" in line)
    assert "__stack_chk_fail" in headers


def children():
    return set(map(int, Path("/proc/thread-self/children").read_text().split()))


@pytest.fixture
def orphans():
    """The processes that ended programs have left: this process becomes their parent."""
    before = children()
    prctl = ctypes.CDLL(None).prctl
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    yield lambda: children() - before
    prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0)
    for orphan in children() - before:
        os.kill(orphan, signal.SIGKILL)
        os.waitpid(orphan, 0)


def test_agent_is_on_its_own(linux_program, orphans):
    folder = linux_program.folder
    linux_program.agent.write_text(WAITING_AGENT)
    os.mkfifo(folder / "gate")
    _, ours = os.pipe()
    assert linux_program.submit("name", pass_fds=[ours]) == 0
    wait_for((folder / "agent.pid").exists, "the agent")
    agent = int((folder / "agent.pid").read_text())

    assert orphans() == {agent}  # alive, and no zombie beside it
    assert os.getsid(agent) != os.getsid(0)
    descriptors = {int(link.name): os.readlink(link) for link in Path(f"/proc/{agent}/fd").iterdir()}
    assert [descriptors[number] for number in (0, 1, 2)] == ["/dev/null"] * 3
    assert os.readlink(f"/proc/self/fd/{ours}") not in descriptors.values()
    assert linux_program.log.exists() and str(linux_program.log) not in descriptors.values()

    (folder / "gate").write_text("go\n")
    assert os.waitpid(agent, 0) == (agent, 0)
