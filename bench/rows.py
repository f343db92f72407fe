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
import traceback

sys.dont_write_bytecode = True  # nothing is left in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import peers  # noqa: E402
from processes import GROUPS, SHARES, Agent, end_on_request, read  # noqa: E402

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BEGIN = "<!-- table of bench/rows.py: begin -->"
END = "<!-- table of bench/rows.py: end -->"
STARTS = 3
COLD_STARTS = 15
PROGRAM_SECONDS = 120  # of one program of ours; then its rows are not measured
TRACE_SECONDS = 60  # the agent's whole look at everything, once a minute, is in it
SPANS = [("start", "start to limits in force"), ("stop", "SIGTERM to all gone"),
         ("change", "online change to the last kernel value")]
TABLES = [("shipped table", False, (0.3, 0.5, 0.1)), ("built-in table", True, (1, 0.5, 0.1))]
THREADS = (100, 1000, 10000)
GROUP_COUNTS = (10, 100, 256)
LOOKS = [("oom-poll", "OOM poll"), ("keeper", "keeper's look")]
SENDERS = ("alone", "with the file sink")


def span(quantity, table):
    return f"{quantity}, six processes, {table}: s"


# Part: what it measures, with the target. Whatever happens, each of them has its row.
ROWS = {
    "idle": {
        "component, idle: CPU us/s": "<= 1.5", "component, idle: wake-ups/s": "<= 1.2/s",
        "main process, idle: CPU us/s": "<= 3", "main process, idle: wake-ups/s": "<= 2.5/s",
        "whole agent of six processes: CPU us/s": "<= 2.0",
        "component: private memory, KiB": "<= 0.6 MiB", "main process: private memory, KiB": "<= 0.9 MiB",
        "component: threads": "<= 5", "main process: threads": "<= 8", "component: libraries mapped": "<= 7",
        "main process: system calls a second": "<= 15", "main process: opens a second": "<= 0",
        "written to disk by an idle agent, bytes a minute": "0",
    },
    "start": {span(quantity, table): f"<= {bound} s" for table, _, bounds in TABLES
              for (_, quantity), bound in zip(SPANS, bounds)},
    "update": {"OnUpdate without a change, main process: us": "<= 30 us"},
    "groups": {f"{name}, {count} groups: us a group": "<= 2 us" for _, name in LOOKS for count in GROUP_COUNTS},
    "threads": {**{f"thread facts, {count} threads: us a thread": "<= 2" for count in THREADS},
                f"thread report, {THREADS[-1]} threads: ms": "<= 20 ms"},
    "query": {"hot query: ns": "<= 1.5 ns"},
    "round": {"sampling round: CPU us": "<= 1.3", "sampling round: system calls": "<= 12"},
    "events": {f"{quantity}, {sink}: {unit}": target for sink in SENDERS for quantity, unit, target in [
        ("accepted event, durable, one sender", "us", "<= 1.3"),
        ("accepted events, durable, four senders", "a second", ">= 20,000/s"),
        ("accepted events, durable, 64 senders", "a second", "-")]},
    "size": {"installed, stripped: MB of the agent (the libraries for others; headers)": "<= 4 MB"},
    "cold": {"cold start of a component: ms (floor: the same program, --version)": "<= 15 ms"},
}


class NotMeasured(Exception):
    """Why a row has no figure."""


class Table:
    def __init__(self):
        self.lines = []
        self.extra = []
        self.said = set()

    def add(self, part, quantity, ours, floor=None, peer=None, ratio=None, of=""):
        """`ours`, `floor`, `peer`: number and unit texts or numbers; `ratio` is ours by `of`."""
        def text(value):
            if value is None:
                return "-"
            if isinstance(value, str):
                return value
            return f"{value:.0f}" if abs(value) >= 100 else f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}"
        relation = f"{text(ratio)} of {of}" if ratio is not None else "-"
        self._line(part, quantity, f"{text(ours)} | {text(floor)} | {text(peer)} | {relation}")

    def leave_out(self, part, reason):
        """The rows of a part that have not been said yet."""
        reason = " ".join(str(reason).split()).replace("|", "/")
        for quantity in ROWS[part]:
            if quantity not in self.said:
                self._line(part, quantity, f"not measured: {reason} | - | - | -")

    def _line(self, part, quantity, figures):
        self.said.add(quantity)
        self.lines.append(f"| {quantity} | {figures} | {ROWS[part][quantity]} | `bench/rows.py --only {part}` |")
        print(self.lines[-1], flush=True)

    HEAD = ["| quantity | ours | floor | peer | ratio | target | repeated by |", "|---|---|---|---|---|---|---|"]


class Bench:
    def __init__(self, build, directory):
        self.build = build
        self.directory = directory
        self.table = Table()
        self.add = self.table.add

    def run(self, program, *arguments):
        """Output of one of our programs."""
        path = os.path.join(self.build, "bin", program)
        if not os.path.exists(path):
            raise NotMeasured(f"{program} is not built")
        try:
            run = subprocess.run([path, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                 timeout=PROGRAM_SECONDS, env=dict(os.environ, ZEL_BENCH_DIR=self.directory,
                                                                   ZEL_CGROUP_NAME=f"zel.bench-{os.getpid()}"))
        except subprocess.TimeoutExpired:
            raise NotMeasured(f"{program} did not end within {PROGRAM_SECONDS} s") from None
        sys.stderr.write(run.stderr)
        if run.returncode != 0:
            last = run.stderr.strip().splitlines()[-1:]
            raise NotMeasured(": ".join([f"{program} ended with status {run.returncode}", *last]))
        return run.stdout

    def scale(self, program, *arguments):
        """{(what, count): (us, us a unit)}"""
        found = {(what, int(count)): (float(us), float(each)) for what, count, us, each in
                 re.findall(r"^SCALE (\S+) (\d+) (\S+) (\S+)$", self.run(program, *arguments), re.M)}
        if not found:
            raise NotMeasured(f"{program} printed no figures")
        return found

    @staticmethod
    def figures(pattern, text):
        """The groups of the pattern's first line in the text, as numbers."""
        row = re.search(pattern, text, re.M)
        if not row:
            raise NotMeasured(f"no line like '{pattern[1:25]}...' was printed")
        return [float(group) for group in row.groups()]

    def measure(self, part):
        """Each row of the part, with figures or with the reason why there are none."""
        reason = "nothing was printed for it"
        try:
            getattr(self, part)()
        except NotMeasured as why:
            reason = why
        except (Exception, SystemExit) as why:  # whatever it is, the other parts are to be measured
            reason = f"{type(why).__name__}: {why}"
            traceback.print_exc()
        self.table.leave_out(part, reason)

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
        rows, calls, whole, spans = peers.compare(self.build, SOURCE, self.directory, trace=TRACE_SECONDS)
        ours, main = rows["our component"], rows["our main process"]
        floor = rows.get("floor program, 1 s", {})
        early = rows.get("earlyoom, 1 s", {})
        oomd = rows.get("oomd, 1 s", {})
        self.table.extra = peers.table(rows, calls, early.get("cpu_us_s"))

        def by(value, other):
            return value / other if other else None
        for name, row in [("component", ours), ("main process", main)]:
            self.add("idle", f"{name}, idle: CPU us/s", row["cpu_us_s"], floor.get("cpu_us_s"), early.get("cpu_us_s"),
                     by(row["cpu_us_s"], early.get("cpu_us_s")), "earlyoom")
            self.add("idle", f"{name}, idle: wake-ups/s", row["wakeups_s"], floor.get("wakeups_s"),
                     early.get("wakeups_s"), by(row["wakeups_s"], early.get("wakeups_s")), "earlyoom")
        self.add("idle", "whole agent of six processes: CPU us/s", whole["cpu_us_s"], 6 * floor.get("cpu_us_s", 0),
                 oomd.get("cpu_us_s"), by(whole["cpu_us_s"], oomd.get("cpu_us_s")), "oomd")
        for name, row in [("component", ours), ("main process", main)]:
            self.add("idle", f"{name}: private memory, KiB", row["private_kib"], floor.get("private_kib"),
                     oomd.get("private_kib"), by(row["private_kib"], oomd.get("private_kib")), "oomd")
            self.add("idle", f"{name}: threads", str(row["threads"]), str(floor.get("threads", "-")),
                     str(oomd.get("threads", "-")))
        self.add("idle", "component: libraries mapped", str(ours["libraries"]), str(floor.get("libraries", "-")),
                 str(oomd.get("libraries", "-")))
        self.add("idle", "written to disk by an idle agent, bytes a minute", str(whole["written_bytes"]), "0",
                 str(oomd.get("written_bytes", "-")))
        if "our main process" not in calls:
            raise NotMeasured("strace is not installed or may not attach")
        for index, quantity in enumerate(["system calls a second", "opens a second"]):
            self.add("idle", f"main process: {quantity}", calls["our main process"][index],
                     calls.get("floor program, 1 s", (None, None))[index],
                     calls.get("oomd, 1 s", (None, None))[index])

    def start(self):
        for name, built_in, _ in TABLES:
            found = {"start": [], "change": [], "stop": []}
            for _ in range(STARTS):
                agent = Agent(self.build, self.directory, SOURCE, built_in_table=built_in)
                try:
                    found["start"].append(agent.start())
                    time.sleep(3)
                    found["change"].append(agent.change(35))
                finally:
                    found["stop"].append(agent.stop())
            if None in found["change"]:
                raise NotMeasured("a change of the online configuration changed no quota")
            for key, quantity in SPANS:
                self.add("start", span(quantity, name), statistics.median(found[key]))

    def update(self):
        self.add("update", "OnUpdate without a change, main process: us",
                 self.scale("BenchScale", "update", self.app("update"))["update", 1][0])

    def groups(self):
        found = self.scale("BenchScale", "groups", self.app("groups"))
        for what, name in LOOKS:
            for count in GROUP_COUNTS:
                self.add("groups", f"{name}, {count} groups: us a group", found[what, count][1])

    def threads(self):
        found = self.scale("BenchThreadReport")
        for count in THREADS:
            facts, floor = found["threads-facts", count], found["threads-floor", count]
            self.add("threads", f"thread facts, {count} threads: us a thread", facts[1], floor[1], None,
                     facts[1] / floor[1], "the floor")
        self.add("threads", f"thread report, {THREADS[-1]} threads: ms", found["threads-report", THREADS[-1]][0] / 1e3,
                 found["threads-floor", THREADS[-1]][0] / 1e3)

    def query(self):
        text = self.run("BenchHotQuery")
        load, = self.figures(r"^relaxed atomic load +([\d.]+) ns", text)
        ours, = self.figures(r"^CMonitor::GetCpuUsageLevel.*? +([\d.]+) ns ", text)
        self.add("query", "hot query: ns", ours, load, None, ours / load, "an atomic load")

    def round(self):
        text = self.run("BenchSamplingRound")
        floor, = self.figures(r"^floor +CPU a round: ([\d.]+)", text)
        ours, = self.figures(r"^sampler +CPU a round: ([\d.]+)", text)
        self.add("round", "sampling round: CPU us", ours, floor, None, ours / floor, "the floor")
        floor, = self.figures(r"^floor +system calls a round: ([\d.]+)", text)
        ours, = self.figures(r"^sampler +system calls a round: ([\d.]+)", text)
        self.add("round", "sampling round: system calls", ours, floor)

    def events(self):
        found = {(sinks, what): float(us) for sinks, what, us in
                 re.findall(r"^EVENTS \S+ (\S+) (\S+) (\S+)$", self.run("BenchEventAccept"), re.M)}
        for sinks, name in [("no-sink", SENDERS[0]), ("file-sink", SENDERS[1])]:
            one, insert = found[sinks, "one-sender"], found[sinks, "inserted"]
            self.add("events", f"accepted event, durable, one sender, {name}: us", one, insert, None, one / insert,
                     "one synced insert")
            for what, senders in [("four-senders", "four senders"), ("crowd", "64 senders")]:
                rate, floor = 1e6 / found[sinks, what], 1e6 / found[sinks, "four-threads-synced"]
                self.add("events", f"accepted events, durable, {senders}, {name}: a second", rate, floor, None,
                         rate / floor, "four threads that share a sync of one page")

    def size(self):
        target = os.path.join(self.directory, "installed")
        shutil.rmtree(target, ignore_errors=True)
        found = {}
        for component in ("agent", "lib", "dev"):
            where = os.path.join(target, component)
            subprocess.run(["cmake", "--install", self.build, "--strip", "--component", component, "--prefix", where],
                           check=True, stdout=subprocess.DEVNULL)
            paths = [os.path.join(folder, name) for folder, _, names in os.walk(where) for name in names]
            found[component] = sum(os.path.getsize(path) for path in paths if not os.path.islink(path)) / 1e6
        self.add("size", "installed, stripped: MB of the agent (the libraries for others; headers)",
                 f"{found['agent']:.2f} ({found['lib']:.2f}; {found['dev']:.2f})")
        shutil.rmtree(target)

    def cold(self):
        """From the fork to the line that says it runs; the floor is the same without one of our libraries at work."""
        directory = self.app("cold")
        if not os.path.exists(os.path.join(self.build, "bin/tervane")):
            raise NotMeasured("tervane is not built")
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
            while " is running, process " not in read(log):
                if process.poll() is not None:
                    raise NotMeasured(f"the component ended with status {process.returncode}")
                time.sleep(0.0005)
            ours.append((time.monotonic() - began) * 1000)
            process.terminate()
            process.wait()
            began = time.monotonic()
            subprocess.run([os.path.join(self.build, "bin/tervane"), "--version"], stdout=subprocess.DEVNULL)
            floor.append((time.monotonic() - began) * 1000)
        middle, least = statistics.median(ours), statistics.median(floor)
        self.add("cold", "cold start of a component: ms (floor: the same program, --version)", middle, least, None,
                 middle / least, "the floor")


def commit():
    """Of what is measured; the documents, which these programs write themselves, have no part in that."""
    git = ["git", "-c", f"safe.directory={SOURCE}", "-C", SOURCE]
    name = subprocess.run([*git, "rev-parse", "--short", "HEAD"], capture_output=True, text=True).stdout.strip()
    changed = subprocess.run([*git, "status", "--porcelain", "--", ".", ":!docs"], capture_output=True, text=True).stdout
    return (name or "unknown") + (" with changes that are not committed" if changed else "")


def describe():
    model = re.search(r"^model name\s*: (.*)$", read("/proc/cpuinfo"), re.M)
    system = re.search(r'^PRETTY_NAME="(.*)"$', read("/etc/os-release"), re.M)
    return (f"- {os.cpu_count()} x {model.group(1) if model else platform.machine()}, Linux {platform.release()}, "
            f"{system.group(1) if system else 'unknown system'}\n- {datetime.date.today()}, commit {commit()}, load "
            f"average {os.getloadavg()[0]:.1f} at the start")


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
    parser.add_argument("--only", default=",".join(ROWS), help="parts, by comma")
    parser.add_argument("--write", metavar="FILE")
    options = parser.parse_args()
    end_on_request()
    if os.geteuid() != 0:
        sys.exit("rows: needs root: control groups are made")
    unknown = set(options.only.split(",")) - set(ROWS)
    if unknown:
        sys.exit(f"rows: no part {', '.join(unknown)}; there are {', '.join(ROWS)}")
    build = os.path.abspath(options.build)
    if not os.path.isdir(build):
        sys.exit(f"rows: {build} is not there: build first, or say --build")
    directory = tempfile.mkdtemp(prefix="rows.", dir=build)
    bench = Bench(build, directory)
    machine = describe()
    print(machine + "\n\n" + "\n".join(Table.HEAD), flush=True)
    try:
        for part in options.only.split(","):
            bench.measure(part)
    finally:
        shutil.rmtree(directory, ignore_errors=True)
    if bench.table.extra:
        print("\n" + "\n".join(bench.table.extra))
    if options.write:
        write(options.write, machine, bench.table)
    return 0


if __name__ == "__main__":
    sys.exit(main())
