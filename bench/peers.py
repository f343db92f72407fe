#!/usr/bin/env python3
"""Measures whole idle processes side by side on this machine: the agent's main process and one of its components beside
programs of the same kind from Debian, and how fast the agent starts, changes and stops.

Everything runs at the same time, so the rows share whatever else the machine does: compare ratios, not microseconds.
Needs root (control groups); starts no service; ends only what it started. See `peers.py --help`.
"""
import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
import urllib.request

NODE_PORT = 29123
COMPONENTS = ["TervaneMonitor", "TervaneUpdate", "QorHips", "QorNet", "QorWebGuard"]  # with the main process: six
GROUPS = "main:40:30720,guard:10:10240,collect-defense:60:92160"
SHARES = ",".join(
    f"{name}:{group}:{group}:{share}:{memory}"
    for name, group, share, memory in [
        ("Tervane", "main", 10000, 30720),
        ("TervaneMonitor", "collect-defense", 6000, 40960),
        ("TervaneUpdate", "guard", 5000, 10240),
        ("QorHips", "collect-defense", 5000, 20480),
        ("QorNet", "collect-defense", 5000, 10240),
        ("QorWebGuard", "collect-defense", 5000, 20480),
    ]
)
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


def read(path):
    try:
        with open(path) as file:
            return file.read()
    except OSError:
        return ""


class Figures:
    """What the kernel has counted of one process up to now."""

    def __init__(self, pid):
        self.cpu_ns = self.wakeups = self.threads = 0
        for task in os.listdir(f"/proc/{pid}/task"):
            spent = read(f"/proc/{pid}/task/{task}/schedstat").split()
            self.cpu_ns += int(spent[0]) if spent else 0
            switches = re.search(r"^voluntary_ctxt_switches:\s*(\d+)", read(f"/proc/{pid}/task/{task}/status"), re.M)
            self.wakeups += int(switches.group(1)) if switches else 0
            self.threads += 1
        rollup = read(f"/proc/{pid}/smaps_rollup")
        self.private_kib = sum(int(kib) for kib in re.findall(r"^Private_(?:Clean|Dirty):\s+(\d+) kB", rollup, re.M))
        self.dirty_kib = sum(int(kib) for kib in re.findall(r"^Private_Dirty:\s+(\d+) kB", rollup, re.M))
        self.fds = len(os.listdir(f"/proc/{pid}/fd"))
        maps = read(f"/proc/{pid}/maps")
        self.libraries = len({line.split()[-1] for line in maps.splitlines() if re.search(r"\.so(\.[0-9.]+)?$", line)})
        self.written = int((re.search(r"^write_bytes: (\d+)", read(f"/proc/{pid}/io"), re.M) or [0, 0])[1])


def system_calls(pid, seconds, log):
    """System calls and opens a second, of all threads, by strace."""
    if not shutil.which("strace"):
        return None, None
    subprocess.run(["timeout", "-s", "INT", str(seconds), "strace", "-f", "-qq", "-o", log, "-p", str(pid)],
                   stderr=subprocess.DEVNULL, check=False)
    calls = [line for line in read(log).splitlines() if "resumed>" not in line and "(" in line]
    opens = [line for line in calls if re.search(r"\bopen(at2?)?\(", line)]
    return len(calls) / seconds, len(opens) / seconds


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


class Agent:
    """The agent with idle components in a directory of its own."""

    def __init__(self, build, directory, source, built_in_table=False):
        self.bin = os.path.join(build, "bin")
        self.app = os.path.join(directory, "app")
        shutil.rmtree(self.app, ignore_errors=True)
        os.makedirs(os.path.join(self.app, "conf"), mode=0o750)
        config = read(os.path.join(source, "agent/conf/resource_config"))
        if not built_in_table:
            config += f"\ncgroup_groups = {GROUPS}\ncgroup_components = {SHARES}\n"
        self._write("resource_config", config)
        self._write("online_config.json", '{"osAbnormalSwitch": 1}\n')
        groups = {"TervaneUpdate": "guard"}
        self._write("components.json", json.dumps({"version": 1, "components": [
            {"name": name, "group": groups.get(name, "collect-defense")} for name in COMPONENTS]}))
        self.process = None

    def _write(self, name, text):
        path = os.path.join(self.app, "conf", name)
        with open(path + ".new", "w") as file:
            os.fchmod(file.fileno(), 0o640)
            file.write(text)
        os.rename(path + ".new", path)

    def status(self):
        answer = subprocess.run([os.path.join(self.bin, "tervanectl"), "--app-dir", self.app, "status", "--json"],
                                capture_output=True, text=True)
        try:
            return json.loads(answer.stdout)
        except ValueError:
            return {}

    def groups(self):
        """{group: (quota, processes)} of the tree, read from the kernel."""
        found = {}
        tree = None
        for line in read(f"/proc/{self.process.pid}/cgroup").splitlines():
            number, controllers, path = line.split(":", 2)
            if "cpu" in controllers.split(",") and "zel.agent" in path:
                tree = self._mount(controllers) + path[:path.index("/", path.index("zel.agent"))]
            elif number == "0" and "zel.agent" in path and os.path.exists(f"/sys/fs/cgroup{path}/cpu.max"):
                tree = "/sys/fs/cgroup" + path[:path.index("/", path.index("zel.agent"))]
        for folder, _, _ in os.walk(tree) if tree else []:
            quota = (read(folder + "/cpu.cfs_quota_us") or read(folder + "/cpu.max").split(" ")[0]).strip()
            found[folder[len(tree):]] = (quota, len(read(folder + "/cgroup.procs").split()))
        return found

    @staticmethod
    def _mount(controllers):
        for line in read("/proc/mounts").splitlines():
            fields = line.split()
            if fields[2] == "cgroup" and set(controllers.split(",")) <= set(fields[3].split(",")):
                return fields[1]
        return "/sys/fs/cgroup/" + controllers

    def in_force(self):
        leaves = [value for group, value in self.groups().items() if group.count("/") == 2]
        return sum(1 for quota, members in leaves if members and quota not in ("-1", "max", "")) == len(COMPONENTS) + 1

    def start(self, limit=60):
        log = open(os.path.join(os.path.dirname(self.app), "agent.log"), "w")
        began = time.monotonic()
        self.process = subprocess.Popen([os.path.join(self.bin, "tervane"), "--app-dir", self.app, "--load", "idle"],
                                        stdout=log, stderr=log, stdin=subprocess.DEVNULL, start_new_session=True)
        while not self.in_force():
            if self.process.poll() is not None or time.monotonic() - began > limit:
                raise SystemExit(f"peers: the agent's limits did not come into force, see {log.name}")
            time.sleep(0.005)
        return time.monotonic() - began

    def children(self):
        return [int(pid) for pid in read(f"/proc/{self.process.pid}/task/{self.process.pid}/children").split()]

    def change(self, value):
        """Online change to the last value in the kernel: seconds until every quota has stopped changing."""
        before = self.groups()
        self._write("online_config.json", json.dumps({"osAbnormalSwitch": 1, "groupMaxCpu": value}))
        began = last = time.monotonic()
        seen = before
        while time.monotonic() - began < 5:
            now = self.groups()
            if now != seen:
                last, seen = time.monotonic(), now
            time.sleep(0.005)
        return last - began if seen != before else None

    def stop(self):
        processes = self.children() + [self.process.pid]
        began = time.monotonic()
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()
        while any(os.path.exists(f"/proc/{pid}") for pid in processes):
            time.sleep(0.002)
        return time.monotonic() - began


def measure(processes, seconds):
    before = {name: Figures(pid) for name, pid in processes.items()}
    began = time.monotonic()
    time.sleep(seconds)
    after = {name: Figures(pid) for name, pid in processes.items()}
    took = time.monotonic() - began
    rows = {}
    for name, end in after.items():
        rows[name] = {
            "cpu_us_s": (end.cpu_ns - before[name].cpu_ns) / 1000 / took,
            "wakeups_s": (end.wakeups - before[name].wakeups) / took,
            "private_kib": end.private_kib, "dirty_kib": end.dirty_kib, "threads": end.threads, "fds": end.fds,
            "libraries": end.libraries, "written_bytes": end.written - before[name].written,
        }
    return rows


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


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="build directory with the agent (release flags)")
    parser.add_argument("--seconds", type=int, default=60, help="length of the window")
    parser.add_argument("--warm-up", type=int, default=13)
    parser.add_argument("--trace", type=int, default=20, help="seconds under strace for each process; 0: none")
    options = parser.parse_args()
    source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    directory = os.path.join(os.path.abspath(options.build), "peers")
    os.makedirs(directory, mode=0o750, exist_ok=True)
    peers = Peers(directory)
    agent = Agent(options.build, directory, source)
    spans = {}
    try:
        spans["start to limits in force, six processes"] = agent.start()
        peers.start()
        time.sleep(options.warm_up)
        components = agent.children()
        processes = dict(peers.alive())
        processes["our main process"] = agent.process.pid
        processes["our component"] = components[0]
        for number, pid in enumerate(components[1:], 2):
            processes[f"component {number}"] = pid
        rows = measure(processes, options.seconds)
        others = [name for name in rows if name.startswith("component ")]
        whole = sum(rows[name]["cpu_us_s"] for name in others + ["our main process", "our component"])
        for name in others:
            del rows[name]
        calls = {name: system_calls(processes[name], options.trace, os.path.join(directory, "strace.log"))
                 for name in rows} if options.trace else {}
        spans["online change to the last kernel value"] = agent.change(35)
        spans["SIGTERM to all gone"] = agent.stop()
    finally:
        if agent.process and agent.process.poll() is None:
            agent.process.terminate()
            agent.process.wait()
        peers.end()
    earlyoom = rows.get("earlyoom, 1 s", {}).get("cpu_us_s")
    oomd = rows.get("oomd, 1 s", {}).get("cpu_us_s")
    print("\n".join(table(rows, calls, earlyoom)))
    print(f"\nwhole agent, six processes: {whole:.0f} us/s" + (f", {whole / oomd:.2f} of one oomd" if oomd else ""))
    for name, value in spans.items():
        print(f"{name}: " + ("nothing changed" if value is None else f"{value:.3f} s"))
    for name in ["earlyoom, 1 s", "oomd, 1 s", "node exporter, scraped each second"]:
        if name not in rows:
            print(f"SKIP {name}: not installed or it ended at once (logs in {directory})")


if __name__ == "__main__":
    sys.exit(main())
