"""What the console tool says about a program before it is started, against what the program then does."""

import json
import os
import re
import shutil
import tempfile
from pathlib import Path

import pytest

from programs import LinuxProgram, Tavro
from test_tweaks import EXTENSION, put

GOOD = b"10.0.0.1 80\thost\r\n 443"


def diagnose(tavro, folder, *options, env=None):
    """The exit status, and the texts of each step with their state."""
    status, out, err = tavro.run(folder, "doctor", "--json", *options, **({"env": env} if env else {}))
    assert err == ""
    results = json.loads(out)
    assert all(bool(result["remedy"]) == (result["state"] == "fault") for result in results)
    assert status == any(result["state"] == "fault" for result in results)
    return results


def told(results, state):
    return [f'{result["step"]}: {result["text"]}' for result in results if result["state"] == state]


@pytest.fixture
def doctor(program, tavro_beside, monkeypatch):
    """Diagnoses the program in its own folder, and checks that nothing is made meanwhile."""
    if not tavro_beside.wine:
        monkeypatch.setenv("PROGRAMDATA", str(program.folder))
    program.settings.write_bytes(GOOD)
    program.folder.chmod(0o755)

    def run(*options):
        roots = [program.folder, program.log.parents[2]]
        before = [sorted(root.rglob("*Tavro*")) for root in roots]
        results = diagnose(tavro_beside, program.folder, *options)
        assert [sorted(root.rglob("*Tavro*")) for root in roots] == before
        return results
    return run


@pytest.mark.parametrize("more", ["", " – Prüfstand 検査"])
def test_what_is_foretold_happens(program, tavro_beside, doctor, more, monkeypatch):
    program.extend_folder_name(more)
    tavro_beside.path = program.folder / tavro_beside.path.name
    if not tavro_beside.wine:
        monkeypatch.setenv("PROGRAMDATA", str(program.folder))
    results = doctor()
    # Wine shows a folder of all users, whose sticky bit protects what is in it, as one that everybody may change.
    assert [text for text in told(results, "fault") if "who may write Z:\\tmp:" not in text] == []
    command = next(text.split("NAME: ")[1] for text in told(results, "ok") if "command line" in text)
    program.submit("night ly")
    program.agent_record()  # waits until the agent has gone
    logged = [line[6] for line in program.log_lines() if line[6:] and line[6].startswith("cmdline: ")]
    assert logged == ["cmdline: " + command.replace("NAME", "night ly")]
    assert any("TavroVssAgentGUI.exe.log.txt, " in text for text in told(doctor(), "ok"))


def hide_agent(program):
    program.agent.unlink()


def move_agent(program):
    """The agent is then in the working folder alone."""
    (program.folder / "elsewhere").mkdir()
    shutil.move(program.path, program.folder / "elsewhere")
    (program.folder / "elsewhere" / program.settings.name).write_bytes(GOOD)


def block_log(program):
    program.log.parents[1].mkdir(parents=True)
    program.log.parent.write_bytes(b"")


@pytest.mark.parametrize(("spoil", "parts"), [
    (lambda p: p.settings.unlink(), ["settings: ", "is not there"]),
    (lambda p: p.settings.write_bytes(b"a b c"), ["settings: ", "3 of the four words"]),
    (lambda p: p.settings.write_bytes(b"\xef\xbb\xbf" + GOOD), ["settings: ", "byte order mark"]),
    (lambda p: p.settings.write_bytes(b"\xff\xfe" + GOOD.decode().encode("utf-16-le")), ["settings: ", "UTF-16"]),
    (lambda p: p.settings.write_bytes("h\u00f6st 1 b 2".encode()), ["settings: ", "outside of ASCII"]),
    (lambda p: p.settings.write_bytes(b"a 1 b 2\0x"), ["settings: ", "zero byte"]),
    (lambda p: p.settings.chmod(0o666), ["settings: ", "may be written by everyone"]),
    (lambda p: p.agent.write_bytes(b"garbage"), ["agent: ", "is no program"]),
    (hide_agent, ["agent: TavroVssAgent.exe is nowhere"]),
    (move_agent, ["agent: ", "in the working folder is started elevated"]),
    (lambda p: p.folder.chmod(0o777), ["program: ", "may be written by everyone", "folder: ", "agent: "]),
    (lambda p: put(p.folder, {EXTENSION: b't_qlogMaxFiles = "x"'}), [f"tweaks: {EXTENSION}:1: ", "the program ends: "]),
    (block_log, ["log: ", "is a file, where a folder is needed"]),
], ids=["no settings", "three words", "BOM", "UTF-16", "umlaut", "zero byte", "open settings", "no program",
        "no agent", "agent in working folder", "open folder",
        "tweak", "log"])
def test_each_fault_is_found(program, doctor, spoil, parts):
    spoil(program)
    options = ["--program", f"elsewhere/{program.path.name}"] if spoil is move_agent else []
    faults = "\n".join(told(doctor(*options), "fault"))
    assert all(part in faults for part in parts), faults


def test_what_only_administrators_may_do_is_no_fault(linux_build):
    """The tool may be started by any user, who has fewer rights than the program."""
    with tempfile.TemporaryDirectory() as folder:  # the folders of pytest are closed to others
        os.chmod(folder, 0o755)
        program, tavro = LinuxProgram(linux_build, Path(folder)), Tavro(linux_build, None)
        tavro.path = Path(shutil.copy(tavro.path, folder))
        program.settings.write_bytes(GOOD)
        program.submit("first")
        program.agent_record()
        shutil.rmtree(program.folder / "test_appdata")
        user = {"env": os.environ | {"PROGRAMDATA": folder}, "user": 65534, "extra_groups": []}
        status, out, _ = tavro.run(folder, "doctor", **user)
        assert (status, out.count("who is no administrator")) == (0, 3), out  # log file, log folder, working folder
        program.log.parent.chmod(0o700)
        assert "may not look into its folder" in tavro.run(folder, "log", "text", **user)[2]


def test_a_log_folder_that_is_open_to_others_is_told(program, doctor):
    program.submit("first")
    program.agent_record()
    program.log.parent.chmod(0o777)
    assert "may be written by everyone" in "\n".join(told(doctor(), "note"))


def test_a_link_to_missing_settings_is_told(program, doctor):
    program.settings.unlink()
    program.settings.symlink_to("nowhere.conf")
    link = ", a link to nowhere.conf," if program.separator == "/" else ""  # Windows sees no link
    assert f"{program.settings.name}{link} is not there" in "\n".join(told(doctor(), "fault"))


def test_who_has_the_log_open(program, doctor):
    program.submit("first")
    program.agent_record()  # waits until the agent has gone
    with open(program.log, "ab"):
        notes = told(doctor(), "note")
    if program.separator == "/":
        assert any(re.search(rf"is open in \S+ \(process {os.getpid()}\)", text) for text in notes), notes
    copy = program.log.with_name(program.log.name + ".old")
    copy.write_bytes(b"")
    assert any(copy.name in text and "removed first" in text for text in told(doctor(), "note"))
