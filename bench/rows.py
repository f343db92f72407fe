#!/usr/bin/env python3
"""Prints every figure that the agent is held to, with what a floor and a peer cost in the same run, and the ratio.

  rows.py [--build DIRECTORY] [--only PART,...] [--write FILE]

PART is one of those in the last column of the table. --write replaces the table of that document, with machine, date
and commit. Times are of this machine and this hour: compare ratios. Needs root; a peer that is not installed is "-"
(`make bench-peers` installs them without starting their services).
"""
import argparse
import datetime
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # nothing is left in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import peers  # noqa: E402
from processes import Agent, GROUPS, SHARES, read  # noqa: E402

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BEGIN = "<!-- table of bench/rows.py: begin -->"
END = "<!-- table of bench/rows.py: end -->"
STARTS = 3
COLD_STARTS = 15


class Table:
    def __init__(self):
        self.lines = []
        self.extra = []

    def add(self, part, quantity, ours, floor=None, peer=None, ratio=None, target="", of=""):
        """`ours`, `floor`, `peer`: number and unit texts or numbers; `ratio` is ours by `of`."""
        def text(value):
            if value is None:
                return "-"
            if isinstance(value, str):
                return value
            return f"{value:.0f}" if abs(value) >= 100 else f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}"
        relation = f"{text(ratio)} of {of}" if ratio is not None else "-"
        self.lines.append(f"| {quantity} | {text(ours)} | {text(floor)} | {text(peer)} | {relation} | {target} | "
                          f"`bench/rows.py --only {part}` |")
        print(self.lines[-1], flush=True)

    HEAD = ["| quantity | ours | floor | peer | ratio | target | repeated by |", "|---|---|---|---|---|---|---|"]


class Bench:
    def __init__(self, build, directory):
        self.build = build
        self.directory = directory
        self.table = Table()
        self.add = self.table.add

    def run(self, program, *arguments):
        """Output of one of our programs; empty when it is not built or fails."""
        path = os.path.join(self.build, "bin", program)
        if not os.path.exists(path):
            return ""
        run = subprocess.run([path, *arguments], stdout=subprocess.PIPE, text=True,
                             env=dict(os.environ, ZEL_CGROUP_NAME=f"zel.bench-{os.getpid()}"))
        if run.returncode != 0:
            print(f"rows: {program} {' '.join(arguments)}: status {run.returncode}", file=sys.stderr)
        return run.stdout

    def scale(self, program, *arguments):
        """{(what, count): (us, us a unit)}"""
        return {(what, int(count)): (float(us), float(each)) for what, count, us, each in
                re.findall(r"^SCALE (\S+) (\d+) (\S+) (\S+)$", self.run(program, *arguments), re.M)}

    def app(self, name):
        directory = os.path.join(self.directory, name)
        shutil.rmtree(directory, ignore_errors=True)
        os.makedirs(os.path.join(directory, "conf"), mode=0o750)
        config = read(os.path.join(SOURCE, "agent/conf/resource_config")).replace("max_cpu = 10", "max_cpu = 100")
        path = os.path.join(directory, "conf/resource_config")
        with open(path, "w") as file:
            os.fchmod(file.fileno(), 0o640)
            file.write(config + f"\ncgroup_groups = {GROUPS}\ncgroup_components = {SHARES}\n")
        return directory

    # --- the parts ---

    def idle(self):
        rows, calls, whole, spans = peers.compare(self.build, SOURCE, self.directory)
        ours, main = rows["our component"], rows["our main process"]
        floor = rows.get("floor program, 1 s", {})
        early = rows.get("earlyoom, 1 s", {})
        oomd = rows.get("oomd, 1 s", {})
        self.table.extra = peers.table(rows, calls, early.get("cpu_us_s"))

        def by(value, other):
            return value / other if other else None
        for name, row, cpu, wakes in [("component", ours, "1.5", "1.2"), ("main process", main, "3", "2.5")]:
            self.add("idle", f"{name}, idle: CPU us/s", row["cpu_us_s"], floor.get("cpu_us_s"), early.get("cpu_us_s"),
                     by(row["cpu_us_s"], early.get("cpu_us_s")), f"<= {cpu}", "earlyoom")
            self.add("idle", f"{name}, idle: wake-ups/s", row["wakeups_s"], floor.get("wakeups_s"),
                     early.get("wakeups_s"), by(row["wakeups_s"], early.get("wakeups_s")), f"<= {wakes}/s", "earlyoom")
        self.add("idle", "whole agent of six processes: CPU us/s", whole["cpu_us_s"], 6 * floor.get("cpu_us_s", 0),
                 oomd.get("cpu_us_s"), by(whole["cpu_us_s"], oomd.get("cpu_us_s")), "<= 2.0", "oomd")
        for name, row, bound in [("component", ours, "0.6 MiB"), ("main process", main, "0.9 MiB")]:
            self.add("idle", f"{name}: private memory, KiB", row["private_kib"], floor.get("private_kib"),
                     oomd.get("private_kib"), by(row["private_kib"], oomd.get("private_kib")), f"<= {bound}", "oomd")
        for name, row, bound in [("component", ours, 5), ("main process", main, 8)]:
            self.add("idle", f"{name}: threads", str(row["threads"]), str(floor.get("threads", "-")),
                     str(oomd.get("threads", "-")), None, f"<= {bound}")
        self.add("idle", "component: libraries mapped", str(ours["libraries"]), str(floor.get("libraries", "-")),
                 str(oomd.get("libraries", "-")), None, "<= 7")
        for index, (quantity, bound) in enumerate([("system calls a second", 15), ("opens a second", 0)]):
            self.add("idle", f"main process: {quantity}", calls.get("our main process", (None, None))[index],
                     calls.get("floor program, 1 s", (None, None))[index],
                     calls.get("oomd, 1 s", (None, None))[index], None, f"<= {bound}")
        self.add("idle", "written to disk by an idle agent, bytes a minute", str(whole["written_bytes"]), "0",
                 str(oomd.get("written_bytes", "-")), None, "0")

    def start(self):
        for name, built_in, bounds in [("shipped table", False, (0.3, 0.5, 0.1)), ("built-in table", True, (1, 0.5, 0.1))]:
            found = {"start": [], "change": [], "stop": []}
            for _ in range(STARTS):
                agent = Agent(self.build, self.directory, SOURCE, built_in_table=built_in)
                try:
                    found["start"].append(agent.start())
                    time.sleep(3)
                    found["change"].append(agent.change(35) or 0)
                finally:
                    found["stop"].append(agent.stop())
            for key, quantity, bound in [("start", "start to limits in force", bounds[0]),
                                         ("stop", "SIGTERM to all gone", bounds[1]),
                                         ("change", "online change to the last kernel value", bounds[2])]:
                self.add("start", f"{quantity}, six processes, {name}: s", statistics.median(found[key]),
                         target=f"<= {bound} s")

    def update(self):
        found = self.scale("BenchScale", "update", self.app("update"))
        if found:
            self.add("update", "OnUpdate without a change, main process: us", found["update", 1][0], target="<= 30 us")

    def groups(self):
        found = self.scale("BenchScale", "groups", self.app("groups"))
        for what, name in [("oom-poll", "OOM poll"), ("keeper", "keeper's look")]:
            for count in sorted(count for key, count in found if key == what and count > 1):
                self.add("groups", f"{name}, {count} groups: us a group", found[what, count][1], target="<= 2 us")

    def threads(self):
        found = self.scale("BenchThreadReport")
        for count in sorted(count for what, count in found if what == "threads-facts" and count >= 100):
            facts, floor = found["threads-facts", count], found["threads-floor", count]
            self.add("threads", f"thread facts, {count} threads: us a thread", facts[1], floor[1], None,
                     facts[1] / floor[1], "<= 2", "the floor")
        last = max((count for _, count in found), default=0)
        if last:
            self.add("threads", f"thread report, {last} threads: ms", found["threads-report", last][0] / 1e3,
                     found["threads-floor", last][0] / 1e3, target="<= 20 ms")

    def query(self):
        text = self.run("BenchHotQuery")
        load = re.search(r"^relaxed atomic load +([\d.]+) ns", text, re.M)
        ours = re.search(r"^CMonitor::GetCpuUsageLevel.*? +([\d.]+) ns ", text, re.M)
        if load and ours:
            self.add("query", "hot query: ns", float(ours.group(1)), float(load.group(1)), None,
                     float(ours.group(1)) / float(load.group(1)), "<= 1.5 ns", "an atomic load")

    def round(self):
        text = self.run("BenchSamplingRound")
        cpu = dict(re.findall(r"^(floor|sampler) +CPU a round: ([\d.]+)", text, re.M))
        calls = dict(re.findall(r"^(floor|sampler) +system calls a round: ([\d.]+)", text, re.M))
        if len(cpu) == 2:
            self.add("round", "sampling round: CPU us", float(cpu["sampler"]), float(cpu["floor"]), None,
                     float(cpu["sampler"]) / float(cpu["floor"]), "<= 1.3", "the floor")
        if len(calls) == 2:
            self.add("round", "sampling round: system calls", calls["sampler"], calls["floor"], None, None, "<= 12")

    def events(self):
        """By its own table: appended, inserted, one sender, two ratios, events a second of four senders and their most."""
        os.environ["ZEL_BENCH_DIR"] = self.directory
        row = re.search(r"^with the file sink +" + r" +".join([r"([\d.]+)"] * 7) + "$", self.run("BenchEventAccept"), re.M)
        if row:
            _, inserted, one, _, ratio, many, most = map(float, row.groups())
            self.add("events", "accepted event, durable, one sender: us", one, inserted, None, ratio, "<= 1.3",
                     "one synced insert")
            self.add("events", "accepted events, durable, four senders: a second", many, most, None, many / most,
                     ">= 20,000/s", "one sync for all four")

    def size(self):
        target = os.path.join(self.directory, "installed")
        shutil.rmtree(target, ignore_errors=True)
        subprocess.run(["cmake", "--install", self.build, "--strip", "--prefix", target], check=True,
                       stdout=subprocess.DEVNULL)
        total = agent = 0
        for folder, _, names in os.walk(target):
            for path in [os.path.join(folder, name) for name in names]:
                if not os.path.islink(path):
                    total += os.path.getsize(path)
                    agent += os.path.getsize(path) if "/sbin/" in path or ".so" in path else 0
        self.add("size", "installed size, stripped: MB (programs and libraries of it)",
                 f"{total / 1e6:.2f} ({agent / 1e6:.2f})", target="<= 4 MB")
        shutil.rmtree(target)

    def cold(self):
        """From the fork to the line that says it runs; the floor is the same without one of our libraries at work."""
        directory = self.app("cold")
        ours, floor = [], []
        for _ in range(COLD_STARTS):
            log = os.path.join(directory, "log/QorNet.log")
            if os.path.exists(log):
                os.remove(log)
            began = time.monotonic()
            process = subprocess.Popen([os.path.join(self.build, "bin/tervane"), "--app-dir", directory, "--name",
                                        "QorNet", "--load", "idle"], stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL,
                                       env=dict(os.environ, ZEL_CGROUP_NAME=f"zel.bench-{os.getpid()}"))
            while " is running, process " not in read(log) and process.poll() is None:
                time.sleep(0.0005)
            ours.append((time.monotonic() - began) * 1000)
            process.terminate()
            process.wait()
            began = time.monotonic()
            subprocess.run([os.path.join(self.build, "bin/tervane"), "--version"], stdout=subprocess.DEVNULL)
            floor.append((time.monotonic() - began) * 1000)
        middle, least = statistics.median(ours), statistics.median(floor)
        self.add("cold", "cold start of a component: ms (floor: the same program, --version)", middle, least, None,
                 middle / least, "<= 15 ms", "the floor")


PARTS = ("idle", "start", "update", "groups", "threads", "query", "round", "events", "size", "cold")


def describe():
    model = re.search(r"^model name\s*: (.*)$", read("/proc/cpuinfo"), re.M)
    commit = subprocess.run(["git", "-C", SOURCE, "describe", "--always", "--dirty"], capture_output=True, text=True)
    system = re.search(r'^PRETTY_NAME="(.*)"$', read("/etc/os-release"), re.M)
    return (f"- {os.cpu_count()} x {model.group(1) if model else platform.machine()}, Linux {platform.release()}, "
            f"{system.group(1) if system else 'unknown system'}\n- {datetime.date.today()}, commit "
            f"{commit.stdout.strip() or 'unknown'}, load average {os.getloadavg()[0]:.1f} at the start")


def write(path, machine, table):
    text = read(path)
    if BEGIN not in text or END not in text:
        sys.exit(f"rows: {path} has no place for the table")
    body = "\n".join(["", machine, "", *Table.HEAD, *table.lines, ""])
    if table.extra:
        body += "\n".join(["", "The processes of the run of `idle`:", "", *table.extra, ""])
    with open(path, "w") as file:
        file.write(text[:text.index(BEGIN) + len(BEGIN)] + "\n" + body + "\n" + text[text.index(END):])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="build directory with release flags")
    parser.add_argument("--only", default=",".join(PARTS), help="parts, by comma")
    parser.add_argument("--write", metavar="FILE")
    options = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("rows: needs root: control groups are made")
    build = os.path.abspath(options.build)
    directory = tempfile.mkdtemp(prefix="rows.", dir=build)
    bench = Bench(build, directory)
    machine = describe()
    print(machine + "\n\n" + "\n".join(Table.HEAD), flush=True)
    try:
        for part in options.only.split(","):
            if part not in PARTS:
                sys.exit(f"rows: no part {part}: {', '.join(PARTS)}")
            getattr(bench, part)()
    finally:
        shutil.rmtree(directory, ignore_errors=True)
    if bench.table.extra:
        print("\n" + "\n".join(bench.table.extra))
    if options.write:
        write(options.write, machine, bench.table)
    return 0


if __name__ == "__main__":
    sys.exit(main())
