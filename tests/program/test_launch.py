"""How the agent is started, on each target."""

import pytest

from programs import WindowsProgram

LONGEST_NAME = 65_535  # UTF-16 units that the dialog passes on whole


def check_launch(program, settings, name, argument):
    assert program.submit(name) == 0
    record = program.agent_record()
    if isinstance(program, WindowsProgram):  # the only target with a raw command line
        assert record["commandLine"] == f'TavroVssAgent.exe -GUI {" ".join(settings)} "{name}"'
    assert record["arguments"] == ["TavroVssAgent.exe", "-GUI", *filter(None, settings), argument]


@pytest.mark.parametrize(("name", "argument"), [
    ("año – été Ærø", "año – été Ærø"),
    ("перед обновлением", "перед обновлением"),
    ("🚀 release 𝄞", "🚀 release 𝄞"),
    (" two  blanks ", " two  blanks "),
    ('say "now" twice', "say now twice"),  # no escaping: an embedded quote ends the quoted part
], ids=["accents", "cyrillic", "surrogate pairs", "blanks", "quote"])
def test_name_arrives(program, name, argument):
    program.settings.write_text("a b c d")
    check_launch(program, ["a", "b", "c", "d"], name, argument)


@pytest.mark.parametrize(("text", "settings"), [
    (b"\t host.a\t8080\r\n\r\nhost.b \n 9090\r\nfifth", ["host.a", "8080", "host.b", "9090"]),
    (b"h\xc3\xb6st 80\r\n", ["h\u00c3\u00b6st", "80", "", ""]),  # bytes are widened one by one
    (None, ["", "", "", ""]),
], ids=["any whitespace", "too few", "no file"])
def test_settings(program, text, settings):
    if text is not None:
        program.settings.write_bytes(text)
    check_launch(program, settings, "name", "name")


def test_agent_gets_our_environment_and_folder(program, monkeypatch):
    monkeypatch.setenv("TAVRO_TEST_MARK", "kept")
    assert program.submit("name") == 0
    record = program.agent_record()
    assert "TAVRO_TEST_MARK=kept" in record["environment"]
    assert record["workingFolder"] == program.agent_folder


def test_longest_name(program):
    name = "n" * LONGEST_NAME
    assert program.submit(name) == 0
    # The system limits a command line to 32,767 units there: Windows refuses to start it, Wine cuts it.
    if not isinstance(program, WindowsProgram):
        assert program.agent_record()["arguments"][-1] == name
