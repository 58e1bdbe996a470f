"""What a program that logs at full speed, over rotations, leaves when it is killed at random moments."""

import os
import random
import shutil
import time

from programs import wait_for

KILLS = 1000 if os.environ.get("TAVRO_THOROUGH") == "1" else 10
SEED = 1
LONGEST_SEC = 0.1  # from the first flush to the kill: time for some rotations
LINES_OF_START = 4  # two empty lines, the start line and the header


def test_a_killed_program_leaves_whole_lines_and_what_it_had_flushed(flushed_log, tmp_path):
    moments = random.Random(SEED)
    rotated = 0
    for kill in range(KILLS):
        folder = tmp_path / "logs"
        folder.mkdir()
        promised = lines_flushed_until_kill(flushed_log, folder, moments.uniform(0, LONGEST_SEC))
        files = sorted(folder.glob("flushed.log*.txt"), key=lambda path: (path.name == "flushed.log.txt", path.name))
        rotated += len(files) > 1
        lines = b"".join(path.read_bytes() for path in files).replace(b"\r\n", b"\n").split(b"\n")
        *lines, torn = lines[LINES_OF_START:]
        where = f"kill {kill} of seed {SEED}"
        for number, line in enumerate(lines):
            assert line == expected(number), f"{where}: {line[:40]} is line {number}"
        assert expected(len(lines)).startswith(torn.rstrip(b"\r")), f"{where}: {torn[:40]} is line {len(lines)}"
        assert len(lines) >= promised, where
        shutil.rmtree(folder)
    assert rotated, "no log was long enough"


def expected(number):
    return b"%08d " % number + b"x" * 1000 + b" end"


def lines_flushed_until_kill(flushed_log, folder, delay):
    promises = folder / "promises"
    with open(promises, "wb") as output, flushed_log.start(folder, output) as process:
        wait_for(lambda: promises.stat().st_size, "the first flush")
        time.sleep(delay)
        process.kill()
    return int(promises.read_text().rpartition("\n")[0].split()[-1])
