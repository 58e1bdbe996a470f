"""The archive for Windows, unpacked and used as it is."""

import shutil
import zipfile
from pathlib import Path

from programs import AGENT, Tavro, WindowsProgram
from test_tavro_doctor import diagnose, told


def test_it_works_in_any_folder(packages, windows_build, tmp_path, desktop):
    archive, = packages.glob("*-windows-x64.zip")
    folder = tmp_path / "Prüfstand – 検査"
    zipfile.ZipFile(archive).extractall(tmp_path)
    unpacked = tmp_path / archive.stem
    (unpacked / "stand-in").mkdir()
    shutil.copy(windows_build / "stand-in" / AGENT, unpacked / "stand-in")
    folder.mkdir()
    tavro = Tavro(unpacked, desktop.wine)
    version = (unpacked / "Version.txt").read_text().split("\n")
    with WindowsProgram(unpacked, folder, desktop) as program:
        tavro.path = Path(shutil.copy(tavro.path, folder))
        assert tavro.run(folder, "--version")[1] == f'tavro {version[0].split()[1]}, {version[1]}\n'
        shutil.copy(unpacked / f"{program.settings.name}.template", program.settings)
        assert program.submit("before the upgrade") == 0
        arguments = program.agent_record()["arguments"]
        assert arguments[2:] == ["192.0.2.10", "4710", "192.0.2.20", "4711", "before the upgrade"]
        faults = told(diagnose(tavro, folder), "fault")
        assert [fault for fault in faults if "who may write Z:\\tmp:" not in fault] == []
