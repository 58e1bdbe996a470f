"""The threads of the finished program, seen from outside and by what they do."""

import re

from programs import THREAD_START, wait_for

# The deadlock checker watches one thread, the worker of MemShieldAO, which has started the checker.
LOOK = "DeadLockCheckerManager,run, m_lockSet.size()=1 "
CHECKER = re.compile(rf"Info,\d+,NON,({re.escape(LOOK)}|WindowsTimer,WindowsTimer, m_ticksPerMs=\d+ )")


def test_main_writer_worker_and_checker(program):
    (program.folder / "tweaks_extension.txt").write_text("t_deadlockCheckerIntervalSec = 1")
    leave = program.open_dialog()
    # The checker only queues its lines, and the main thread waits for the user, so the writer puts them there.
    wait_for(lambda: program.log.exists() and program.log.read_text().count(LOOK) > 1, "two looks of the checker")
    threads = program.threads()
    assert leave() == 0
    wait_for(lambda: not program.threads(), "the end of the process")
    assert program.agent_record() is None  # and nothing else is left

    lines, others = program.last_run()
    rest = [line for line in others if not THREAD_START.fullmatch(",".join(line[1:]))]
    assert all(CHECKER.fullmatch(",".join(line[1:])) for line in rest), rest
    assert len({line[2] for line in rest}) == 1
    assert len(threads) == 4 and {line[2] for line in lines + others} <= threads
    assert lines[-1][6] == "Done."
