"""The console tool's view of the tweaks, against what the program does."""

import itertools
import json
import random
import re

import pytest

from test_tweaks import CONSISTENT, EXTENSION, SURVIVING, put, slot

ENDING = {  # value: the end of the line that tells about it
    't_qlogMaxFiles="three"': 'must be an integer and is "three"',
    't_FileLoggerEnabled="maybe"': 'must be an integer and is "maybe"',
    't_memshield_pre_margin_size="x"': 'must be an integer and is "x"',
    "t_GenFileLoggerMaxFiles=3000000000": "is 3000000000 and must be at most 2147483647",
    "t_OlmFlushFileMaxPeriodMs=-1": "is -1 and must not be negative",
    't_OlmPriorityQueuePrintIntervalMs="x"': 'must be an integer and is "x"',
    't_simulativeCpuUsage="x"': 'must be an integer and is "x"',
}
MISTYPED = {"t_qlogMaxFile=7": "t_qlogMaxFiles", "t_enableMemshild = on": "t_enableMemshield",
            "T_ioverbsoelogs=1": "t_IOVerboseLogs", "t_FileLoggerFlushEvryLine=on": "t_FileLoggerFlushEveryLine"}
LONG = "t_511=1;".ljust(512, ".")


def findings(tavro, folder, *options):
    """The exit status, and each line as file, line, severity and text."""
    status, out, err = tavro.run(folder, "tweaks", "check", *options)
    assert err == ""
    lines = [re.fullmatch(r"(.*?)(?::(\d+))?: (error|warning): (.*)", line) for line in out.splitlines()]
    return status, [(file.replace("\\", "/"), int(line or 0), severity, text)
                    for file, line, severity, text in (line.groups() for line in lines)]


def test_each_mistake_has_its_line(tavro, tmp_path):
    put(tmp_path, {EXTENSION: "\n".join([*ENDING, *MISTYPED]).encode()})
    status, found = findings(tavro, tmp_path)
    assert status == 1
    expected = [("error", text + "; the program ends: ") for text in ENDING.values()]
    expected += [("warning", f'"{known}" is the nearest known one') for known in MISTYPED.values()]
    assert [(file, line) for file, line, _, _ in found] == [(EXTENSION, n) for n in range(1, len(expected) + 1)]
    for (_, _, severity, text), (expected_severity, part) in zip(found, expected):
        assert severity == expected_severity and part in text


def test_what_is_taken_in_silence(tavro, tmp_path):
    put(tmp_path, slot(0, 1, b"t_defaultDlcTimeoutSec = 1\n") | {f"{CONSISTENT}": b"t_x = 1", EXTENSION:
        b"t_deadlockCheckerIntervalSec = 5s ; five\nt_defaultDlcTimeoutSec = 2\nt_qlogMaxFiles = 4096\n" +
        b"t_MemShieldVerbose = 0x10\nt_FileLoggerEnabled = off\nt_enableMemshield = Yes\n",
        "Tweaks_extension.txt.txt": b"t_x = 1", SURVIVING[1]: b"\xef\xbb\xbft_MemShieldVerbose = 1\n" + LONG.encode() + b"\nt_y = word"})
    _, found = findings(tavro, tmp_path)
    parts = [(CONSISTENT, 0, "signed copies"), (f"{CONSISTENT}.0", 1, f"{EXTENSION}:2 replaces it"),
             (EXTENSION, 1, "'5s'"), (EXTENSION, 3, "no memory"), (EXTENSION, 5, "turns the log off"),
             (SURVIVING[1], 1, "byte order mark"), (SURVIVING[1], 1, "nearest"), (SURVIVING[1], 2, "511 characters"),
             ("Tweaks_extension.txt.txt", 0, "does not read")]
    assert [found_line[:2] for found_line in found] == [part[:2] for part in parts]
    assert all(part[2] in text for part, (_, _, _, text) in zip(parts, found))
    status, shown, _ = tavro.run(tmp_path, "tweaks", "show", "--json", "T_DEADLOCKcheckerIntervalSec", "t_qlogMaxFiles",
                                 "t_memshield_pre_margin_size", "t_FileLoggerCompressOnRotate", "t_nothing")
    assert status == 1
    assert {row["name"]: (row["value"], row["origin"]) for row in json.loads(shown)} == {
        "t_deadlockCheckerIntervalSec": ("5", f"{EXTENSION}:1"), "t_qlogMaxFiles": ("4096", f"{EXTENSION}:3"),
        "t_memshield_pre_margin_size": ("16", "default"), "t_FileLoggerCompressOnRotate": ("1", "registered")}


def known_tweaks(tavro, folder):
    return json.loads(tavro.run(folder, "tweaks", "list", "--json")[1])


def generated_folders(tavro, folder):
    """Yields files, and whether they have something that is dropped. Whether they end the program is for it to tell."""
    tweaks = known_tweaks(tavro, folder)
    for tweak in tweaks:
        yield {EXTENSION: f'{tweak["name"]} = "x"\n'.encode()}, False
        for value in (-1, -2147483648, 2147483647):  # the other spelling counts as another name
            modes = "\nT_simulativeCpuUsage = 1\nT_enableMemshield = 1\n"
            yield {EXTENSION: f'{tweak["name"]} = {value}{modes}'.encode()}, False
    choose = random.Random(7)
    good = ["t_x = 1", "t_y = on ; c", "", "; only a comment", "t_qlogMaxFiles = 4", "T_X = 2", "t_qlogMaxFiles =", 't_s = "="']
    dropped = ["t_d = 1\nt_d = 2", "no value", LONG]
    ending = ["t_e = word", 't_f = "a;b"', 'T_qlogMaxFiles = "x"', "T_enableMemshield = 9223372036854775808"]
    for _ in range(60):
        files, is_dropped = {}, False
        for name in (EXTENSION, *SURVIVING):
            lines = choose.sample(good, choose.randrange(5))
            if choose.random() < 0.15:
                lines.insert(choose.randrange(len(lines) + 1), choose.choice(dropped))
                is_dropped = True
            if choose.random() < 0.15:
                lines.insert(choose.randrange(len(lines) + 1), choose.choice(ending))
            files[name] = "\n".join(lines).encode() + choose.choice([b"", b"\n", b"\r\n"])
        yield files, is_dropped
    yield slot(0, 4) | slot(1, 5, crc=7), True  # the newer text is dropped
    yield slot(0, 4) | slot(1, 3, crc=7), False
    copies = [{}, slot(0, 1), slot(0, 1, crc=7), slot(0, 1, b"t_x\n"), slot(0, 1, b"t_x = 1\nt_x = 2\n"), {f"{CONSISTENT}.0": b""},
              slot(0, 1, b't_FileLoggerEnabled = "x"\n'), slot(0, 1, b"")]
    for first, second in itertools.product(copies, repeat=2):
        yield first | {name.replace(".0", ".1"): data for name, data in second.items()}, False


def test_errors_are_what_ends_the_program_or_is_dropped(program, tavro_beside, tmp_path):
    for number, (files, is_dropped) in enumerate(generated_folders(tavro_beside, tmp_path)):
        if program.separator == "\\" and number % 23:  # each start of the program takes a while there
            continue
        for old in [EXTENSION, *SURVIVING, *(f"{CONSISTENT}.{n}{end}" for n in (0, 1) for end in ("", ".sig"))]:
            (program.folder / old).unlink(missing_ok=True)
        put(program.folder, files)
        before = sorted(program.folder.rglob("*"))
        status, found = findings(tavro_beside, program.folder, "--errors-only")
        assert sorted(program.folder.rglob("*")) == before
        ended = program.submit("name", stdout=-3, stderr=-3) == program.ABNORMAL_END
        program.agent_record()  # waits until the agent has gone
        assert status == (ended or is_dropped), (files, found)
        assert (status == 1) == bool(found)
