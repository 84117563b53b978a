"""What the comparisons share: the processes that they run, rounds that alternate, arguments and texts."""

import ctypes
import os
import signal
import subprocess
import sys

_PR_SET_PDEATHSIG = 1


def _die_with_parent():
    ctypes.CDLL(None).prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)


class Side:
    """A program that answers each line of its standard input with a line of numbers; bench/rounds.h is what
    ours do it with. From its first answer on it stands still unless it is asked, so that threads which wait
    by spinning take nothing from the side that is measured.

    A subclass may name variables to add to its environment.
    """

    environment = {}

    def __init__(self, *command):
        self._command = [str(part) for part in command]
        self._process = subprocess.Popen(
            self._command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            bufsize=1,
            env={**os.environ, **self.environment},
            preexec_fn=_die_with_parent,
        )

    def ask(self, request):
        self._process.send_signal(signal.SIGCONT)
        try:
            self._process.stdin.write(request + "\n")
            answer = self._process.stdout.readline()
        except BrokenPipeError:
            answer = ""
        if not answer:
            sys.exit(f"{sys.argv[0]}: {self._command[0]} ended with status {self._process.wait()}")
        self._process.send_signal(signal.SIGSTOP)
        return [float(number) for number in answer.split()]

    def peak_memory(self):
        """Bytes that have been in memory at once so far, those of mapped files among them."""
        with open(f"/proc/{self._process.pid}/status", encoding="ascii") as status:
            line = next(line for line in status if line.startswith("VmHWM:"))
        return int(line.split()[1]) * 1024

    def close(self):
        self._process.kill()
        self._process.communicate()


def alternate(measures, rounds):
    """Calls every measure once a round; a list of its results for each, without the first round's,
    which only warms up."""
    results = [[] for _ in measures]
    sides = list(zip(measures, results))
    for number in range(rounds + 1):
        # Whoever goes first finds the caches as the other left them, so they take turns at it.
        for measure, kept in sides if number % 2 else reversed(sides):
            result = measure()
            if number > 0:
                kept.append(result)
    return results


def read_texts(path):
    """The lines of a file that bench/symbol_descriptions.py wrote."""
    with open(path, encoding="utf-8", newline="\n") as file:
        return file.read().rstrip("\n").split("\n")


def corpus_program_rounds(default_rounds):
    """The arguments of a comparison: CORPUS PROGRAM [ROUNDS]."""
    if len(sys.argv) not in (3, 4):
        sys.exit(f"usage: {os.path.basename(sys.argv[0])} CORPUS PROGRAM [ROUNDS]")
    return sys.argv[1], sys.argv[2], int(sys.argv[3]) if len(sys.argv) == 4 else default_rounds
