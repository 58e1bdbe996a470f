"""The dialogue that takes the window's place on Linux, and what the agent inherits there."""

import ctypes
import os
import pty
import select
import signal
import subprocess
from pathlib import Path

import pytest

from programs import DEADLINE_SEC, LinuxProgram, wait_for

PR_SET_CHILD_SUBREAPER = 36

WAITING_AGENT = """#!/bin/sh
echo $$ > agent.part && mv agent.part agent.pid
read -r line < gate
"""


@pytest.mark.parametrize("text", ["", "\n", "\r\n"], ids=["end of input", "empty line", "empty DOS line"])
def test_without_a_name_nothing_starts(linux_program, text):
    assert linux_program.run(text) == 0
    assert linux_program.agent_record() is None


@pytest.mark.parametrize("text", ["name", "name\r\n", "name\nmore\n"])
def test_one_line_is_the_name(linux_program, text):
    assert linux_program.run(text) == 0
    assert linux_program.agent_record()["arguments"][-1] == "name"


def test_dialogue_in_a_terminal(linux_program):
    controller, terminal = pty.openpty()
    process = linux_program.start(stdin=terminal, stdout=terminal)
    os.close(terminal)
    shown = b""
    while not shown.endswith(b"Enter a name for a checkpoint: "):
        assert select.select([controller], [], [], DEADLINE_SEC)[0], shown
        shown += os.read(controller, 1024)
    os.write(controller, b"typed\n")
    assert process.wait(DEADLINE_SEC) == 0
    os.close(controller)
    assert shown.startswith(b"Add VSS Checkpoint\r\n")
    assert linux_program.agent_record()["arguments"][-1] == "typed"


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


def test_terminal_line_too_long_is_refused(linux_program):
    controller, terminal = pty.openpty()
    process = linux_program.start(stdin=terminal, stdout=subprocess.PIPE)
    os.write(controller, b"x" * 4500 + b"\nshort\n")
    assert b"at most 4094 bytes" in process.communicate(timeout=DEADLINE_SEC)[0]
    os.close(terminal)
    os.close(controller)
    assert linux_program.agent_record()["arguments"][-1] == "short"


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
    """What programs that have ended leave behind: this process becomes the parent of such processes."""
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
