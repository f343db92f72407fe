#!/usr/bin/env python3
"""Measures whole idle processes side by side on this machine: the agent's main process and one of its components beside
programs of the same kind from Debian, and how fast the agent starts, changes and stops.

Everything runs at the same time, so the rows share whatever else the machine does: compare ratios, not microseconds.
Needs root (control groups); starts no service; ends only what it started. See `peers.py --help`.
"""
import argparse
import json
import os
import shutil
import subprocess
import sys
import threading
import time
import urllib.request

sys.dont_write_bytecode = True  # nothing is left in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from processes import Agent, Figures, end_on_request, measure, read, system_calls  # noqa: E402,F401

NODE_PORT = 29123
# oomd without a kill: the smallest rule set that reads what the packaged one reads.
OOMD_RULES = {
    "rulesets": [
        {
            "name": "watch",
            "detectors": [["pressure", {"name": "pressure_above", "args": {
                "cgroup": "*", "resource": "memory", "threshold": "60", "duration": "30"}}]],
            "actions": [{"name": "continue", "args": {}}],
        }
    ]
}


class Peers:
    def __init__(self, directory):
        self.started = {}
        self.directory = directory
        self.stop = threading.Event()
        self.scraper = None

    def start(self):
        if shutil.which("earlyoom"):
            self._run("earlyoom, 1 s", ["earlyoom", "--dryrun", "-r", "3600"])
        rules = os.path.join(self.directory, "oomd.json")
        with open(rules, "w") as file:
            json.dump(OOMD_RULES, file)
        unified = "/sys/fs/cgroup/unified" if os.path.isdir("/sys/fs/cgroup/unified") else "/sys/fs/cgroup"
        oomd = shutil.which("oomd") or shutil.which("oomd_bin")
        if oomd:
            self._run("oomd, 1 s", [oomd, "--config", rules, "--interval", "1", "--cgroup-fs", unified])
        node = shutil.which("prometheus-node-exporter")
        if node:
            collectors = [f"--collector.{name}" for name in ["meminfo", "vmstat", "pressure", "filesystem", "stat"]]
            self._run("node exporter, scraped each second",
                      [node, "--collector.disable-defaults", f"--web.listen-address=127.0.0.1:{NODE_PORT}"] + collectors)
            self.scraper = threading.Thread(target=self._scrape)
            self.scraper.start()

    def start_floor(self, build):
        """As little as the figures of a round can be had for, each second."""
        program = os.path.join(build, "bin/BenchSamplingRound")
        if os.path.exists(program):
            self._run("floor program, 1 s", [program, "floor", "1000"])

    def _run(self, name, command):
        log = open(os.path.join(self.directory, name.split(",")[0].replace(" ", "-") + ".log"), "w")
        self.started[name] = subprocess.Popen(command, stdout=log, stderr=log, stdin=subprocess.DEVNULL,
                                              start_new_session=True)

    def _scrape(self):
        while not self.stop.wait(1):
            try:
                urllib.request.urlopen(f"http://127.0.0.1:{NODE_PORT}/metrics", timeout=1).read()
            except OSError:
                pass

    def alive(self):
        return {name: process.pid for name, process in self.started.items() if process.poll() is None}

    def end(self):
        self.stop.set()
        if self.scraper:
            self.scraper.join()
        for process in self.started.values():
            if process.poll() is None:
                process.terminate()
                process.wait()


def table(rows, calls, base):
    lines = ["| process | CPU us/s | beside earlyoom | wake-ups/s | private KiB | dirty KiB | threads | fds | libraries | calls/s | opens/s | bytes written |",
             "|---|---|---|---|---|---|---|---|---|---|---|---|"]
    for name, row in rows.items():
        ratio = f"{row['cpu_us_s'] / base:.2f}" if base else "-"
        count, opens = calls.get(name, (None, None))
        lines.append(f"| {name} | {row['cpu_us_s']:.0f} | {ratio} | {row['wakeups_s']:.1f} | {row['private_kib']} | "
                     f"{row['dirty_kib']} | {row['threads']} | {row['fds']} | {row['libraries']} | "
                     f"{'-' if count is None else f'{count:.1f}'} | {'-' if opens is None else f'{opens:.1f}'} | "
                     f"{row['written_bytes']} |")
    return lines


def compare(build, source, directory, seconds=60, warm_up=13, trace=20):
    """One run of the agent, the floor program and the peers.
    Returns: figures by process, (calls, opens) by process, CPU us/s and bytes written of the whole agent, spans."""
    peers = Peers(directory)
    agent = Agent(build, directory, source)
    spans = {}
    try:
        spans["start"] = agent.start()
        peers.start()
        peers.start_floor(build)
        time.sleep(warm_up)
        components = agent.children()
        processes = dict(peers.alive())
        processes["our main process"] = agent.process.pid
        processes["our component"] = components[0]
        for number, pid in enumerate(components[1:], 2):
            processes[f"component {number}"] = pid
        rows = measure(processes, seconds)
        others = [name for name in rows if name.startswith("component ")]
        ours = others + ["our main process", "our component"]
        whole = {key: sum(rows[name][key] for name in ours) for key in ["cpu_us_s", "written_bytes"]}
        for name in others:
            del rows[name]
        calls = system_calls({name: processes[name] for name in rows}, trace, directory) if trace else {}
        spans["change"] = agent.change(35)
        spans["stop"] = agent.stop()
    finally:
        if agent.process and agent.process.poll() is None:
            agent.stop()
        peers.end()
    return rows, calls, whole, spans


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="build directory with the agent (release flags)")
    parser.add_argument("--seconds", type=int, default=60, help="length of the window")
    parser.add_argument("--warm-up", type=int, default=13)
    parser.add_argument("--trace", type=int, default=20, help="seconds under strace; 0: none")
    options = parser.parse_args()
    end_on_request()
    source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    directory = os.path.join(os.path.abspath(options.build), "peers")
    os.makedirs(directory, mode=0o750, exist_ok=True)
    rows, calls, whole, spans = compare(options.build, source, directory, options.seconds, options.warm_up,
                                        options.trace)
    earlyoom = rows.get("earlyoom, 1 s", {}).get("cpu_us_s")
    oomd = rows.get("oomd, 1 s", {}).get("cpu_us_s")
    print("\n".join(table(rows, calls, earlyoom)))
    print(f"\nwhole agent, six processes: {whole['cpu_us_s']:.0f} us/s" +
          (f", {whole['cpu_us_s'] / oomd:.2f} of one oomd" if oomd else ""))
    for name, value in spans.items():
        print(f"{name}: " + ("nothing changed" if value is None else f"{value:.3f} s"))
    for name in ["earlyoom, 1 s", "oomd, 1 s", "node exporter, scraped each second"]:
        if name not in rows:
            print(f"SKIP {name}: not installed or it ended at once (logs in {directory})")


if __name__ == "__main__":
    sys.exit(main())
