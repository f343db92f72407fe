"""Idle processes as the kernel counts them, and an agent started in a directory and a tree of groups of its own.

Shared by the benchmarks and by the gates of the tests. Touches /proc and /sys/fs/cgroup; ends only what it started.
"""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

COMPONENTS = ["TervaneMonitor", "TervaneUpdate", "QorHips", "QorNet", "QorWebGuard"]  # with the main process: six
GROUPS = "main:40:30720,guard:10:10240,collect-defense:60:92160"
CHANGE_SECONDS = 60  # until the first quota has changed; the built-in table leaves the main process 5.6 ms of CPU a second
REST_SECONDS = 5  # without one more change
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


def end_on_request():
    """A request to end ends what was started, too: without it no `finally` runs."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))


def keep_own_mounts():
    """The program begins anew in mounts of its own: after each change of them an agent compares its whole tree, and
    others on the machine mount too."""
    marked = "ZEL_OWN_MOUNTS"
    if os.geteuid() != 0 or os.environ.get(marked) or shutil.which("unshare") is None:
        return
    os.environ[marked] = "1"
    os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", "--", sys.executable, *sys.argv])


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


class Trace:
    """System calls and opens of some processes and all their threads over one span, by strace."""

    def __init__(self, processes, directory):
        self.logs = {name: os.path.join(directory, f"strace.{pid}") for name, pid in processes.items()}
        self.tracers = [subprocess.Popen(["strace", "-f", "-qq", "-o", self.logs[name], "-p", str(pid)],
                                         stderr=subprocess.DEVNULL) for name, pid in processes.items()]
        self.began = time.monotonic()

    def end(self, without=None):
        """{name: (calls a second, opens a second)}; none for a process that could not be traced. `without`: opens of
        paths that begin so do not count."""
        took = time.monotonic() - self.began
        found = {}
        for tracer in self.tracers:
            tracer.send_signal(signal.SIGINT)
            tracer.wait()
        for name, log in self.logs.items():
            # A call that was under way when the tracer came was not made in this span.
            calls = [line for line in read(log).splitlines()
                     if re.match(r"\d+ +\w+\(", line) and "resuming interrupted" not in line]
            opens = [line for line in calls if re.match(r"\d+ +open(at2?)?\(", line)
                     and not (without and f'"{without}' in line)]
            if calls:
                found[name] = (len(calls) / took, len(opens) / took)
        return found


def system_calls(processes, seconds, directory):
    """{name: (system calls a second, opens a second)}, all at the same time; none for what could not be traced."""
    if not shutil.which("strace"):
        return {}
    trace = Trace(processes, directory)
    time.sleep(seconds)
    return trace.end()


class Agent:
    """The agent with idle components in a directory and a tree of groups of its own."""

    def __init__(self, build, directory, source, built_in_table=False, environment=None, components=None,
                 load="idle"):
        components = components or COMPONENTS
        self.components = len(components)
        self.load = load
        self.bin = os.path.join(build, "bin")
        self.tree = f"zel.idle-{os.getpid()}"
        self.environment = dict(os.environ, ZEL_CGROUP_NAME=self.tree, **(environment or {}))
        self.app = os.path.join(directory, "app")
        shutil.rmtree(self.app, ignore_errors=True)
        os.makedirs(os.path.join(self.app, "conf"), mode=0o750)
        config = read(os.path.join(source, "agent/conf/resource_config"))
        if built_in_table:
            config = "".join(line for line in config.splitlines(True) if not line.startswith("cgroup_"))
        else:
            more = "".join(f",{name}:collect-defense:collect-defense:5000:10240" for name in components
                           if name not in COMPONENTS)
            config += f"\ncgroup_groups = {GROUPS}\ncgroup_components = {SHARES}{more}\n"
        self._write("resource_config", config)
        self._write("online_config.json", '{"osAbnormalSwitch": 1}\n')
        # Watched as in the sample, but a machine that stalls beside it is no part of what it costs.
        self._write("agent.json", '{"version": 1, "pressure": {"memory": 100, "io": 0}}\n')
        groups = {"TervaneUpdate": "guard"}
        self._write("components.json", json.dumps({"version": 1, "components": [
            {"name": name, "group": groups.get(name, "collect-defense"), "load": load} for name in components]}))
        self.process = None

    def _write(self, name, text):
        path = os.path.join(self.app, "conf", name)
        with open(path + ".new", "w") as file:
            os.fchmod(file.fileno(), 0o640)
            file.write(text)
        os.rename(path + ".new", path)

    def status(self, name="tervane"):
        answer = subprocess.run([os.path.join(self.bin, "tervanectl"), "--app-dir", self.app, "--name", name, "status",
                                 "--json"],
                                capture_output=True, text=True)
        try:
            return json.loads(answer.stdout)
        except ValueError:
            return {}

    def tree_directory(self):
        """Of the hierarchy that limits CPU; none while there is no tree."""
        tree = None
        for line in read(f"/proc/{self.process.pid}/cgroup").splitlines():
            number, controllers, path = line.split(":", 2)
            if "cpu" in controllers.split(",") and self.tree in path:
                tree = self._mount(controllers) + path[:path.index("/", path.index(self.tree))]
            elif number == "0" and self.tree in path and os.path.exists(f"/sys/fs/cgroup{path}/cpu.max"):
                tree = "/sys/fs/cgroup" + path[:path.index("/", path.index(self.tree))]
        return tree

    def groups(self):
        """{group: (quota, processes)} of the tree, read from the kernel."""
        found = {}
        tree = self.tree_directory()
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
        """Every process in its leaf, the limits written: a leaf of a group without a limit has none either."""
        none = ("-1", "max", "")
        groups = self.groups()
        leaves = [(quota, members, groups[group[:group.rindex("/")]][0]) for group, (quota, members) in groups.items()
                  if group.count("/") == 2]
        placed = [leaf for leaf in leaves if leaf[1] and (leaf[0] not in none or leaf[2] in none)]
        return len(placed) == self.components + 1 and groups.get("", ("", 0))[0] not in none

    def start(self, limit=60):
        log = open(os.path.join(os.path.dirname(self.app), "agent.log"), "w")
        began = time.monotonic()
        self.process = subprocess.Popen([os.path.join(self.bin, "tervane"), "--app-dir", self.app, "--load", self.load],
                                        stdout=log, stderr=log, stdin=subprocess.DEVNULL, start_new_session=True,
                                        env=self.environment)
        while not self.in_force():
            if self.process.poll() is not None or time.monotonic() - began > limit:
                said = (read(log.name).strip().splitlines() or ["nothing"])[-1]
                raise SystemExit(f"the agent's limits did not come into force; it said last: {said}")
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
        while time.monotonic() < (began + CHANGE_SECONDS if seen == before else last + REST_SECONDS):
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
