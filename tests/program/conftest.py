"""Drives the finished program from outside: real files, a real window, a real agent process.

The folders of the built presets are given by --linux-build and --windows-build (or the environment's
TAVRO_LINUX_BUILD and TAVRO_WINDOWS_BUILD); tests of a target without a folder are left out. So are those of the
finished packages without --packages.
"""

import contextlib
import os
import shutil
import subprocess
from pathlib import Path

import pytest

from programs import Desktop, FlushedLog, LinuxProgram, Tavro, WindowsProgram, Wine

TARGETS = ("linux", "windows")


def pytest_addoption(parser):
    for target in TARGETS:
        parser.addoption(f"--{target}-build", default=os.environ.get(f"TAVRO_{target.upper()}_BUILD"), metavar="DIR",
                         help=f"the folder of a built preset for {target}")
    parser.addoption("--packages", metavar="DIR", help="the folder with the finished packages")
    parser.addoption("--artefacts", metavar="DIR", help="keep screenshots here (default: the Windows build folder)")


def build_folder(config, target):
    folder = config.getoption(f"{target}_build")
    return folder and Path(folder).resolve()


def pytest_generate_tests(metafunc):
    for fixture in {"program", "tavro", "flushed_log"} & set(metafunc.fixturenames):
        metafunc.parametrize(fixture, [t for t in TARGETS if build_folder(metafunc.config, t)], indirect=True)


def pytest_collection_modifyitems(config, items):
    missing = {f"{target}_build" for target in TARGETS if not build_folder(config, target)}
    missing |= set() if config.getoption("packages") else {"packages"}
    if "TAVRO_THOROUGH" not in os.environ:
        missing.add("thorough")
    config.hook.pytest_deselected(items=[item for item in items if missing & needs(item)])
    items[:] = [item for item in items if not missing & needs(item)]


def needs(item):
    return {*item.fixturenames, *(mark.name for mark in item.iter_markers())}


@pytest.fixture(scope="session")
def linux_build(pytestconfig):
    return build_folder(pytestconfig, "linux")


@pytest.fixture(scope="session")
def windows_build(pytestconfig):
    return build_folder(pytestconfig, "windows")


@pytest.fixture(scope="session")
def packages(pytestconfig):
    return Path(pytestconfig.getoption("packages")).resolve()


@pytest.fixture(scope="session")
def artefacts(pytestconfig, windows_build):
    folder = Path(pytestconfig.getoption("artefacts") or windows_build).resolve()
    folder.mkdir(parents=True, exist_ok=True)
    return folder


@contextlib.contextmanager
def started_screen():
    """A display without a monitor."""
    receive, send = os.pipe()
    server = subprocess.Popen(["Xvfb", "-displayfd", str(send), "-screen", "0", "1280x800x24", "-nolisten", "tcp"],
                              pass_fds=[send], stderr=subprocess.DEVNULL)
    os.close(send)
    with os.fdopen(receive) as display:
        yield ":" + display.readline().strip()
    server.terminate()
    server.wait()


@contextlib.contextmanager
def started_wine(folder, prefix, screen):
    wine = Wine(folder, prefix, screen)
    if not (wine.prefix / "system.reg").exists():
        wine.run("wineboot", "-i")
    # In a virtual desktop Wine draws the caption and its buttons, and a program stays a child of this process.
    key = r"HKCU\Software\Wine\Explorer"
    wine.run("wine", "reg", "add", key, "/v", "Desktop", "/d", "Default", "/f")
    wine.run("wine", "reg", "add", key + r"\Desktops", "/v", "Default", "/d", "1280x800", "/f")
    # The dialog's font is as wide as that of Windows. The distribution keeps the font of the caption's buttons where
    # Wine does not look.
    wine.run("wine", "reg", "add", r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\FontSubstitutes",
             "/v", "MS Shell Dlg", "/d", "Liberation Sans", "/f")
    for font in Path("/usr/share/wine/fonts").glob("marlett.ttf"):
        shutil.copy(font, wine.prefix / "drive_c" / "windows" / "Fonts")
    yield wine
    wine.end()


@pytest.fixture(scope="session")
def screen():
    with started_screen() as screen:
        yield screen


@pytest.fixture(scope="session")
def wine(screen, tmp_path_factory):
    """Runs commands under Wine. WINEPREFIX may name a prefix to keep, whose processes are ended before and after."""
    folder = tmp_path_factory.mktemp("wine")
    with started_wine(folder, Path(os.environ.get("WINEPREFIX", folder / "prefix")), screen) as wine:
        yield wine


@pytest.fixture(scope="session")
def desktop(windows_build, wine):
    with Desktop(wine, windows_build / "window_probe.exe") as desktop:
        yield desktop


@pytest.fixture(scope="session")
def fresh_desktop(windows_build, tmp_path_factory):
    """A desktop of its own, on a Windows on which nothing was installed before."""
    folder = tmp_path_factory.mktemp("fresh_wine")
    with started_screen() as screen, started_wine(folder, folder / "prefix", screen) as wine, \
            Desktop(wine, windows_build / "window_probe.exe") as desktop:
        yield desktop


@pytest.fixture
def linux_program(linux_build, tmp_path):
    return LinuxProgram(linux_build, tmp_path)


@pytest.fixture
def windows_program(windows_build, tmp_path, desktop):
    with WindowsProgram(windows_build, tmp_path, desktop) as program:
        yield program


@pytest.fixture
def program(request):
    """The program of each target that was built."""
    return request.getfixturevalue(f"{request.param}_program")


def tool(kind, request, target=None):
    target = target or request.param
    wine = request.getfixturevalue("wine") if target == "windows" else None
    return kind(build_folder(request.config, target), wine)


@pytest.fixture
def tavro(request):
    """The console tool, of each target that was built."""
    return tool(Tavro, request)


@pytest.fixture
def tavro_beside(request, program):
    """The console tool of the same target as the program, in the program's folder."""
    target = "windows" if program.separator == "\\" else "linux"
    tavro = tool(Tavro, request, target)
    tavro.path = Path(shutil.copy(tavro.path, program.folder))
    return tavro


@pytest.fixture
def flushed_log(request):
    """The program that logs until it is killed, of each target that was built."""
    return tool(FlushedLog, request)
