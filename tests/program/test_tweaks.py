"""The configuration, from files to what the program makes of them. What they mean is worked out here once more."""

import itertools
import random
import re
import tempfile
import zlib
from pathlib import Path

import pytest

CONSISTENT, EXTENSION = "olm_tweaks/tweaks.txt", "tweaks_extension.txt"
SURVIVING = [f"test_appdata{separator}tweaks_extension_upgrade_surviving.txt" for separator in ("", "/")]
DEFAULTS = {b"t_qlogMaxFiles": 3, b"t_FileLoggerCompressOnRotate": 1, b"t_FileLoggerEnabled": 1,
            b"t_runnerEventFreezeCompleteTimeoutMsec": 75_000, b"t_runnerEventThawCompleteTimeoutMsec": 15_000,
            b"t_requesterQuiescedEventWaitTimeoutMsec": 72_000, b"t_requesterEventWaitForThawStartTimeoutMsec": 9_500,
            b"t_requesterEventWaitForSharedMemoryReadTimeoutMsec": 80_000, b"t_WaitAsyncTimeoutMsec": 62_000}
LONGEST_LINE, BLANKS = 511, b" \t\r\n"
BOOLEANS = (dict.fromkeys([b"true", b"yes", b"on", b"enabled", b"ok"], 1) |
            dict.fromkeys([b"false", b"no", b"off", b"disabled"], 0))
NUMBERS = {10: rb"\s*[+-]?[0-9]+", 16: rb"\s*[+-]?(0[xX])?[0-9a-fA-F]+"}

SOME_NAMES = [*list(DEFAULTS)[:3], b"t_a", b"t_ab", b"t_[x", b"t_a b", b"T_Z", b"t_1", b"", b"t.q", b"t_\"q\""]
SOME_VALUES = b"""5 -7 +3 12abc 1.9 007 0x1F 0X10 -0x10 0x-f 0x0x1F 9223372036854775807 -9223372036854775808 TRUE yes
    oN Enabled ok False no OFF disabled 0x7fffFFFFffffFFFF "ON" "false" "" "12" "a=b" "say"hi"" "x\xe4\xf6" """.split()
SOME_VALUES += [b"", b"1 2", b"0x -f", b'" on "', b'"a\t\r b"']


def lines_of(data):
    """Without their ends, and only up to a line that is too long."""
    lines = data.replace(b"\r\n", b"\n").split(b"\n")
    return list(itertools.takewhile(lambda line: len(line) <= LONGEST_LINE, lines if lines[-1] else lines[:-1]))


def listed(name, value):
    inner = value[1:-1] if value.startswith(b'"') else value
    number = BOOLEANS.get(inner.lower())
    if number is None and inner == value:
        base = 16 if value[:2].lower() == b"0x" else 10
        number = int(re.match(NUMBERS[base], value[2:] if base == 16 else value)[0], base)
    return name + b"=" + (value if number is None else b"%d" % number)


def configuration(texts):
    """What is listed in the end, and the reports on the way."""
    table, reports = {}, []
    for text in texts:
        contents = [line.partition(b";")[0].strip(BLANKS) for line in lines_of(text)]
        pairs = [[part.strip(BLANKS) for part in line.split(b"=", 1)] for line in contents if b"=" in line]
        for name, value in pairs:
            if [other for other, _ in pairs].count(name) > 1:
                reports.append(b'multiple definition for tweak "%s"' % name)
                continue
            table.pop(name.lower(), None)
            if value:
                table[name.lower()] = listed(name, value)
    for name, number in DEFAULTS.items():
        table.setdefault(name.lower(), b"%s=%d" % (name, number))
    return [table[name] for name in sorted(table)], reports


def random_text(rng, is_strict):
    lines = rng.choices([b"", b" \t", b";", b"; t_a = 1"], k=rng.randrange(4))
    lines += rng.sample([b"t_511=1;".ljust(511, b"."), b"t_512=1;".ljust(512, b".")], rng.choice([0, 0, 1, 2]))
    lines += [] if is_strict else [b"t_a"]
    names = [rng.choice([name, name.upper(), name.swapcase()]) for name in rng.choices(SOME_NAMES, k=rng.randrange(20))]
    for name in dict.fromkeys(names) if is_strict else names:
        value = rng.choice([*SOME_VALUES, b"%d" % rng.randrange(-2**63, 2**63), b"0x%X" % rng.randrange(2**63)])
        pieces = [b"", name, b"=", value, rng.choice([b"", b"", b"; t_a = 1; 2"])]
        lines.append(b"".join(piece + rng.choice([b"", b" ", b"\t "]) for piece in pieces))
    rng.shuffle(lines)
    text = b"".join(line + rng.choice([b"\n", b"\r\n"]) for line in lines)
    return text.removesuffix(rng.choice([b"", b"\n"]))  # this may leave a carriage return behind


def slot(number, sequence, data=None, crc=None):
    """The two files of a signed copy, which sets t_slot to its number unless data are given."""
    data = b"t_slot = %d\n" % number if data is None else data
    crc = zlib.crc32(b"".join(line + b"\n" for line in lines_of(data))) if crc is None else crc
    return {f"{CONSISTENT}.{number}": data, f"{CONSISTENT}.{number}.sig": b"%d\n%d\n" % (sequence, crc)}


def put(folder, files):
    """With a folder where there is None in place of bytes."""
    for name, data in files.items():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).mkdir() if data is None else (folder / name).write_bytes(data)


def test_random_folders(show_tweaks, tmp_path):
    for seed in range(6 if show_tweaks.wine else 40):
        rng = random.Random(seed)
        text, number = random_text(rng, is_strict=True), rng.randrange(2)
        other = rng.choice([{}, slot(1 - number, 4), slot(1 - number, 6, crc=1)])
        extensions = {name: random_text(rng, is_strict=False) for name in (EXTENSION, *SURVIVING) if rng.random() < 0.8}
        put(tmp_path / str(seed), slot(number, 5, text) | other | extensions)
        status, output = show_tweaks.run(tmp_path / str(seed))
        output = output.replace(b"\r\n", b"\n")
        shown = [re.findall(line, output, re.M) for line in (rb"^.*,Control,\d+,NON,Tweaks,print,(.*)", b"^multiple.*")]
        assert (status, *shown) == (0, *configuration([text, *extensions.values()])), f"seed {seed}"


LATEST, OLDER = "Info Latest index found: {}", "Info Index {} is older than the current one"
ABSENT, UNPAIRED = (text + " persistent files for index {}" for text in ("Info Not found", "Error Incomplete pair of"))
MISMATCH = "Error Data and signature do not match for index {}"


@pytest.mark.parametrize(("files", "scan", "winner"), [
    (slot(0, 4) | slot(1, 5), [LATEST, LATEST], 1),
    (slot(0, 5) | slot(1, 5), [LATEST, LATEST], 1),
    (slot(0, 7) | slot(1, 3, crc=0), [LATEST, OLDER], 0),  # reading it would show the mismatch
    (slot(0, 2**64 - 2) | slot(1, 1), [LATEST, OLDER], 0),
    (slot(0, 4) | slot(1, 5, crc=0), [LATEST, MISMATCH], 0),
    (slot(0, 5, crc=0) | slot(1, 4), [MISMATCH, LATEST], 1),
    (slot(0, 1, b"t_slot = 0\r\n", zlib.crc32(b"t_slot = 0\n")), [LATEST, ABSENT], 0),
    (slot(1, 1, b"t_slot = 1", zlib.crc32(b"t_slot = 1\n")), [ABSENT, LATEST], 1),
    (slot(1, 1, b"t_slot = 1", zlib.crc32(b"t_slot = 1")), [ABSENT, MISMATCH], None),
    (slot(0, 1, crc=zlib.crc32(b"t_slot = 0\n") + 2**32), [LATEST, ABSENT], 0),
    (slot(0, 0), [LATEST, ABSENT], None),
    ({f"{CONSISTENT}.0": b""}, [UNPAIRED, ABSENT], None),
    (slot(0, 1) | {f"{CONSISTENT}.1": None, f"{CONSISTENT}.1.sig": b"2\n0\n"}, [LATEST, UNPAIRED], 0),
], ids=["newest", "equal", "older", "huge", "second broken", "first broken", "CRLF", "no last line feed",
        "no last line feed signed", "low half of CRC", "sequence 0", "no signature", "no data"])
def test_consistent_file(show_tweaks, tmp_path, files, scan, winner):
    put(tmp_path, files)
    status, output = show_tweaks.run(tmp_path)
    text = output.decode().replace("\r", "")
    expected = [("findLatestValidFileIndex", line.format(index)) for index, line in enumerate(scan)] * 2  # made, loaded
    expected += [("load", "Error Error loading from disk")] if winner is None else []
    logged = re.findall("^[^,]*,([^,]*),[^,]*,NON,ConsistentFile,([^,]*),(.*)", text, re.M)
    assert [(method, f"{level} {message}") for level, method, message in logged] == expected
    assert re.findall("print,t_slot=(.*)", text) == ([] if winner is None else [str(winner)])
    assert (status == 0) == (winner is not None)


def submit(program):
    """The exit status, standard output and standard error, without what ends them."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        status = program.submit("name", stdout=out, stderr=err)
        out, err = [stream.seek(0) or stream.read().decode().replace("\r", "").strip() for stream in (out, err)]
    return status, re.sub(r"^[-0-9]+ [:.0-9]+,Assert,\d+,NON,", "Assert ", out, flags=re.M), err


ASSERTION = "Assertion ({}) failed datapath/common/infra/Tweaks.cpp {}"
NUMBER = ASSERTION.format("false", 71)
QUOTES = ASSERTION.format("""val.length() > 1 && (val[val.length() -1] == '"')""", 32)
TWICE = 'multiple definition for tweak "t_x"'


@pytest.mark.parametrize(("files", "out", "explained"), [
    ({f"{CONSISTENT}.1": b""}, "Assert Tweaks,loadFromFiles, datapath/common/infra/Tweaks.cpp 160: false failed. "
                               "Could not load consistent tweak information", ["has no valid copy"]),
    (slot(0, 1, b"t_x = word"), NUMBER, ['"t_x"', "'word'", "(in olm_tweaks//tweaks.txt)"]),
    ({EXTENSION: b"t_x = a = b"}, NUMBER, ['"t_x"', "'a = b'", f"(in {EXTENSION})"]),
    ({SURVIVING[0]: b"t_x=9223372036854775808"}, NUMBER, ['"t_x"', "'9223372036854775808'", f"(in {SURVIVING[0]})"]),
    ({SURVIVING[1]: b'T_x="a;b"'}, QUOTES, ['"T_x"', """'"a'""", f"(in {SURVIVING[1]})"]),
    ({EXTENSION: b't_x = "'}, QUOTES, ['"t_x"', """'"'""", f"(in {EXTENSION})"]),
    (slot(0, 1, b"t_x = 1\nword ; = 2"), ASSERTION.format("false", 602), ['without "=": word']),
    (slot(0, 1, b"t_x = 1\nt_x = 1"), TWICE + "\n" + ASSERTION.format("!strict", 244), ['"t_x"', "olm_tweaks"]),
    ({EXTENSION: b't_ENABLEmemshield="x"'}, ASSERTION.format("false", 123), ['"t_enableMemshield"', ' "x"']),
    ({EXTENSION: b"t_defaultDlcTimeoutSec=-1"}, ASSERTION.format("ival >= 0", 535), ['"t_defaultDlc', " -1 "]),
], ids=["no copy", "word", "second =", "large", "cut string", "lone quote", "no =", "twice", "string", "negative"])
def test_bad_file_ends_the_program(program, files, out, explained):
    put(program.folder, files)
    status, written, explanation = submit(program)
    assert (status, written) == (program.ABNORMAL_END, out)
    assert all(part.replace("/", program.separator) in explanation for part in explained), explanation
    assert program.agent_record() is None


@pytest.mark.parametrize(("files", "out"), [
    ({}, ""),
    ({EXTENSION: None, SURVIVING[0]: None}, ""),  # they cannot be read
    ({EXTENSION: b"t_x = 1\n".ljust(600, b"x") + b"\nt_y = word", SURVIVING[0]: b"t_x"}, ""),
    ({EXTENSION: b"t_x=1\nt_x=word", SURVIVING[1]: b"t_x=1\nT_X=2"}, f"{TWICE}\n{TWICE}"),
    ({"test_appdata": b""}, ""),
], ids=["no files", "folders", "long line and no =", "twice", "a file for a folder"])
def test_harmless(program, files, out):
    put(program.folder, files)
    assert submit(program) == (0, out, "")
    assert program.agent_record()["arguments"][-1] == "name"
    assert (program.folder / "test_appdata").is_dir() == ("test_appdata" not in files)


def test_folder_that_cannot_be_made(program):
    program.folder = Path("/proc")  # nothing can be created there, whoever asks
    assert submit(program) == (program.ABNORMAL_END, "Assert Directories,ensureExists, "
                               "datapath/common/infra/windows/Directories.cpp 48: (*_errno()) == 17 failed. "
                               f"mkdir failed for dir test_appdata{program.separator} and it does not exist", "")
