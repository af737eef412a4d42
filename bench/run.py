#!/usr/bin/env python3
"""Runs the rows of rows.py and writes docs/performance.md's table and picture.

    run.py BUILD_FOLDER [--rows NAME,NAME] [--write]     measures; prints the table; with --write, into the documents
    run.py --compare RESULTS.json RESULTS.json …         how far the ratios of several runs lie apart

The contenders of a row take turns, in another order each round, and so do the rows. A ratio is the median of the
rounds' ratios, so that what slows the machine down for a while slows both.
"""

import argparse
import contextlib
import json
import math
import os
import statistics
import subprocess
import sys
import tempfile
import time

import report
from far_side import FarSide
from report import US
from rows import ROWS
from service import BODY, PATH


# Ends when the process that started it is gone.
FILLER = """
import os, sys
os.sched_setaffinity(0, {int(sys.argv[1])})
os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))
parent = os.getppid()
while os.getppid() == parent:
    pass
"""


@contextlib.contextmanager
def kept_awake(processors):
    """Each of them runs something of the lowest priority when it has nothing else to do."""
    fillers = []
    try:
        for processor in processors:
            fillers.append(subprocess.Popen([sys.executable, "-c", FILLER, str(processor)]))
        yield
    finally:
        for filler in fillers:
            filler.kill()
            filler.wait()


class Stage:
    """Where the contenders play: the far side, and what the commands of rows.py leave open."""

    def __init__(self, build, far_side):
        self.far_side = far_side
        self.places = {
            "build": build,
            "python": sys.executable,
            "address": far_side.address,
            "ca": far_side.ca_file,
            "far_side_pid": str(far_side.process.pid),
            "url": f"https://{far_side.address}{PATH}",
            "body": BODY,
        }
        self.environment = dict(
            os.environ,
            VEXALIVE_SERVICE_HOST=far_side.address,
            VEXALIVE_CA_FILE=far_side.ca_file,
            NODE_EXTRA_CA_CERTS=far_side.ca_file,
        )

    def command(self, words):
        # What stands for the whole word may have braces of its own.
        return [self.places[word[1:-1]] if word[1:-1] in self.places else word.format(**self.places) for word in words]

    def play(self, row, contender):
        """The figures of one contender in one round."""
        everywhere = os.sched_getaffinity(0)
        if row.apart:
            self.far_side.move_to({max(everywhere)})
            os.sched_setaffinity(0, {min(everywhere)})  # inherited by the contender
        try:
            begun = time.monotonic()
            process = subprocess.Popen(self.command(row.contenders[contender]), env=self.environment,
                                       stdout=subprocess.PIPE, text=True)
            output = process.stdout.read()
            _, status, used = os.wait4(process.pid, 0)
            wall = time.monotonic() - begun
            process.returncode = os.waitstatus_to_exitcode(status)
        finally:
            os.sched_setaffinity(0, everywhere)
            self.far_side.move_to(everywhere)
        if process.returncode != 0:
            sys.exit(f"{row.name}: {contender} ended with {process.returncode}")
        if row.timed:
            return {
                "wall_ms": wall * 1e3,
                "cpu_ms": (used.ru_utime + used.ru_stime) * 1e3,
                "peak_resident_bytes": used.ru_maxrss * 1024,
            }
        return {name: float(value) for name, value in (line.split("\t") for line in output.splitlines())}


def measure(stage, rows):
    """For each row, figure and contender the values of all rounds. The rounds of every row are spread over the whole
    run, so that a machine which is slower for some minutes is so for all rows."""
    values = {
        row.name: {figure.key: {contender: [] for contender in figure.of or row.contenders} for figure in row.figures}
        for row in rows
    }
    orders = {row.name: list(row.contenders) for row in rows}
    seconds = dict.fromkeys(values, 0.0)
    rounds = [((i + 0.5) / row.rounds, number, row) for number, row in enumerate(rows) for i in range(row.rounds)]
    for _, _, row in sorted(rounds, key=lambda each: each[:2]):
        begun = time.monotonic()
        order = orders[row.name]
        with kept_awake(os.sched_getaffinity(0) if row.awake else ()):
            for contender in order:
                figures = stage.play(row, contender)
                for key, of_contender in values[row.name].items():
                    if contender in of_contender:
                        of_contender[contender].append(figures[key])
        order.append(order.pop(0))
        seconds[row.name] += time.monotonic() - begun
    for row in rows:
        print(f"   {row.name}: {row.rounds} rounds in {seconds[row.name]:.0f} s", flush=True)
    return values


def judge(row, values):
    """For each figure: the contenders' medians, the medians of the rounds' ratios and differences, what is missed."""
    results = []
    for figure in row.figures:
        of_contender = values[figure.key]
        ours = of_contender[US]
        ratios, differences, missed = {}, {}, []
        for contender, theirs in of_contender.items():
            if contender == US:
                continue
            ratios[contender] = statistics.median(a / b for a, b in zip(ours, theirs))
            differences[contender] = statistics.median(a - b for a, b in zip(ours, theirs))
            if contender in figure.ratios and not figure.meets_ratio(contender, ratios[contender]):
                missed.append(contender)
            if contender in figure.beyond and differences[contender] > figure.beyond[contender]:
                missed.append(contender)
        if figure.ceiling is not None and statistics.median(ours) > figure.ceiling:
            missed.append(US)
        results.append({
            "row": row.name,
            "figure": figure.key,
            "medians": {contender: statistics.median(each) for contender, each in of_contender.items()},
            "rounds": of_contender,
            "ratios": ratios,
            "differences": differences,
            "missed": missed,
        })
    return results


def compare(files):
    """Prints each ratio (or constant difference) of each run, and by how much the highest exceeds the lowest."""
    runs = []
    for name in files:
        with open(name, encoding="utf-8") as file:
            runs.append(json.load(file))
    figures = {(row.name, figure.key): figure for row in ROWS for figure in row.figures}
    apart = 0
    for results in zip(*runs):
        key = (results[0]["row"], results[0]["figure"])
        if any((each["row"], each["figure"]) != key for each in results):
            sys.exit("the runs measured different figures")
        for contender in results[0]["ratios"]:
            kind = "differences" if contender in figures[key].constants else "ratios"
            compared = [each[kind][contender] for each in results]
            spread = max(compared) / min(compared) - 1 if min(compared) > 0 else math.inf
            noisy = figures[key].noisy
            remark = " (not counted)" if noisy else " APART" if spread > 0.15 else ""
            apart += spread > 0.15 and not noisy
            print(f"{key[0]:9}{key[1]:30}{contender:22}{'  '.join(f'{each:7.3f}' for each in compared)}"
                  f"{spread:8.1%}{remark}")
    print(f"{apart} of them lie more than 15 % apart")
    return 1 if apart else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?")
    parser.add_argument("--rows", help="only these, separated by commas")
    parser.add_argument("--write", action="store_true")
    parser.add_argument("--compare", nargs="+", metavar="RESULTS")
    arguments = parser.parse_args()
    if arguments.compare:
        sys.exit(compare(arguments.compare))

    wanted = arguments.rows.split(",") if arguments.rows else [row.name for row in ROWS]
    rows = [row for row in ROWS if row.name in wanted]
    if len(rows) != len(wanted) or not arguments.build:
        parser.error(f"the rows are {', '.join(row.name for row in ROWS)}")
    with tempfile.TemporaryDirectory() as folder, FarSide(folder) as far_side:
        stage = Stage(os.path.abspath(arguments.build), far_side)
        values = measure(stage, rows)
    results = [result for row in rows for result in judge(row, values[row.name])]
    with open(os.path.join(arguments.build, "results.json"), "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)
    print(report.table(results))
    if arguments.write:
        report.write(results)


if __name__ == "__main__":
    main()
