#!/usr/bin/env python3
"""The agent on a starved host: every processor burned by programs of others in groups of their own, every process of
the agent busy at its own quota. Prints how many sampling rounds fell out, how long a spoiled limit stands until the
keeper repairs it, and how long the console's status takes; says which of them is beyond what is promised.

  starved.py [--build DIRECTORY] [--seconds N] [--drifts N] [--quiet]

--quiet: the same figures without burners and without load, to compare with. Needs root; ends only what it started.
"""
import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # nothing is left in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from processes import COMPONENTS, Agent, end_on_request, read  # noqa: E402
from rows import SOURCE  # noqa: E402

SAMPLER = "ResourceMonitor"  # its thread's name
RHYTHM_SECONDS = 5  # of the keeper
MISSED_SHARE = 0.01
RHYTHMS = 3
STATUS_SECONDS = 1.0
BURNERS_A_PROCESSOR = 2


class Burners:
    """Endless loops at the usual priority, each in a group of its own beside the agent's."""

    def __init__(self, number):
        mount = Agent._mount("cpu")
        self.root = mount if os.path.isdir(mount) else "/sys/fs/cgroup"
        self.groups = []
        self.processes = []
        for index in range(number):
            process = subprocess.Popen([sys.executable, "-c", "while True: pass"])
            self.processes.append(process)
            group = os.path.join(self.root, f"zel.burn-{os.getpid()}-{index}")
            try:
                os.mkdir(group)
                self.groups.append(group)
                with open(os.path.join(group, "cgroup.procs"), "w") as file:
                    file.write(str(process.pid))
            except OSError as error:
                print(f"a burner stays in this program's group: {error}")

    def end(self):
        for process in self.processes:
            process.kill()
            process.wait()
        for group in self.groups:
            for _ in range(100):
                try:
                    os.rmdir(group)
                    break
                except OSError:
                    time.sleep(0.02)


def sampler_of(status):
    """The part of a status, itself included, that has the sampler's figures; empty when there is none."""
    if "rounds" in status and "cpu_total_ns" in status:
        return status
    parts = [sampler_of(part) for part in status.values() if isinstance(part, dict)]
    return next((part for part in parts if part), {})


def rounds(agent):
    """{process: (rounds made, when that was asked)}"""
    found = {}
    for name in ["tervane"] + COMPONENTS:
        asked = time.monotonic()
        sampler = sampler_of(agent.status(name))
        if sampler:
            found[name] = (sampler["rounds"], (asked + time.monotonic()) / 2)
        else:
            print(f"{name}: no status")
    return found


def waited_ms(agent):
    """{process: how long its sampler was ready and did not get a processor, in all}"""
    found = {}
    for pid in [agent.process.pid] + agent.children():
        name = (re.search(rb"--name\0([^\0]+)", open(f"/proc/{pid}/cmdline", "rb").read()) or [b"", b"tervane"])[1]
        for task in os.listdir(f"/proc/{pid}/task"):
            if read(f"/proc/{pid}/task/{task}/comm").strip() == SAMPLER:
                found[name.decode()] = int(read(f"/proc/{pid}/task/{task}/schedstat").split()[1]) / 1e6
    return found


def repair_seconds(agent, drifts):
    """How long a foreign quota stands in a component's leaf, each time."""
    times = []
    leaf = os.path.join(agent.tree_directory(), "collect-defense", "QorNet")
    quota = os.path.join(leaf, "cpu.cfs_quota_us")
    if not os.path.exists(quota):
        quota = os.path.join(leaf, "cpu.max")
    for number in range(drifts):
        wanted = read(quota)
        with open(quota, "w") as file:
            file.write(str(3000 + 100 * number) + (" 100000" if quota.endswith("max") else ""))
        began = time.monotonic()
        while read(quota) != wanted and time.monotonic() - began < 60:
            time.sleep(0.01)
        times.append(time.monotonic() - began)
        time.sleep(1 + number % RHYTHM_SECONDS)
    return times


def status_seconds(agent, times):
    took = []
    for _ in range(times):
        began = time.monotonic()
        answered = bool(agent.status())
        took.append(time.monotonic() - began if answered else float("inf"))
        time.sleep(0.5)
    return took


def throttled(agent):
    """{leaf: (periods with work, of these throttled)}"""
    found = {}
    tree = agent.tree_directory()
    for folder, _, _ in os.walk(tree):
        figures = dict(line.split() for line in read(folder + "/cpu.stat").splitlines() if len(line.split()) == 2)
        found[folder[len(tree):] or "/"] = (int(figures.get("nr_periods", 0)), int(figures.get("nr_throttled", 0)))
    return found


def report(agent, options):
    before = rounds(agent)
    waits = waited_ms(agent)
    periods = throttled(agent)
    time.sleep(options.seconds)
    after = rounds(agent)
    waited = waited_ms(agent)
    wrong = [] if len(after) == len(COMPONENTS) + 1 else ["not every process gave its status"]
    for name in sorted(set(before) & set(after)):
        made = after[name][0] - before[name][0]
        span = after[name][1] - before[name][1]
        # Two moments lie within a round each: one round more or less is not known.
        missed = max(0.0, (span - 1 - made) / span)
        wait = (waited.get(name, 0) - waits.get(name, 0)) / max(made, 1)
        print(f"{name}: {made} rounds in {span:.1f} s, {100 * missed:.1f} % missed; ready without a processor for "
              f"{wait:.0f} ms a round")
        if missed > MISSED_SHARE:
            wrong.append(f"{name} missed {100 * missed:.1f} % of its rounds")
    for leaf, (total, held) in sorted(throttled(agent).items()):
        first = periods.get(leaf, (0, 0))
        print(f"  {leaf}: {held - first[1]} of {total - first[0]} periods throttled")
    repairs = repair_seconds(agent, options.drifts)
    print("a spoiled limit stood: " + ", ".join(f"{value:.1f}" for value in repairs) +
          f" s (the rhythm is {RHYTHM_SECONDS} s)")
    if max(repairs) > RHYTHMS * RHYTHM_SECONDS:
        wrong.append(f"a spoiled limit stood {max(repairs):.1f} s")
    answers = status_seconds(agent, 20)
    print(f"status: middle {statistics.median(answers):.2f} s, longest {max(answers):.2f} s")
    if max(answers) > STATUS_SECONDS:
        wrong.append(f"a status took {max(answers):.2f} s")
    return wrong


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="build directory with release flags")
    parser.add_argument("--seconds", type=int, default=120)
    parser.add_argument("--drifts", type=int, default=6)
    parser.add_argument("--quiet", action="store_true")
    options = parser.parse_args()
    end_on_request()
    if os.geteuid() != 0:
        sys.exit("starved: needs root: control groups are made")
    build = os.path.abspath(options.build)
    directory = tempfile.mkdtemp(prefix="starved.", dir=build)
    agent = Agent(build, directory, SOURCE, load="idle" if options.quiet else "greedy:1")
    burners = None
    try:
        agent.start(120)
        if not options.quiet:
            burners = Burners(BURNERS_A_PROCESSOR * os.cpu_count())
        time.sleep(10)
        wrong = report(agent, options)
    finally:
        if burners:
            burners.end()
        if agent.process and agent.process.poll() is None:
            agent.stop()
        shutil.rmtree(directory, ignore_errors=True)
    print("\n".join(f"beyond what is promised: {what}" for what in wrong) or "all of it is as promised")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
