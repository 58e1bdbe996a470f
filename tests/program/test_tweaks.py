"""The configuration, from files to what the program makes of them."""

import re
import tempfile
import zlib

import pytest

CONSISTENT, EXTENSION = "olm_tweaks/tweaks.txt", "tweaks_extension.txt"
SURVIVING = [f"test_appdata{separator}tweaks_extension_upgrade_surviving.txt" for separator in ("", "/")]


def slot(number, sequence, data=None, crc=None):
    """The two files of a signed copy, which sets t_slot to its number unless data are given."""
    data = b"t_slot = %d\n" % number if data is None else data
    crc = zlib.crc32(data.replace(b"\r\n", b"\n")) if crc is None else crc
    return {f"{CONSISTENT}.{number}": data, f"{CONSISTENT}.{number}.sig": b"%d\n%d\n" % (sequence, crc)}


def put(folder, files):
    """Writes the files. A file without bytes (None) becomes a folder."""
    for name, data in files.items():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).mkdir() if data is None else (folder / name).write_bytes(data)


def test_later_files_win(tavro, tmp_path):
    put(tmp_path, slot(1, 1, b'\t t_a =\t1 ; first\r\nt_B=on;;\r\nt_gone = 1\r\nt_qlogMaxFiles = 7\r\n = "="\r\n') | {
        EXTENSION: b"T_A = 2\nt_gone=\nt_twice = 1\nt_twice = 2\nT_TWICE=3\nt_FileLoggerEnabled = off\n; t_a = 9\n" +
                   b"t_511=1;".ljust(511, b".") + b"\r\n" + b"t_512=1;".ljust(512, b".") + b"\nt_late = 1",
        SURVIVING[0]: b't_ab = " on "\r\nt_[x = 0x1F\r', SURVIVING[1]: b"t_A = 3\nno value\nt_b ="})
    status, output, _ = tavro.run(tmp_path, "tweaks", "show", "--lines")
    listing = re.findall(r"Tweaks,print,(?!t_\w+TimeoutMsec=\d)(.*)", output)
    assert (status, listing) == (0, ['="="', "t_511=1", "t_[x=31", "t_A=3", 't_ab=" on "', "t_FileLoggerCompressOnRotate=1",
                                     "t_FileLoggerEnabled=0", "t_qlogMaxFiles=7", "T_TWICE=3"])
    assert len(re.findall(r'^multiple definition for tweak "t_twice"', output, re.M)) == 2


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
def test_consistent_file(tavro, tmp_path, files, scan, winner):
    put(tmp_path, files)
    status, text, _ = tavro.run(tmp_path, "tweaks", "show", "--lines")
    # The copies are searched when the object is made and again when it loads.
    expected = [("findLatestValidFileIndex", line.format(index)) for index, line in enumerate(scan)] * 2
    expected += [("load", "Error Error loading from disk")] if winner is None else []
    logged = re.findall("^[^,]*,([^,]*),[^,]*,NON,ConsistentFile,([^,]*),(.*)", text, re.M)
    assert [(method, f"{level} {message}") for level, method, message in logged] == expected
    assert re.findall("print,t_slot=(.*)", text) == ([] if winner is None else [str(winner)])
    assert (status == 0) == (winner is not None)


def submit(program):
    """Returns the exit status, standard output and standard error, without blanks around them."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        status = program.submit("name", stdout=out, stderr=err)
        out, err = [stream.seek(0) or stream.read().decode().replace("\r", "").strip() for stream in (out, err)]
    return status, re.sub(r"^[-0-9]+ [:.0-9]+,Assert,\d+,NON,", "Assert ", out, flags=re.M), err


ASSERTION = "Assertion ({}) failed datapath/common/infra/Tweaks.cpp {}"
NUMBER = ASSERTION.format("false", 71)
QUOTES = ASSERTION.format("""val.length() > 1 && (val[val.length() -1] == '"')""", 32)
TWICE = 'multiple definition for tweak "t_x"'
BAD_MODE = b't_FileLoggerFlushEveryLine="x"'  # read when the log file is open


@pytest.mark.parametrize(("files", "out", "explained"), [
    ({f"{CONSISTENT}.1": b""}, "Assert Tweaks,loadFromFiles, datapath/common/infra/Tweaks.cpp 160: false failed. "
                               "Could not load consistent tweak information", ["has no valid copy"]),
    (slot(0, 1, b"t_x = word\n"), NUMBER, ['"t_x"', "'word'", "(in olm_tweaks//tweaks.txt)"]),
    ({EXTENSION: b"t_x = a = b"}, NUMBER, ['"t_x"', "'a = b'", f"(in {EXTENSION})"]),
    ({SURVIVING[0]: b"t_x=9223372036854775808"}, NUMBER, ['"t_x"', "'9223372036854775808'", f"(in {SURVIVING[0]})"]),
    ({SURVIVING[1]: b'T_x="a;b"'}, QUOTES, ['"T_x"', """'"a'""", f"(in {SURVIVING[1]})"]),
    (slot(0, 1, b"t_x = 1\nword ; = 2\n"), ASSERTION.format("false", 602), ['without "=": word']),
    (slot(0, 1, b"t_x = 1\nt_x = 1\n"), TWICE + "\n" + ASSERTION.format("!strict", 244), ['"t_x"', "olm_tweaks"]),
    ({EXTENSION: b't_ENABLEmemshield="x"'}, ASSERTION.format("false", 123), ['"t_enableMemshield"', ' "x"']),
    ({EXTENSION: BAD_MODE}, ASSERTION.format("false", 123), ['"t_FileLoggerFlushEveryLine"', ' "x"']),
    ({EXTENSION: b"t_defaultDlcTimeoutSec=-1"}, ASSERTION.format("ival >= 0", 535), ['"t_defaultDlc', " -1 "]),
], ids=["no copy", "word", "second =", "large", "cut string", "no =", "twice", "string", "mode", "negative"])
def test_bad_file_ends_the_program(program, files, out, explained):
    put(program.folder, files)
    status, written, explanation = submit(program)
    assert (status, written) == (program.ABNORMAL_END, out)
    assert all(part.replace("/", program.separator) in explanation for part in explained), explanation
    assert program.agent_record() is None
    assert (program.log.exists() and program.log.read_bytes() == b"") == (BAD_MODE in files.values())


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
