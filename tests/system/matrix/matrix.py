#!/usr/bin/env python3
"""Runs the kernel matrix in guests and prints its table. The table is declared in cells.txt beside this file: what has
no result, what failed, what ran although it is declared not to, and a reason that is not so any more fail the run.

  matrix.py --build DIRECTORY [--boots KERNEL/LAYOUT[/WHO],...] [--resume] [--write DOCUMENT] [--logs DIRECTORY]
            [--table FILE] [--vm-run PROGRAM]

--boots chooses; all others are then not part of this run. Everybody who runs the agent shares the boots of a kernel and
a layout: one, and one more after the power is lost. What a layout gave is kept in the build directory, and --resume
takes what the very same programs gave earlier. --write puts the table of a run without a failure into a document,
between its two marks. Ends with 77 where no guest can be had.
"""
import argparse
import collections
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
import textwrap
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(HERE)))
BEGIN, END = "<!-- matrix: begin -->", "<!-- matrix: end -->"
SECONDS_FOR_EACH = 600  # of one life under emulation; it takes some 90
Cell = collections.namedtuple("Cell", "kernel layout who scenario")


class Table:
    """What cells.txt declares."""

    def __init__(self, path):
        self.kernels, self.layouts, self.who, self.scenarios, self.reasons = {}, {}, {}, {}, {}
        rules = []
        for number, line in enumerate(open(path, encoding="utf-8"), 1):
            kind, _, rest = line.strip().partition(" ")
            words = rest.split()
            if not kind or kind.startswith("#"):
                continue
            if kind == "kernel":
                self.kernels[words[0]] = words[1:] == ["optional"]
            elif kind == "layout":
                self.layouts[words[0]] = (words[1], " ".join(words[2:]))
            elif kind == "who":
                self.who[words[0]] = words[1]
            elif kind == "scenario":
                self.scenarios[words[0]] = " ".join(words[1:])
            elif kind == "reason":
                check, text = rest.split(": ", 1)
                self.reasons[words[0]] = (check.split(" ", 1)[1], text)
            elif kind == "not-run" and len(words) == 5 and words[4] in self.reasons:
                rules.append(words)
            else:
                raise SystemExit(f"{path}:{number}: not understood: {line.strip()}")
        self.cells = [Cell(k, l, w, s) for k in self.kernels for l in self.layouts for w in self.who
                      for s in self.scenarios]
        self.not_run = {}
        for rule in rules:
            fitting = [c for c in self.cells if all(r in ("*", v) for r, v in zip(rule, c))]
            if not fitting:
                raise SystemExit(f"{path}: fits no cell: not-run {' '.join(rule)}")
            for cell in fitting:
                self.not_run[cell] = rule[4]


class Run:
    """The guests of one run, and what they said of each cell."""

    def __init__(self, table, options):
        self.table, self.options = table, options
        self.verdicts, self.problems, self.seconds = {}, [], 0.0
        self.cache = os.path.join(options.build, "vm")
        self.kept = os.path.join(options.build, "matrix")
        self.programs = {name: os.path.join(options.build, "bin", name)
                         for name in ("tervane", "tervanectl", "vmMatrixTests")}
        self.identity = hashlib.sha256()
        for path in [options.table, *self.programs.values()]:
            if os.path.exists(path):
                with open(path, "rb") as program:
                    self.identity.update(program.read())

    def earlier(self, kernel, layout, cells):
        """Takes over what the same programs gave in an earlier run. Returns: whether there is something."""
        try:
            with open(os.path.join(self.kept, f"{kernel}.{layout}.json"), encoding="utf-8") as kept:
                found = json.load(kept)
        except OSError:
            return False
        told = {Cell(kernel, layout, *name.split(" ")): verdict for name, verdict in found["cells"].items()}
        if found["identity"] != self.identity.hexdigest() or set(told) != set(cells):
            return False
        self.verdicts.update(told)
        return True

    def keep(self, kernel, layout, cells):
        os.makedirs(self.kept, exist_ok=True)
        told = {f"{c.who} {c.scenario}": self.verdicts[c] for c in cells if c in self.verdicts}
        with open(os.path.join(self.kept, f"{kernel}.{layout}.json"), "w", encoding="utf-8") as kept:
            json.dump({"identity": self.identity.hexdigest(), "cells": told}, kept)

    def boot(self, cells, second, carry):
        """One guest for some cells of one kernel and layout. Returns: (exit status, output)."""
        kernel, layout = cells[0].kernel, cells[0].layout
        mode, append = self.table.layouts[layout]
        tests = ":".join(f"{self.table.who[w]}.*" for w in dict.fromkeys(c.who for c in cells))
        asked = ",".join(f"{c.who}:{c.scenario}" for c in cells)
        name = f"Matrix.{kernel}.{layout}.{'second' if second else 'first'}"
        lives = len({c.who for c in cells})
        words = [self.options.vm_run, "--cache", self.cache, "--name", name, "--layout", mode, "--kernel", kernel,
                 "--timeout", str(SECONDS_FOR_EACH * lives), "--append", append, "--carry", carry,
                 "--env", f"ZEL_MATRIX_CELLS={asked}"]
        if second:
            words += ["--env", "ZEL_MATRIX_SECOND_BOOT=1"]
        for part in ("tervane", "tervanectl"):
            words += ["--file", f"{self.programs[part]}:/job/{part}"]
        words += ["--", self.programs["vmMatrixTests"], "--gtest_color=no", "--gtest_brief=1",
                  f"--gtest_filter={tests}"]
        began = time.monotonic()
        done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                              errors="replace")
        self.seconds += time.monotonic() - began
        if self.options.logs:
            os.makedirs(self.options.logs, exist_ok=True)
            with open(os.path.join(self.options.logs, name + ".log"), "w", encoding="utf-8") as log:
                log.write(done.stdout)
        return done.returncode, done.stdout

    def take(self, kernel, layout, output):
        """The guest's lines: CELL WHO SCENARIO: passed|failed."""
        for who, scenario, verdict in re.findall(r"^CELL (\S+) (\S+): (\w+)$", output, re.M):
            cell = Cell(kernel, layout, who, scenario)
            if cell in self.verdicts:
                self.problems.append(f"{' '.join(cell)}: told twice")
            self.verdicts[cell] = verdict
            print(f"CELL {' '.join(cell)}: {verdict}", flush=True)

    def run_layout(self, kernel, layout, cells):
        """Both boots. Returns: False where no guest can be had."""
        if self.options.resume and self.earlier(kernel, layout, cells):
            return True
        with tempfile.TemporaryDirectory(dir=self.cache, prefix="carry-matrix.") as directory:
            carry = os.path.join(directory, "all")
            for second in (False, True):
                # The first boot of a cell that needs two gets everything ready for it.
                asked = [c for c in cells if not second or c.scenario == "reboot"]
                if not asked:
                    continue
                status, output = self.boot(asked, second, carry)
                if status == 77:
                    print(output.strip().splitlines()[-1] if output.strip() else "SKIP vm", flush=True)
                    return False
                self.take(kernel, layout, output)
                if status != 0:
                    self.problems.append(f"{kernel} {layout}: a guest ended with status {status}")
                    print("\n".join(output.splitlines()[-120:]), flush=True)
        self.keep(kernel, layout, cells)
        return True

    def check_reasons(self, kernel, layout):
        """A reason has to be so, else the cells could run."""
        config = open(os.path.join(self.cache, f"kernel-{kernel}", "config"), encoding="utf-8").read()
        for reason in {r for c, r in self.table.not_run.items() if (c.kernel, c.layout) == (kernel, layout)}:
            kind, text = self.table.reasons[reason][0].split(" ", 1)
            place = config if kind == "config" else self.table.layouts[layout][1]
            if text not in place:
                self.problems.append(f"{kernel} {layout}: the reason {reason} is not so: no '{text}'")

    def everything(self, chosen):
        missing = {}
        for kernel in self.table.kernels:
            for layout in self.table.layouts:
                cells = [c for c in chosen if (c.kernel, c.layout) == (kernel, layout)]
                wanted = [c for c in cells if c not in self.table.not_run]
                if kernel in missing or not cells:
                    continue
                if wanted and not self.run_layout(kernel, layout, wanted):
                    missing[kernel] = True
            for layout in {c.layout for c in chosen if c.kernel == kernel and kernel not in missing}:
                self.check_reasons(kernel, layout)
        return missing

    def judge(self, chosen, missing):
        """Every chosen cell has a verdict, and none has one that is not to be."""
        for cell in chosen:
            name, declared, told = " ".join(cell), self.table.not_run.get(cell), self.verdicts.get(cell)
            if cell.kernel in missing:
                self.verdicts[cell] = "not run: kernel-not-there"
            elif declared and told:
                self.problems.append(f"{name}: ran, and is declared not to: {declared}")
            elif declared:
                self.verdicts[cell] = f"not run: {declared}"
            elif told is None:
                self.problems.append(f"{name}: did not run, and nothing says why")
                self.verdicts[cell] = "missing"
            elif told != "passed":
                self.problems.append(f"{name}: {told}")
        for cell in self.verdicts.keys() - set(chosen):
            self.problems.append(f"{' '.join(cell)}: nobody asked for it")


def drawn(table, verdicts):
    """Kernel x layout x scenario; a letter for each who runs it, in small print what stands for it."""
    signs = {"passed": "+", "failed": "FAILED", "missing": "MISSING"}
    notes, left_out = {}, 0
    lines = ["| kernel, layout | " + " | ".join(table.scenarios) + " |", "|---" * (len(table.scenarios) + 1) + "|"]
    for kernel in table.kernels:
        for layout in table.layouts:
            row = []
            for scenario in table.scenarios:
                told = [verdicts.get(Cell(kernel, layout, w, scenario)) for w in table.who]
                if told == [None] * len(told):
                    row.append("")
                elif len(set(told)) == 1 and told[0].startswith("not run: "):
                    reason = told[0].split(": ")[1]
                    row.append(str(notes.setdefault(reason, len(notes) + 1)))
                else:
                    parts = []
                    for verdict in told:
                        if verdict and verdict.startswith("not run: "):
                            verdict = str(notes.setdefault(verdict.split(": ")[1], len(notes) + 1))
                        parts.append(signs.get(verdict, verdict or "."))
                    row.append(" ".join(parts))
            left_out += not any(row)
            if any(row):
                lines.append(f"| {kernel} {layout} | " + " | ".join(row) + " |")
    reasons = dict(table.reasons, **{"kernel-not-there": ("", "this machine's archive does not have the kernel")})
    text = ["In each cell: " + ", ".join(table.who) + "; + passed, a number: not run."]
    text += [f"{number}: {reasons[reason][1]}." for reason, number in notes.items()]
    if left_out:
        text.append(f"{left_out} rows of the table were not part of this run.")
    return lines, text


def write(document, lines):
    text = open(document, encoding="utf-8").read()
    head, rest = text.split(BEGIN + "\n", 1)
    tail = rest.split(END, 1)[1]
    with open(document, "w", encoding="utf-8") as out:
        out.write(head + BEGIN + "\n" + "\n".join(lines) + "\n" + END + tail)


def choose(table, boots):
    if not boots:
        return table.cells
    chosen = []
    for boot in boots.split(","):
        kernel, layout, who = (boot.split("/") + [""])[:3]
        fitting = [c for c in table.cells if (c.kernel, c.layout) == (kernel, layout) and who in ("", c.who)]
        if not fitting:
            raise SystemExit(f"no boot named {boot}")
        chosen += fitting
    return chosen


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True)
    parser.add_argument("--boots", default="")
    parser.add_argument("--resume", action="store_true")
    parser.add_argument("--write", default="")
    parser.add_argument("--logs", default="")
    parser.add_argument("--table", default=os.path.join(HERE, "cells.txt"))
    parser.add_argument("--vm-run", default=os.path.join(SOURCE, "scripts", "vm-run"))
    options = parser.parse_args()
    table = Table(options.table)
    chosen = choose(table, options.boots)
    run = Run(table, options)
    os.makedirs(run.cache, exist_ok=True)
    missing = run.everything(chosen)
    kernels = {c.kernel for c in chosen}
    if kernels == set(missing) and (options.boots or os.environ.get("CI") != "true"):
        sys.exit(77)
    for kernel in missing:
        if not table.kernels[kernel]:
            run.problems.append(f"kernel {kernel} cannot be had, and is not declared optional")
    run.judge(chosen, missing)
    lines, text = drawn(table, run.verdicts)
    counts = collections.Counter(run.verdicts[c].split(":")[0] for c in chosen)
    sums = f"{len(chosen)} cells: " + ", ".join(f"{n} {what}" for what, n in sorted(counts.items()))
    lines += ["", *textwrap.wrap(" ".join([*text, sums + "."]), 120)]
    print("\n" + "\n".join(lines))
    print(f"matrix: {sums}; {run.seconds:.0f} s in guests")
    for problem in run.problems:
        print("FAILED " + problem)
    if run.problems:
        sys.exit(1)
    if options.write:
        write(options.write, lines)


if __name__ == "__main__":
    main()
