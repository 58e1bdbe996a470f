"""The log file that a run leaves, read as other programs read it."""

import shutil

import pytest

from programs import THREAD_START, LinuxProgram, wait_for

LIMIT = 10 * 1024 * 1024


def rows_of_a_run(program, settings="a b c d", name="nightly"):
    """Level, class, method and message of each line of the main thread after the listing."""
    program.settings.write_text(settings)
    assert program.submit(name) == 0
    program.agent_record()  # waits for the end of the agent
    lines, others = program.last_run()
    assert all(THREAD_START.fullmatch(",".join(line[1:])) for line in others), others
    listing = [line for line in lines if line[1] == "Control"]
    assert [line[4:6] for line in listing] == [["Tweaks", "print"]] * len(listing)
    assert "t_qlogMaxFiles=3" in [line[6] for line in listing]
    return [(line[1], *line[4:]) for line in lines[len(listing):]]


def test_each_run_is_appended_whole(program):
    launch = ("", "runAgent")
    path = program.agent_folder + program.separator + program.path.name
    expected = [
        ("Info", "", "wWinMain", "Invoked."), ("Info", "", "wWinMain", "Showing dialog..."),
        ("Info", "", "Checkpoint", "IDOK"),
        ("Info", *launch, "GetModuleFileNameA retrieved the following file name: " + path),
        ("Info", *launch, f"Configuration file name: {path}.conf"),
        ("Info", *launch, "localURL: a"), ("Info", *launch, "localPort: b"),
        ("Info", *launch, "peerURL: c"), ("Info", *launch, "peerPort: d"),
        ("Info", *launch, 'cmdline: TavroVssAgent.exe -GUI a b c d "année 😀"'),
        ("Info", "", "wWinMain", "Done."),
    ]
    assert rows_of_a_run(program, name="année 😀") == expected
    first = program.log.read_bytes()
    program.agent.unlink()
    failure = ("Error", *launch, "Error 2 in CreateProcessW.")
    assert rows_of_a_run(program, name="année 😀") == expected[:-1] + [failure, expected[-1]]

    both = program.log.read_bytes()
    assert both.startswith(first)
    assert b"\r" not in both.replace(b"\r\n", b"")
    assert both.count(b"\n") == both.count(b"\r\n") or isinstance(program, LinuxProgram) and b"\r" not in both


def test_others_use_the_live_file(program, tmp_path):
    leave = program.open_dialog()
    # A line reaches the file soon, even if nobody asks for a flush.
    wait_for(lambda: program.log.exists() and "Showing dialog..." in program.log.read_text(), "the lines")
    copy = shutil.copy(program.log, tmp_path / "copy")
    with open(program.log, encoding="utf-8") as tail:
        tail.seek(0, 2)
        program.log.rename(program.log.with_suffix(".moved"))
        assert leave() == 0
        assert "Done." in tail.read()
    assert "Done." not in copy.read_text()


def test_a_long_file_is_numbered(program):
    program.log.parent.mkdir(parents=True)
    program.log.write_bytes(b"x" * (LIMIT + 1))
    assert rows_of_a_run(program)
    numbered = program.log.with_name("TavroVssAgentGUI.exe.log000001.txt.gz")
    assert sorted(program.log.parent.iterdir()) == sorted([program.log, numbered])
    assert numbered.read_bytes() == b"x" * (LIMIT + 1)  # the name alone says compressed
    assert program.log.stat().st_size < 10_000


@pytest.mark.parametrize("obstacle", ["Tavro", "Tavro/logs", "Tavro/logs/TavroVssAgentGUI.exe.log.txt/"])
def test_without_a_place_for_the_log_the_program_works(program, obstacle):
    blocked = program.log.parents[2] / obstacle
    if obstacle.endswith("/"):
        blocked.mkdir(parents=True)
    else:
        blocked.parent.mkdir(parents=True, exist_ok=True)
        blocked.write_text("in the way")
    assert program.submit("name") == 0
    assert program.agent_record()["arguments"][-1] == "name"
    shutil.rmtree(blocked) if blocked.is_dir() else blocked.unlink()
