#!/usr/bin/env python3
"""Runs the rows of rows.py and writes the table and the chart of docs/performance.md.

    run.py BUILD_FOLDER [--rows NAME,NAME] [--write]     measures and prints the table; --write updates the docs
    run.py --compare RESULTS.json RESULTS.json …         compares the ratios of several runs

In each round of a row, each contender runs once; the order changes from round to round. The rounds of all rows are
interleaved. A ratio is the median of the ratios of the rounds. A temporary slowdown of the machine therefore affects
all contenders alike.
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
from reference_server import ReferenceServer
from report import US
from rows import ROWS
from service import BODY, PATH


# A program that keeps a processor busy at the lowest priority. It exits when its parent has exited.
IDLE_TASK = """
import os, sys
os.sched_setaffinity(0, {int(sys.argv[1])})
os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))
parent = os.getppid()
while os.getppid() == parent:
    pass
"""


@contextlib.contextmanager
def keep_awake(processors):
    """Runs a task of the lowest priority on each processor, so that no processor goes to sleep."""
    idle_tasks = []
    try:
        for processor in processors:
            idle_tasks.append(subprocess.Popen([sys.executable, "-c", IDLE_TASK, str(processor)]))
        yield
    finally:
        for idle_task in idle_tasks:
            idle_task.kill()
            idle_task.wait()


class Environment:
    """The server, and the values of the placeholders in the commands of rows.py."""

    def __init__(self, build, server):
        self.server = server
        self.values = {
            "build": build,
            "python": sys.executable,
            "address": server.address,
            "ca": server.ca_file,
            "server_pid": str(server.process.pid),
            "url": f"https://{server.address}{PATH}",
            "body": BODY,
        }
        self.environment = dict(
            os.environ,
            VEXALIVE_SERVICE_HOST=server.address,
            VEXALIVE_CA_FILE=server.ca_file,
            NODE_EXTRA_CA_CERTS=server.ca_file,
        )

    def command(self, words):
        # format() is not used for a word that is a placeholder only, because its value may contain braces.
        return [self.values[word[1:-1]] if word[1:-1] in self.values else word.format(**self.values) for word in words]

    def run(self, row, contender):
        """Runs one contender once and returns its figures."""
        all_processors = os.sched_getaffinity(0)
        if row.separate_processors:
            self.server.move_to({max(all_processors)})
            os.sched_setaffinity(0, {min(all_processors)})  # inherited by the contender
        try:
            started = time.monotonic()
            process = subprocess.Popen(self.command(row.contenders[contender]), env=self.environment,
                                       stdout=subprocess.PIPE, text=True)
            output = process.stdout.read()
            _, status, used = os.wait4(process.pid, 0)
            wall = time.monotonic() - started
            process.returncode = os.waitstatus_to_exitcode(status)
        finally:
            os.sched_setaffinity(0, all_processors)
            self.server.move_to(all_processors)
        if process.returncode != 0:
            sys.exit(f"{row.name}: {contender} ended with {process.returncode}")
        if row.timed:
            return {
                "wall_ms": wall * 1e3,
                "cpu_ms": (used.ru_utime + used.ru_stime) * 1e3,
                "peak_resident_bytes": used.ru_maxrss * 1024,
            }
        return {name: float(value) for name, value in (line.split("\t") for line in output.splitlines())}


def measure(environment, rows):
    """Returns the values of all rounds for each row, figure and contender. The rounds of all rows are interleaved, so
    that a slowdown of the machine for some minutes affects a few rounds of each row."""
    values = {
        row.name: {figure.key: {contender: [] for contender in figure.of or row.contenders} for figure in row.figures}
        for row in rows
    }
    orders = {row.name: list(row.contenders) for row in rows}
    seconds = dict.fromkeys(values, 0.0)
    rounds = [((i + 0.5) / row.rounds, number, row) for number, row in enumerate(rows) for i in range(row.rounds)]
    for _, _, row in sorted(rounds, key=lambda each: each[:2]):
        started = time.monotonic()
        order = orders[row.name]
        with keep_awake(os.sched_getaffinity(0) if row.keep_awake else ()):
            for contender in order:
                figures = environment.run(row, contender)
                for key, of_contender in values[row.name].items():
                    if contender in of_contender:
                        of_contender[contender].append(figures[key])
        order.append(order.pop(0))
        seconds[row.name] += time.monotonic() - started
    for row in rows:
        print(f"   {row.name}: {row.rounds} rounds in {seconds[row.name]:.0f} s", flush=True)
    return values


def evaluate(row, values):
    """Returns for each figure the medians of the contenders, of the ratios and of the differences, and the missed
    targets."""
    results = []
    for figure in row.figures:
        of_contender = values[figure.key]
        own = of_contender[US]
        ratios, differences, missed = {}, {}, []
        for contender, other in of_contender.items():
            if contender == US:
                continue
            ratios[contender] = statistics.median(a / b for a, b in zip(own, other))
            differences[contender] = statistics.median(a - b for a, b in zip(own, other))
            if contender in figure.ratios and not figure.meets_ratio(contender, ratios[contender]):
                missed.append(contender)
            if contender in figure.beyond and differences[contender] > figure.beyond[contender]:
                missed.append(contender)
        if figure.ceiling is not None and statistics.median(own) > figure.ceiling:
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
    """Prints each ratio (or difference, for a contender in `constants`) of all runs, and by how many per cent the
    highest exceeds the lowest."""
    runs = []
    for name in files:
        with open(name, encoding="utf-8") as file:
            runs.append(json.load(file))
    figures = {(row.name, figure.key): figure for row in ROWS for figure in row.figures}
    differing = 0
    for results in zip(*runs):
        key = (results[0]["row"], results[0]["figure"])
        if any((each["row"], each["figure"]) != key for each in results):
            sys.exit("the runs measured different figures")
        for contender in results[0]["ratios"]:
            kind = "differences" if contender in figures[key].constants else "ratios"
            compared = [each[kind][contender] for each in results]
            spread = max(compared) / min(compared) - 1 if min(compared) > 0 else math.inf
            noisy = figures[key].noisy
            remark = " (noisy, not counted)" if noisy else " DIFFERS" if spread > 0.15 else ""
            differing += spread > 0.15 and not noisy
            print(f"{key[0]:9}{key[1]:30}{contender:22}{'  '.join(f'{each:7.3f}' for each in compared)}"
                  f"{spread:8.1%}{remark}")
    print(f"{differing} ratios or differences differ by more than 15 % between the runs")
    return 1 if differing else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?")
    parser.add_argument("--rows", help="measure only these rows, separated by commas")
    parser.add_argument("--write", action="store_true")
    parser.add_argument("--compare", nargs="+", metavar="RESULTS")
    arguments = parser.parse_args()
    if arguments.compare:
        sys.exit(compare(arguments.compare))

    wanted = arguments.rows.split(",") if arguments.rows else [row.name for row in ROWS]
    rows = [row for row in ROWS if row.name in wanted]
    if len(rows) != len(wanted) or not arguments.build:
        parser.error(f"the rows are {', '.join(row.name for row in ROWS)}")
    with tempfile.TemporaryDirectory() as folder, ReferenceServer(folder) as server:
        environment = Environment(os.path.abspath(arguments.build), server)
        values = measure(environment, rows)
    results = [result for row in rows for result in evaluate(row, values[row.name])]
    with open(os.path.join(arguments.build, "results.json"), "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)
    print(report.table(results))
    if arguments.write:
        report.write(results)


if __name__ == "__main__":
    main()
