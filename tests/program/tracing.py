"""Runs a Linux program from one system call to the next: to kill it there, to let the call fail, or to hold it."""

import ctypes
import os
import signal
from pathlib import Path

TRACEME, CONT, PEEKUSER, POKEUSER, SYSCALL, SETOPTIONS = 0, 7, 3, 6, 24, 0x4200
TRACE_SYSGOOD, EXIT_KILL = 0x1, 0x100000  # marks the stops at calls; the program ends with this process
NUMBER, RESULT = 15 * 8, 10 * 8  # where the registers orig_rax and rax of x86-64 lie
CALLS = {73: "flock", 74: "fsync", 82: "rename", 83: "mkdir", 316: "renameat2"}

LIBC = ctypes.CDLL(None, use_errno=True)
LIBC.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
LIBC.ptrace.restype = ctypes.c_long


class TracedProgram:
    """Stands at the entry of a system call, or has ended: status is the exit code then, negative for a signal."""

    def __init__(self, command, folder):
        command = [os.fsencode(part) for part in command]
        output = os.open(os.devnull, os.O_WRONLY)
        self.status = None
        self.calls = 0  # at whose entry it has stood
        self._pid = os.fork()
        if self._pid == 0:
            try:
                os.chdir(folder)
                os.dup2(output, 1)
                os.dup2(output, 2)
                LIBC.ptrace(TRACEME, 0, None, None)
                os.execv(command[0], command)
            finally:
                os._exit(127)
        os.close(output)
        self._wait()  # until the program is loaded
        self._request(SETOPTIONS, None, TRACE_SYSGOOD | EXIT_KILL)

    def next_call(self):
        """Runs on to the next call. Returns its number, or None at the end of the program."""
        if self.calls:
            self._to_stop()  # the exit of the call at whose entry it stands
        self._to_stop()
        self.calls += 1
        return None if self.status is not None else self._request(PEEKUSER, NUMBER, None)

    def to_call(self, count):
        """Runs on until it has stood at so many calls. Returns whether it still runs."""
        while self.status is None and self.calls < count:
            self.next_call()
        return self.status is None

    def to_named_call(self, name):
        while CALLS.get(self.next_call()) != name:
            assert self.status is None, f"it has ended without {name}"

    def fail_call(self, error):
        """Lets the call not happen and return the error."""
        self._request(POKEUSER, NUMBER, ctypes.c_void_p(-1))
        self._to_stop()
        if self.status is None:
            self._request(POKEUSER, RESULT, ctypes.c_void_p(-error))

    def finish(self):
        """Lets it run to its end. Returns the status."""
        received = None
        while self.status is None:
            self._request(CONT, None, received)
            received = self._wait()
        return self.status

    def kill(self):
        os.kill(self._pid, signal.SIGKILL)
        while self.status is None:
            self._wait()

    def _to_stop(self):
        received = None
        while self.status is None and received != signal.SIGTRAP | 0x80:
            self._request(SYSCALL, None, received)
            received = self._wait()

    def _wait(self):
        """Returns the signal that stops the program, which it gets when it goes on. None at its end."""
        status = os.waitpid(self._pid, 0)[1]
        if os.WIFSTOPPED(status):
            return os.WSTOPSIG(status)
        self.status = os.waitstatus_to_exitcode(status)
        return None

    def _request(self, request, address, data):
        result = LIBC.ptrace(request, self._pid, address, data)
        assert result != -1 or request == PEEKUSER, os.strerror(ctypes.get_errno())
        return result


def calls_of(command, folder):
    """Runs a program to its end. Returns the names of those of its calls that CALLS has, in their order."""
    program, names = TracedProgram(command, folder), []
    while (number := program.next_call()) is not None:
        names += [CALLS[number]] if number in CALLS else []
    return names


def first_call(name, command, folder):
    """Runs a program up to its first call of that name. Returns how many calls that makes."""
    program = TracedProgram(command, folder)
    program.to_named_call(name)
    program.kill()
    return program.calls


def files_below(folder):
    """The contents of all files below a folder, by their paths."""
    return {path.relative_to(folder): path.read_bytes() for path in sorted(Path(folder).rglob("*")) if path.is_file()}
