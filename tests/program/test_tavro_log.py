"""The log verbs of the console tool, on logs that are generated here record by record."""

import csv
import gzip
import io
import json
import os
import random
import shutil
import socket
import subprocess
import time
from collections import Counter
from datetime import datetime, timedelta
from pathlib import Path

import pytest

from programs import DEADLINE_SEC, FlushedLog, wait_for

csv.field_size_limit(10_000_000)
LEVELS = ["Assert", "Fatal", "Error", "Warn", "Info", "Debug", "Control"]
COLUMNS = ["run", "time", "level", "thread", "logger", "class", "method", "message"]
HEADER = "time,level,thread,logger,method,message,exception\n"
BASE = "TavroVssAgentGUI.exe.log"
FILLINGS = [",", '"', "\n", "\n\n", " ", "a", "é", "😀", "\\", "\t", "2024-03-05 07:08:09", ",Info,", "x=1", "'", ";",
            "time,level,thread,logger,method,message,exception", "\nInfo,1,NON,,f,no time", "=", "\x7f", "{}"]


class Log:
    """A log in memory: what each record is to be, and its text as the library writes it."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.now = datetime(2024, 3, 5, 7)
        self.run = 0
        self.rows = []
        self.texts = []  # of the rows, but for the last parts that "split" separates

    def time(self):
        self.now += timedelta(microseconds=self.random.choice([0, 7, 1000, 250_000, 3_600_000_000]))
        digits = self.random.choice([0, 1, 3, 3, 3, 6, 9])
        fraction = f"{self.now.microsecond:06}000"[:digits]
        return f"{self.now:%Y-%m-%d %H:%M:%S}" + (f".{fraction}" if digits else "")

    def add(self, text, **fields):
        self.rows.append({column: "" for column in COLUMNS} | {"run": str(self.run)} | fields)
        self.texts.append(text)

    def start(self):
        self.run += 1
        now, message = self.time(), "-----------------Log Start---------------------- , \"x\" ----------------------"
        self.add(f"\n\n{now}, {message}\n{HEADER}", time=now, message=message)

    def line(self, level=None, thread=None, cls=None, method=None, message=None):
        pick = self.random.choice
        message = "".join(pick(FILLINGS) for _ in range(pick([0, 1, 5, 40]))) if message is None else message
        fields = {"time": self.time(), "level": level or pick(LEVELS[2:]),
                  "thread": thread or pick(["4711", "-5", "4712/reader 1", "0", "007"]), "logger": pick(["NON", "KRN"]),
                  "class": pick(["", "Copier", "Tweaks::Tweak"]) if cls is None else cls,
                  "method": method or pick(["run", "main::<lambda>"]), "message": message}
        self.add(",".join(fields.values()) + "\n", **fields)

    def notice(self):
        now, message = self.time(), "C:\\logs, old\\a.log-pausing logger due to OOM"
        self.add(f"{now},{message}\n", time=now, message=message)

    def raw(self, text, end="\n"):
        self.add(text + end, message=text)

    def many(self, count):
        for _ in range(count):
            self.notice() if self.random.random() < 0.02 else self.line()

    def whole(self):
        return "".join(self.texts)


def call(tavro, folder, *arguments, **options):
    """Runs the tool; returns the exit status, the bytes of standard output, and standard error."""
    options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE} | options
    with (tavro.wine.start(tavro.path, folder, arguments=["log", *arguments], **options) if tavro.wine
          else subprocess.Popen([tavro.path, "log", *arguments], cwd=folder, **options)) as process:
        output, errors = process.communicate(timeout=DEADLINE_SEC)
    return process.returncode, output, errors.decode()


def from_csv(output):
    return list(csv.DictReader(io.StringIO(output.decode(), newline="")))


def from_json(output):
    rows = [json.loads(line) for line in output.decode().split("\n")[:-1]]
    for row in rows:
        assert list(row) == COLUMNS and isinstance(row["run"], int)
        if isinstance(row["thread"], int):
            row["thread"] = str(row["thread"])
    return [row | {"run": str(row["run"])} for row in rows]


def write_log(folder, log, line_end, random_):
    """Cuts the log into numbered files at ends of texts, and a live file. Returns what they hold, one after another."""
    pieces = [piece for text in log.texts for piece in (["\n\n", text[2:]] if text.startswith("\n\n2") else [text])]
    last_start = len(pieces) - 1 - pieces[::-1].index("\n\n")
    cuts = sorted({last_start + 1, *random_.sample(range(1, len(pieces)), 4)})
    contents = ["".join(pieces[begin:end]).replace("\n", line_end).encode()
                for begin, end in zip([0, *cuts], [*cuts, len(pieces)])]
    numbers = [9, 10, 999_999, 1_000_000, 1_000_001][:len(cuts)]
    for number, content in zip(numbers, contents):
        name = f"{BASE}{number:06}.txt" + random_.choice(["", ".gz"])
        (folder / name).write_bytes(gzip.compress(content[:99]) + gzip.compress(content[99:]) if number == 10 else content)
    (folder / f"{BASE}.txt").write_bytes(contents[-1])
    return b"".join(contents)


@pytest.mark.parametrize("line_end", ["\n", "\r\n"], ids=["LF", "CRLF"])
def test_a_log_comes_back_whole(tavro, tmp_path, line_end):
    log = Log(seed=1)
    for _ in range(3):
        log.start()
        log.many(150)
    everything = write_log(tmp_path, log, line_end, log.random)
    assert call(tavro, tmp_path, "text", ".") == (0, everything, "")
    status, output, errors = call(tavro, tmp_path, "csv", ".")
    assert (status, errors) == (0, "")
    assert from_csv(output) == log.rows
    (tmp_path / "rows.csv").write_bytes(output)
    status, output, errors = call(tavro, tmp_path, "json", *sorted(path.name for path in tmp_path.glob(f"{BASE}*")))
    assert (status, errors) == (0, "")
    assert from_json(output) == log.rows
    if shutil.which("mlr"):
        miller = subprocess.run(["mlr", "--icsv", "--ojson", "-S", "cat", "rows.csv"], cwd=tmp_path, check=True,
                                stdout=subprocess.PIPE).stdout
        assert [{key: str(value) for key, value in row.items()} for row in json.loads(miller, parse_int=str)] == log.rows
    with open(tmp_path / f"{BASE}.txt", "rb") as live:
        text = live.read()
        live.seek(0)
        assert call(tavro, tmp_path, "text", "-", stdin=live) == (0, text, "")


def test_damage_is_told_and_nothing_is_dropped(tavro, tmp_path):
    log = Log(seed=2)
    log.start()
    log.raw("no line of a log")
    log.line(message="a")
    log.raw("\0\0\0 after a power cut")
    log.line(message="of the killed process")
    log.raw("2024-03-05 07:08:0")  # torn
    log.start()
    log.texts[-1] = log.texts[-1][1:]  # the first of the two line ends has ended the torn line
    log.line(message="x" * 3_000_000)
    log.line(message="last")
    log.raw("2024-03-05 09:00:00.123,Inf", end="")
    (tmp_path / "a.log.txt").write_text(log.whole(), "utf-8")
    status, output, errors = call(tavro, tmp_path, "csv", "a.log.txt")
    assert (status, errors) == (1, "")
    assert [row["message"][:30] for row in from_csv(output)] == [row["message"][:30] for row in log.rows]
    assert from_csv(output) == log.rows
    assert call(tavro, tmp_path, "text", "a.log.txt") == (1, (log.whole() + "\n").encode(), "")
    (tmp_path / "bytes.txt").write_bytes(b"2024-03-05 07:08:09,Info,1,NON,,f,\xff\xc3\xa9\x01\xed\xa0\x80")
    status, output, errors = call(tavro, tmp_path, "json", "bytes.txt")
    assert (status, from_json(output)[0]["message"]) == (0, "\ufffdé\x01\ufffd\ufffd\ufffd")
    (tmp_path / "torn.txt.gz").write_bytes(gzip.compress(log.whole().encode())[:-20])
    status, output, errors = call(tavro, tmp_path, "csv", "torn.txt.gz")
    assert status == 1 and "torn.txt.gz: cannot be read to its end" in errors
    assert from_csv(output)[:3] == log.rows[:3]


@pytest.mark.parametrize("torn", ["2024-03-05 00:00:03.502,/var/lib/a.log-pausing ", "2024-03-05 00:00:03.5"])
@pytest.mark.parametrize("line_end", ["\n", "\r\n"], ids=["LF", "CRLF"])
def test_the_end_of_a_torn_file(tavro, tmp_path, line_end, torn):
    lines = ["2024-03-05 07:08:09,Info,1,NON,,f,a", "b", "c"]
    (tmp_path / "a.txt").write_bytes(line_end.join(lines).encode())
    (tmp_path / "b.txt").write_bytes(line_end.join([*lines, torn]).encode())
    for form, parsed in (("json", from_json), ("csv", from_csv)):
        status, output, _ = call(tavro, tmp_path, form, "a.txt", "b.txt")
        assert (status, [row["message"] for row in parsed(output)]) == (1, ["a\nb\nc", "a\nb\nc", torn])


def test_members_of_a_compressed_file(tavro, tmp_path):
    record = b"2024-03-05 07:08:09,Info,1,NON,,f,"
    members = [record + b"a\nb", record + b"c", record + b"d\nsplit ", b"line\n", record + b"2", b"024-03-05", b"",
               record + b"e\n"]
    (tmp_path / "x.gz").write_bytes(b"".join(gzip.compress(member) for member in members) + bytes(200_000))
    status, output, errors = call(tavro, tmp_path, "json", "x.gz")
    assert (status, errors) == (0, "")
    assert [row["message"] for row in from_json(output)] == ["a\nb", "c", "d\nsplit line", "2024-03-05", "e"]
    (tmp_path / "x.gz").write_bytes(gzip.compress(members[0]) + b"\0x")
    assert call(tavro, tmp_path, "json", "x.gz")[0] == 1


def test_filters(tavro, tmp_path):
    log = Log(seed=3)
    for _ in range(3):
        log.start()
        log.many(120)
    (tmp_path / "a.log.txt").write_text(log.whole(), "utf-8")
    moment = next(row["time"] for row in log.rows[100:] if len(row["time"]) == 23)
    hour = log.rows[200]["time"][:13]

    assert call(tavro, tmp_path, "csv", "--since", "2024-02-29", "a.log.txt")[0] == 0
    for arguments, accepts in [
        (["--since", hour], lambda row: row["time"][:13] >= hour),
        (["--until", hour.replace(" ", "T")], lambda row: row["time"][:13] <= hour),
        (["--since", moment + "000", "--until", moment],
         lambda row: row["time"][:23] == moment or row["time"].ljust(23, "0") == moment),
        (["--level", "error,WARN", "--level", "Debug"], lambda row: row["level"] in ("Error", "Warn", "Debug")),
        (["--class", "Copier", "--method", "run"], lambda row: (row["class"], row["method"]) == ("Copier", "run")),
        (["--class", "Copier", "--class", "Tweaks::Tweak"], lambda row: row["class"] in ("Copier", "Tweaks::Tweak")),
        (["--thread", "reader 1", "--thread=-5"], lambda row: row["thread"] in ("4712/reader 1", "-5")),
        (["--thread", "4712"], lambda row: row["thread"] == "4712/reader 1"),
        (["--contains", "\\x=1"], lambda row: "\\x=1" in row["message"]),
        (["--run", "2"], lambda row: row["run"] == "2"), (["--run", "-1"], lambda row: row["run"] == "3"),
    ]:
        status, output, errors = call(tavro, tmp_path, "csv", *arguments, "a.log.txt")
        expected = [row for row in log.rows if accepts(row)]
        assert (status, from_csv(output), errors) == (0, expected, ""), arguments
        assert len(expected) < len(log.rows) and expected, arguments
    for run in ("4", "-4"):
        status, output, errors = call(tavro, tmp_path, "text", "--run", run, "a.log.txt")
        assert (status, output) == (1, b"") and f"--run {run}: there is no such run; runs in the log: 3" in errors
    for arguments, complaint in [(["--since", "2024-13"], "2024-13"), (["--until", "2024-03-05 7"], "2024-03-05 7"),
                                 (["--since", "2023-02-29 01"], "2023-02-29 01"), (["--run", "0"], "--run 0"),
                                 (["--level", "Errors"], "Assert, Fatal, Error, Warn, Info, Debug and Control"),
                                 (["nowhere.txt"], "nowhere.txt: there is no such file"), (["--bad"], "--bad")]:
        status, output, errors = call(tavro, tmp_path, "text", "a.log.txt", *arguments)
        assert (status, output) == (2, b"") and complaint in errors, arguments


def test_the_log_of_the_program_is_found_and_a_closed_pipe_is_no_failure(tavro, tmp_path):
    if tavro.wine:
        data, options = tavro.wine.prefix / "drive_c" / "ProgramData", {}
    else:
        data, options = tmp_path / "data", {"env": {"PROGRAMDATA": str(tmp_path / "data")}}
    logs = data / "Tavro" / "logs"
    shutil.rmtree(data / "Tavro", ignore_errors=True)
    status, _, errors = call(tavro, tmp_path, "text", **options)
    assert status == 2 and f"{BASE}.txt" in errors
    assert not (data / "Tavro").exists()  # nothing is created
    log = Log(seed=4)
    log.start()
    log.many(20_000)
    logs.mkdir(parents=True)
    try:
        text = write_log(logs, log, "\n", log.random)
        assert call(tavro, tmp_path, "text", **options) == (0, text, "")
        with open(tmp_path / "errors", "wb") as errors:
            process = (tavro.wine.start(tavro.path, tmp_path, arguments=["log", "text"], stdout=subprocess.PIPE, stderr=errors)
                       if tavro.wine else subprocess.Popen([tavro.path, "log", "text"], cwd=tmp_path, stdout=subprocess.PIPE,
                                                           stderr=errors, **options))
        assert process.stdout.read(1000) == text[:1000]
        process.stdout.close()
        assert process.wait(DEADLINE_SEC) in (0, -13)  # SIGPIPE
        assert (tmp_path / "errors").read_bytes() == b""
    finally:
        shutil.rmtree(data / "Tavro")


def test_follow_over_rotations_loses_nothing_and_prints_nothing_twice(tavro, tmp_path):
    flushed_log = FlushedLog(tavro.path.parent, tavro.wine)
    folder = tmp_path / "logs"
    folder.mkdir()
    with open(tmp_path / "promises", "wb") as promises, open(tmp_path / "followed", "wb") as output:
        writer = flushed_log.start(folder, promises)
        follower = None
        try:
            wait_for((folder / "flushed.log.txt").exists, "the live file")
            arguments = ["log", "text", "--follow", "."]
            follower = (tavro.wine.start(tavro.path, folder, arguments=arguments, stdout=output) if tavro.wine
                        else subprocess.Popen([tavro.path, *arguments], cwd=folder, stdout=output))
            wait_for(lambda: (tmp_path / "followed").stat().st_size, "the first lines")
            before = len(list(folder.glob("*[0-9].txt*")))
            wait_for(lambda: len(list(folder.glob("*[0-9].txt*"))) >= before + 3, "rotations")
            writer.kill()
            writer.wait()
            # The live file is missing if the writer ended in the middle of a rotation.
            files = [*sorted(folder.glob("*[0-9].txt*")), *folder.glob("flushed.log.txt")]
            written = b"".join(path.read_bytes() for path in files)
            whole = written[:written.rindex(b"\n") + 1]
            # A line without an end may belong to the record before it, which is then not written yet.
            certain = whole if written == whole else whole[:whole.rindex(b"\n", 0, -1) + 1]
            wait_for(lambda: (tmp_path / "followed").stat().st_size >= len(certain), "the last lines")
            with open(folder / "flushed.log.txt", "ab") as live:  # what is silent for a while goes on
                live.write(b"" if written == whole else b"\n")
                live.write(b"\n\n2024-03-05 07:08:09.042, -----------------Log Start----------------------\n")
            expected = written + (b"" if written == whole else b"\n") + \
                b"\n\n2024-03-05 07:08:09.042, -----------------Log Start----------------------\n"
            wait_for(lambda: (tmp_path / "followed").stat().st_size >= len(expected), "one more line")
            time.sleep(1)
            assert (tmp_path / "followed").read_bytes() == expected
        finally:
            for process in filter(None, (writer, follower)):
                process.kill()
                process.wait()


def test_what_is_renamed_while_the_tool_reads_is_read(tavro, tmp_path):
    def rotate(number):
        (tmp_path / "a.log.txt").rename(tmp_path / f"a.log{number:06}.txt")
        (tmp_path / "a.log.txt").write_bytes(b"2024-03-05 07:08:10,Info,1,NON,,f,new\n")

    live = b"2024-03-05 07:08:09,Info,1,NON,,f,old\n"
    new = b"2024-03-05 07:08:10,Info,1,NON,,f,new\n"
    long = b"2024-03-05 07:08:08,Info,1,NON,,f," + b"x" * 1_000_000 + b"\n"
    (tmp_path / "a.log.txt").write_bytes(live)
    for number, name in enumerate([".", "a.log.txt"], 1):  # renamed before it is opened
        arguments, pipes = ["log", "text", "-", name], {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
        with (tavro.wine.start(tavro.path, tmp_path, arguments=arguments, **pipes) if tavro.wine
              else subprocess.Popen([tavro.path, *arguments], cwd=tmp_path, **pipes)) as process:
            process.stdin.write(long + live)
            process.stdin.flush()
            begin = process.stdout.read(1)  # the names are known
            rotate(number)
            process.stdin.close()
            assert begin + process.stdout.read() == long + live + (live if number == 1 else new) + new
    if tavro.wine:
        return
    os.mkfifo(tmp_path / "a.log000003.txt")  # renamed while an older file is read
    process = subprocess.Popen([tavro.path, "log", "text", "a.log000003.txt", "a.log.txt"], cwd=tmp_path,
                               stdout=subprocess.PIPE)
    (tmp_path / "a.log.txt").write_bytes(live)
    with open(tmp_path / "a.log000003.txt", "wb") as older:
        rotate(4)
        older.write(long)
    assert process.communicate(timeout=DEADLINE_SEC)[0] == long + live


def test_what_cannot_be_followed_is_told(tavro, tmp_path):
    for name in ("a.log.txt", "b.log.txt"):
        (tmp_path / name).write_bytes(b"2024-03-05 07:08:09,Info,1,NON,,f,x\n")
    status, output, errors = call(tavro, tmp_path, "text", "-f", ".")
    assert (status, output) == (2, b"") and "a.log.txt" in errors and "b.log.txt" in errors
    if not tavro.wine:
        with socket.socket(socket.AF_UNIX) as unreadable:  # even for root
            unreadable.bind(str(tmp_path / "c.log.txt"))
            status, output, errors = call(tavro, tmp_path, "text", "-f", "c.log.txt")
        assert (status, output) == (2, b"") and "c.log.txt: cannot be followed: " in errors


def seconds_between(earlier, later):
    def parsed(text):
        return datetime.fromisoformat(text[:19]) + timedelta(microseconds=int(text[20:].ljust(6, "0")[:6]))
    return (parsed(later) - parsed(earlier)).total_seconds()


def test_summary_counts_what_there_is(tavro, tmp_path):
    log = Log(seed=5)
    for run in range(4):
        log.start()
        log.many(100)
        log.line(level="Error", cls="DlcKeepalive", method="checkLease", message=f"Copier, 2 is stuck for {12 + run} sec")
        log.line(level="Assert" if run == 1 else "Error", message="Assertion (a > 0) failed datapath/x.cpp 7")
        log.line(level="Error", message="Assertion that is none")
    (tmp_path / "a.log.txt").write_text(log.whole(), "utf-8")
    status, output, errors = call(tavro, tmp_path, "summary", "--json", "a.log.txt")
    summary = json.loads(output)
    lines = [row for row in log.rows if row["level"]]

    def levels(rows):
        counts = Counter(row["level"] for row in rows)
        return {level: counts[level] for level in LEVELS}

    of_runs = [[row for row in log.rows if row["run"] == str(run)] for run in range(1, 5)]
    gaps = sorted((round(seconds_between(one["time"], other["time"]), 3) for rows in of_runs
                   for one, other in zip(rows, rows[1:])), reverse=True)[:5]
    failure = next(row for row in lines[::-1] if row["message"].startswith("Assertion ("))
    assert (status, errors) == (0, "")
    assert (summary["records"], summary["raw"]) == (len(log.rows), 0)
    assert (summary["first"], summary["last"]) == (min(row["time"] for row in log.rows), max(row["time"] for row in log.rows))
    assert summary["levels"] == levels(lines)
    assert summary["runs"] == [{"run": number, "first": rows[0]["time"], "last": rows[-1]["time"], "records": len(rows),
                                "levels": levels(rows)} for number, rows in enumerate(of_runs, 1)]
    assert {entry["class"]: entry["lines"] for entry in summary["classes"]} == Counter(row["class"] for row in lines)
    assert [round(gap["seconds"], 3) for gap in summary["gaps"]] == pytest.approx(gaps, abs=0.0011)
    assert summary["memoryPauseCount"] == sum("pausing logger" in row["message"] for row in log.rows) > 0
    assert summary["stuckThreads"] == [{"name": "Copier, 2", "lines": 4, "longestSeconds": 15,
                                        "last": next(row["time"] for row in lines[::-1] if "stuck" in row["message"])}]
    assert summary["lastFailure"] == {column: int(failure[column]) if column == "run" else failure[column]
                                      for column in COLUMNS if column != "logger"}
    text = call(tavro, tmp_path, "summary", "a.log.txt")[1].decode().replace("\r\n", "\n")
    assert "runs: 4\n" in text and "Copier, 2: 4 lines, longest 15 s" in text and failure["time"] in text


def test_summary_of_many_runs_and_classes(tavro, tmp_path):
    log = Log(seed=7)
    for run in range(1200):
        log.start()
        log.line(level="Info", cls=f"Class{run % 30}")
    (tmp_path / "a.log.txt").write_text(log.whole(), "utf-8")
    summary = json.loads(call(tavro, tmp_path, "summary", "--json", "a.log.txt")[1])
    assert (summary["runCount"], summary["records"], summary["levels"]["Info"]) == (1200, 2400, 1200)
    assert [run["run"] for run in summary["runs"]] == list(range(201, 1201))
    assert {entry["class"]: entry["lines"] for entry in summary["classes"]} == {f"Class{i}": 40 for i in range(30)}
    text = call(tavro, tmp_path, "summary", "a.log.txt")[1].decode()
    assert "runs: 1200, of which the newest are shown" in text and "and 20 more classes" in text


@pytest.mark.skipif(not shutil.which("lnav"), reason="lnav is missing")
@pytest.mark.parametrize("line_end", ["\n", "\r\n"], ids=["LF", "CRLF"])
def test_lnav_understands_the_log(tmp_path, line_end):
    formats = tmp_path / "configuration" / "formats" / "tavro"
    formats.mkdir(parents=True)
    shutil.copy(Path(__file__).parents[2] / "tools" / "lnav" / "tavro_log.json", formats)
    log = Log(seed=6)
    for _ in range(2):
        log.start()
        for level in LEVELS:
            log.line(level=level, message="one\nand two")
        log.many(50)
        log.notice()
        log.line(message="the only line")
    (tmp_path / f"{BASE}000007.txt.gz").write_bytes(log.whole().replace("\n", line_end).encode())

    def lnav(*arguments):
        return subprocess.run(["lnav", "-I", formats.parents[1], *arguments], cwd=tmp_path, stdin=subprocess.DEVNULL,
                              env=os.environ | {"HOME": str(tmp_path)}, check=True, timeout=DEADLINE_SEC,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout.decode()

    assert lnav("-C") == ""

    def rows_of(query):
        output = lnav("-n", "-c", f";select {query}", "-c", ":write-csv-to -", f"{BASE}000007.txt.gz")
        return list(csv.reader(io.StringIO(output, newline="")))[1:]

    rows = rows_of("log_level, thread, class, method from tavro_log where log_line > 1 and level != ''")
    names = dict(zip(LEVELS, ["critical", "fatal", "error", "warning", "info", "debug", "notice"]))
    assert rows == [[names[row["level"]], row["thread"], row["class"], row["method"]] for row in log.rows if row["level"]]
    notices = sum("pausing logger" in row["message"] for row in log.rows)
    # lnav adds the empty lines before the second run to the other message with this text.
    for body, count in (("%-pausing logger due to OOM", notices), ("the only line", 1)):
        assert rows_of(f"count(*) from tavro_log where log_line > 1 and log_body like '{body}'") == [[str(count)]]
