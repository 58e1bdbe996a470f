"""What the Windows program file says of itself, read back without running it."""

import struct
import xml.etree.ElementTree

import pytest

pefile = pytest.importorskip("pefile")

ENGLISH_US = 1033
ICON, DIALOG, STRINGS, ICON_GROUP, MANIFEST = 3, 5, 6, 14, 24
ICON_SIZES = [16, 32, 48, 64, 128]
VERSION = 16
BUTTON, EDIT, STATIC = 0x80, 0x81, 0x82
# Of the libraries that Windows always takes from its own folder (the session manager's KnownDLLs).
KNOWN_LIBRARIES = {f"{name}.dll" for name in
                   ("advapi32", "gdi32", "kernel32", "msvcrt", "ole32", "psapi", "shell32", "shlwapi", "user32")}


@pytest.fixture(scope="module")
def image(windows_build):
    return pefile.PE(windows_build / "TavroVssAgentGUI.exe")


@pytest.fixture(scope="module")
def resources(image):
    """The bytes of each resource, by type, id and language."""
    return {(kind.id, entry.id, language.id): image.get_data(language.data.struct.OffsetToData,
                                                             language.data.struct.Size)
            for kind in image.DIRECTORY_ENTRY_RESOURCE.entries
            for entry in kind.directory.entries for language in entry.directory.entries}


class Reader:
    def __init__(self, data):
        self.data = data
        self.position = 0

    def take(self, layout):
        values = struct.unpack_from("<" + layout, self.data, self.position)
        self.position += struct.calcsize("<" + layout)
        return values if len(values) > 1 else values[0]

    def text(self, length=None):
        """A text of the given length, or up to a zero; a number if one stands in the place of the text."""
        if length is not None:
            return self.take(f"{2 * length}s").decode("utf-16-le")
        units = []
        while (unit := self.take("H")) not in (0, 0xFFFF):
            units.append(chr(unit))
        return self.take("H") if unit else "".join(units)

    def align(self):
        self.position = (self.position + 3) // 4 * 4


def test_nothing_is_missing_or_foreign(resources):
    ids = [(DIALOG, 101), (STRINGS, 102 // 16 + 1), (ICON_GROUP, 104), (VERSION, 1), (MANIFEST, 1)]
    icons = [(ICON, number + 1) for number in range(len(ICON_SIZES))]
    assert sorted(resources) == sorted((*entry, ENGLISH_US) for entry in ids + icons)


def test_dialog(resources):
    reader = Reader(resources[DIALOG, 101, ENGLISH_US])
    assert reader.take("HHII") == (1, 0xFFFF, 0, 0)  # version, extended, no help id, no extended style
    assert reader.take("I") == 0x80C800C8
    count = reader.take("H")
    assert reader.take("4h") == (0, 0, 316, 62)
    assert [reader.text() for _ in range(3)] == ["", "", "Add VSS Checkpoint"]  # menu, class, title
    assert reader.take("HHBB") == (8, 400, 0, 1)
    assert reader.text() == "MS Shell Dlg"
    controls = []
    for _ in range(count):
        reader.align()
        assert reader.take("II") == (0, 0)  # no help id, no extended style
        style, *rectangle, control_id = reader.take("I4hi")
        controls.append((control_id, reader.text(), reader.text(), tuple(rectangle), style))
        assert reader.take("H") == 0  # no creation data
    assert controls == [
        (1002, EDIT, "", (7, 21, 302, 14), 0x50810080),
        (1, BUTTON, "OK", (205, 41, 50, 14), 0x58010001),
        (2, BUTTON, "Cancel", (259, 41, 50, 14), 0x50010000),
        (-1, STATIC, "Enter a name for a checkpoint", (7, 7, 98, 8), 0x50020000),
    ]


def test_strings(resources):
    reader = Reader(resources[STRINGS, 7, ENGLISH_US])
    strings = {96 + index: text for index in range(16) if (text := reader.text(reader.take("H")))}
    assert strings == {102: "Add VSS Checkpoint", 103: "Enter a name for a checkpoint"}


def test_icon(resources):
    group = Reader(resources[ICON_GROUP, 104, ENGLISH_US])
    assert group.take("HHH") == (0, 1, len(ICON_SIZES))
    sizes = []
    for _ in ICON_SIZES:
        width, height, _, _, _, bits, _, number = group.take("BBBBHHIH")
        bitmap = Reader(resources[ICON, number, ENGLISH_US]).take("IiiHH")
        assert bitmap == (40, width, 2 * height, 1, 32)  # header size; the mask doubles the height
        assert (width, bits) == (height, 32)
        sizes.append(width)
    assert sorted(sizes) == ICON_SIZES


def test_manifest(resources):
    manifest = xml.etree.ElementTree.fromstring(resources[MANIFEST, 1, ENGLISH_US])
    level = manifest.find(".//{*}requestedExecutionLevel")
    assert level.attrib == {"level": "requireAdministrator", "uiAccess": "false"}
    settings = {entry.tag.split("}")[1]: entry.text for entry in manifest.find(".//{*}windowsSettings")}
    assert settings == {"dpiAware": "true/pm", "dpiAwareness": "PerMonitorV2, PerMonitor", "activeCodePage": "UTF-8"}
    controls = manifest.find(".//{*}dependentAssembly/{*}assemblyIdentity")
    assert (controls.get("name"), controls.get("version")) == ("Microsoft.Windows.Common-Controls", "6.0.0.0")


@pytest.mark.parametrize("name", ["TavroVssAgentGUI.exe", "tavro.exe"])
def test_version(windows_build, name):
    image = pefile.PE(windows_build / name)
    strings = {key.decode(): value.decode() for block in image.FileInfo[0] if hasattr(block, "StringTable")
               for table in block.StringTable for key, value in table.entries.items()}
    fixed = image.VS_FIXEDFILEINFO[0]
    numbers = [fixed.FileVersionMS >> 16, fixed.FileVersionMS & 0xFFFF, fixed.FileVersionLS >> 16]
    assert strings["FileVersion"] == ".".join(map(str, numbers))
    assert strings["ProductVersion"].startswith(strings["FileVersion"] + ", ")  # and the commit
    assert strings["OriginalFilename"] == name


@pytest.mark.parametrize("name", ["TavroVssAgentGUI.exe", "tavro.exe"])
def test_needs_only_libraries_of_the_system(windows_build, name):
    imported = {entry.dll.decode().lower() for entry in pefile.PE(windows_build / name).DIRECTORY_ENTRY_IMPORT}
    assert {name for name in imported if not name.startswith("api-ms-")} <= KNOWN_LIBRARIES


def test_is_small_without_its_debug_information(image):
    sections = [section for section in image.sections if not section.Name.startswith(b"/")] # debug sections have long names
    assert len(sections) < len(image.sections)
    assert sum(section.SizeOfRawData for section in sections) < 1_600_000


def test_windowed_and_hardened(image):
    assert image.OPTIONAL_HEADER.Subsystem == pefile.SUBSYSTEM_TYPE["IMAGE_SUBSYSTEM_WINDOWS_GUI"]
    assert image.OPTIONAL_HEADER.IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA
    assert image.OPTIONAL_HEADER.IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE
    assert image.OPTIONAL_HEADER.IMAGE_DLLCHARACTERISTICS_NX_COMPAT
