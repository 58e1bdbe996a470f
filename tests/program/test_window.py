"""The window, with real keys and clicks."""

import pytest

from programs import CANCEL, EDIT, OK, wait_for

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


def test_screenshot(windows_program, artefacts):
    desktop = windows_program.start()
    desktop.type("before the upgrade")
    wait_for_text(desktop, "before the upgrade")
    desktop.click(600, 400)  # under Wine the caption stays grey until the window is activated again
    desktop.click_control(EDIT)
    desktop.capture(artefacts / "checkpoint-dialog.png")
