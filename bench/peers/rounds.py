"""What the comparisons share: the process that is our side, and rounds that alternate."""

import os
import subprocess
import sys


class OurSide:
    """An executable of ours that answers each line of its standard input with a line of numbers.

    A subclass may name variables to add to its environment.
    """

    environment = {}

    def __init__(self, *command):
        self._process = subprocess.Popen(
            [str(part) for part in command],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            bufsize=1,
            env={**os.environ, **self.environment},
        )

    def ask(self, request):
        self._process.stdin.write(request + "\n")
        answer = self._process.stdout.readline()
        if not answer:
            sys.exit(f"{sys.argv[0]}: our side ended with status {self._process.wait()}")
        return [float(number) for number in answer.split()]


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
