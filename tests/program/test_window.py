"""The window, with real keys and clicks."""

import shutil

import pytest

from programs import CANCEL, EDIT, OK, Desktop, wait_for

CLOSE_BUTTON = (13, 12)  # pixels from the window's upper right corner to the button's middle


def wait_for_text(desktop, text):
    wait_for(lambda: desktop.control(EDIT)["text"] == text, f"the text {text!r}")


def test_ok_is_enabled_while_there_is_a_name(windows_program):
    desktop = windows_program.start()
    assert desktop.dialog()["focus"] == EDIT
    assert not desktop.control(OK)["enabled"]
    desktop.press("Return")  # does nothing
    desktop.type("x")
    wait_for(lambda: desktop.control(OK)["enabled"], "OK to be enabled")
    desktop.press("BackSpace")
    wait_for(lambda: not desktop.control(OK)["enabled"], "OK to be disabled")


@pytest.mark.parametrize("accept", [lambda desktop: desktop.press("Return"), lambda desktop: desktop.click_control(OK)],
                         ids=["return", "click"])
def test_ok_starts_the_agent(windows_program, accept):
    windows_program.settings.write_text("a b c d")
    desktop = windows_program.start()
    desktop.type("before the upgrade")
    wait_for_text(desktop, "before the upgrade")
    accept(desktop)
    assert windows_program.exit_code() == 0
    assert windows_program.agent_record()["commandLine"] == 'TavroVssAgent.exe -GUI a b c d "before the upgrade"'


def click_close(desktop):
    _, top, right, _ = desktop.dialog()["rectangle"]
    desktop.click(right - CLOSE_BUTTON[0], top + CLOSE_BUTTON[1])


@pytest.mark.parametrize("leave", [lambda desktop: desktop.press("Escape"),
                                   lambda desktop: desktop.click_control(CANCEL), click_close],
                         ids=["escape", "cancel", "close"])
def test_leaving_starts_nothing(windows_program, leave):
    desktop = windows_program.start()
    desktop.type("x")
    wait_for_text(desktop, "x")
    leave(desktop)
    assert windows_program.exit_code() == 0
    assert windows_program.agent_record() is None


# Libraries of Windows that it does not always take from its own folder, and that programs with a window load.
PLANTED = ("pdh", "comctl32", "uxtheme", "dwmapi", "propsys", "cryptbase", "profapi", "ntmarta", "apphelp", "textshaping",
           "winmm", "wtsapi32", "userenv", "usp10", "bcrypt", "crypt32", "rsaenh")


def test_a_planted_library_is_not_loaded(windows_program, windows_build, desktop):
    """The program is elevated and may lie among downloads, where anybody may have put a library."""
    def plant(folder):
        for name in PLANTED:
            shutil.copy(windows_build / "planted.dll", folder / f"{name}.dll")

    def loaded(folder):
        return sorted(mark.name for mark in folder.glob("*.loaded"))

    probe_folder = windows_program.folder / "probe"
    probe_folder.mkdir()
    plant(probe_folder)
    with Desktop(desktop.wine, shutil.copy(windows_build / "window_probe.exe", probe_folder)) as probe:
        probe.load_library("pdh.dll")
        assert "pdh.dll.loaded" in loaded(probe_folder)  # it works against a program without protection
    desktop.restart(96)

    plant(windows_program.folder)
    windows_program.mark["WINEDLLOVERRIDES"] = ",".join(PLANTED) + "=n,b;mscoree,mshtml="  # Wine prefers many of its own
    windows_program.open_dialog()()
    assert loaded(windows_program.folder) == []


PROMPT = -1
# In dialog units, as in the template.
CONTROLS = {EDIT: (7, 21, 302, 14), OK: (205, 41, 50, 14), CANCEL: (259, 41, 50, 14), PROMPT: (7, 7, 98, 8)}
DIALOG_SIZE = (316, 62)


def units_to_pixels(units, base_units):
    """As MulDiv rounds: a unit is a fourth of the font's width or an eighth of its height."""
    return [(2 * unit * base + divisor) // (2 * divisor)
            for unit, base, divisor in zip(units, base_units * 2, (4, 8, 4, 8))]


@pytest.fixture(params=[96, 144, 192])
def density(request, desktop):
    if request.param != 96:
        desktop.restart(request.param)
    yield request.param
    if request.param != 96:
        desktop.restart(96)


def test_the_window_fits_the_screen(density, windows_program, artefacts):
    """On a screen of any density nothing is blurred, misplaced or cut. The picture is there to be looked at."""
    desktop = windows_program.start()
    name = "before the upgrade"
    desktop.type(name)
    wait_for_text(desktop, name)
    desktop.click(900, 600)  # under Wine the caption stays grey until the window is activated again
    desktop.click_control(EDIT)
    desktop.capture(artefacts / f"checkpoint-dialog-{density}-dpi.png")

    dialog = desktop.dialog()
    left, top, right, bottom = dialog["client"]
    base_units = (6 * density // 96, round((bottom - top) * 8 / DIALOG_SIZE[1]))
    assert 1.05 <= base_units[1] / round(8 * density / 72) < 1.3  # of an 8-point font, with its room for accents
    assert [right - left, bottom - top] == units_to_pixels(DIALOG_SIZE, base_units)
    for control in dialog["controls"]:
        x, y, width, height = units_to_pixels(CONTROLS[control["id"]], base_units)
        assert control["rectangle"] == [left + x, top + y, left + x + width, top + y + height], control
        assert control["textWidth"] <= width, control
