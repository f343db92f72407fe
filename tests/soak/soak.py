#!/usr/bin/env python3
"""The real agent through a long run of everything that may befall it, drawn from a seed; at the end nothing may have
grown. Befall it: changes of its configuration, good and bad; components killed, stopped for a while and out of memory;
limits and members changed by somebody else; a full disk; an endpoint for events that refuses, hangs or is gone; steps
of the wall clock by up to a day; the main process killed.

  soak.py [--build DIRECTORY] [--for SECONDS] [--seed NUMBER] [--planted LIBRARY] | --self-test

What is judged: of the main process and of a component that is left alive the private memory, descriptors and threads;
the groups of the tree; the databases. Each is read once a second. The slope is Theil and Sen's, the middle of the slopes
of all pairs of readings, so that spikes have no say; the growth that it means over the run has its bound in BOUNDS.
Then everything is set right: every message that was accepted has reached the file and the endpoint under one id, the
tree is as it was, and a stop leaves nothing. Needs root and room for a small file system in memory; ends with 77 where
that is not to be had. Without libfaketime the clock is not stepped, and the run says so. With --planted the library is
loaded into the agent's processes, and the run fails unless each kind of growth in PLANTED is seen in both.
"""
import argparse
import collections
import glob
import http.server
import json
import os
import random
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

sys.dont_write_bytecode = True  # nothing is left in the source tree
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(SOURCE, "bench"))
from processes import COMPONENTS, Agent, Figures, end_on_request, read  # noqa: E402

DISK_MB = 96
LEFT_ALONE = "QorWebGuard"  # whose series is judged; the others are killed
KILLS_EACH = 9  # within an hour a component may end twelve times before it has to wait
WARM_UP_SHARE = 0.25
CALM_SECONDS = 30
DAY = 86400
# Growth over the judged part that is still none: (share of the middle value, and so much besides).
BOUNDS = {"private_kib": (0.10, 128), "fds": (0.0, 2), "threads": (0.0, 1.5), "groups": (0.0, 0.9),
          "databases_kib": (0.0, 1024)}
# What the planted library makes grow.
PLANTED = ("private_kib", "fds", "threads")
FAKETIME = "/usr/lib/*/faketime/libfaketime.so.1"


def slope(points):
    """Theil and Sen's, a second; of at most a few hundred of the points."""
    points = points[::max(1, len(points) // 300)]
    pairs = [(b[1] - a[1]) / (b[0] - a[0]) for i, a in enumerate(points) for b in points[i + 1:] if b[0] > a[0]]
    return statistics.median(pairs) if pairs else 0.0


class Endpoint:
    """Takes messages over HTTP, or does not."""

    def __init__(self):
        self.mode = "takes"
        self.ids = collections.Counter()
        endpoint = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_POST(self):
                body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
                if endpoint.mode == "hangs":
                    time.sleep(8)
                if endpoint.mode == "takes":
                    endpoint.ids[json.loads(body)["id"]] += 1
                self.send_response(200 if endpoint.mode == "takes" else 503)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *_):
                pass

        self.handler = Handler
        self.server = None
        self.port = 0
        self.open()

    def open(self):
        if self.server is None:
            http.server.ThreadingHTTPServer.daemon_threads = True
            self.server = http.server.ThreadingHTTPServer(("127.0.0.1", self.port), self.handler)
            self.port = self.server.server_port
            threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def close(self):
        if self.server is not None:
            self.server.shutdown()
            self.server.server_close()
            self.server = None


class Soak:
    def __init__(self, options, directory):
        self.random = random.Random(options.seed)
        self.seconds = options.seconds
        self.directory = directory
        self.done = collections.Counter()
        self.kills = collections.Counter()
        self.series = collections.defaultdict(list)
        self.endpoint = Endpoint()
        self.clock = os.path.join(directory, "clock")
        self.faketime = (glob.glob(FAKETIME) or [None])[0]
        environment = {}
        if self.faketime:
            self.set_clock(0)
            environment = {"LD_PRELOAD": self.faketime, "FAKETIME_TIMESTAMP_FILE": self.clock, "FAKETIME_NO_CACHE": "1",
                           "DONT_FAKE_MONOTONIC": "1", "FAKETIME_XRESET": "1"}
        self.planted = options.planted
        if self.planted:
            environment["LD_PRELOAD"] = ":".join(filter(None, [environment.get("LD_PRELOAD"),
                                                               os.path.abspath(self.planted)]))
        self.agent = Agent(os.path.abspath(options.build), directory, SOURCE, environment=environment)
        self.set_sinks()

    # --- what befalls it ---

    def set_clock(self, seconds):
        with open(self.clock + ".new", "w") as file:
            file.write(f"{seconds:+d}s\n")
        os.rename(self.clock + ".new", self.clock)

    def write(self, name, text):
        """As the operator does; on a full disk it does not come about."""
        try:
            self.agent._write(name, text)
        except OSError:
            self.done["not written, disk full"] += 1

    def set_sinks(self, **more):
        """The endpoint stays configured: what is no longer has no claim to what comes meanwhile."""
        http = {"url": f"http://127.0.0.1:{self.endpoint.port}/", "timeout_ms": self.random.randint(500, 2000)}
        self.write("agent.json", json.dumps({"version": 1, "http": http, **more}))

    def children(self):
        """{name: pid} of the components that run."""
        found = {}
        for pid in self.agent.children():
            words = read(f"/proc/{pid}/cmdline").split("\0")
            if "--name" in words:
                found[words[words.index("--name") + 1]] = pid
        return found

    def victim(self):
        names = [name for name in self.children() if name != LEFT_ALONE and self.kills[name] < KILLS_EACH]
        return self.random.choice(names) if names else None

    def leaf(self, name, controller="cpu"):
        tree = self.agent.tree_directory() or ""
        if controller == "memory":
            tree = tree.replace("/cpu,cpuacct/", "/memory/").replace("/cpu/", "/memory/")
        return (glob.glob(f"{tree}/*/{name}") or [None])[0] if tree else None

    def config(self):
        values = {"osAbnormalSwitch": 1}
        for key, low, high in [("groupMaxCpu", 10, 60), ("maxCpu", 10, 100), ("groupMaxMemory", 150, 400),
                               ("maxMemory", 150, 400), ("maxFdCount", 500, 2000), ("osAbnormalReportInterval", 1, 200)]:
            if self.random.random() < 0.4:
                values[key] = self.random.randint(low, high)
        self.write("online_config.json", json.dumps(values))

    def bad_config(self):
        self.write("online_config.json", self.random.choice(["{", '{"maxCpu": 90000}', '{"wrong": 1}', "[]", ""]))

    def kill(self):
        name = self.victim()
        if name:
            self.kills[name] += 1
            os.kill(self.children()[name], signal.SIGKILL)

    def pause(self):
        name = self.victim()
        if name:
            pid = self.children()[name]
            os.kill(pid, signal.SIGSTOP)
            time.sleep(self.random.uniform(1, 4))
            os.kill(pid, signal.SIGCONT)

    def out_of_memory(self):
        """Something that a component has started takes more than its leaf may have."""
        name = self.victim()
        if name:
            self.kills[name] += 1  # the kernel may choose the component itself
            eater = [sys.executable, "-c", "text = 'x' * (200 << 20)"]
            subprocess.run([os.path.join(self.agent.bin, "tervane"), "--app-dir", self.agent.app, "--exec", "--name", name,
                            *eater], env=self.agent.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                           timeout=60)

    def spoil_quota(self):
        leaf = self.leaf(self.random.choice(COMPONENTS))
        quota = leaf and os.path.join(leaf, "cpu.max" if os.path.exists(leaf + "/cpu.max") else "cpu.cfs_quota_us")
        if quota:
            with open(quota, "w") as file:
                file.write(str(self.random.randint(2000, 50000)))

    def move_member(self):
        name = self.random.choice(COMPONENTS)
        leaf, pid = self.leaf(name), self.children().get(name)
        if leaf and pid:
            with open(os.path.join(os.path.dirname(leaf), "cgroup.procs"), "w") as file:
                file.write(str(pid))

    def full_disk(self):
        filler = os.path.join(self.directory, "filler")
        try:
            with open(filler, "wb", buffering=0) as file:
                while True:
                    file.write(b"x" * 65536)
        except OSError:
            pass
        time.sleep(self.random.uniform(2, 8))
        os.remove(filler)

    def outage(self):
        way = self.random.choice(["refuses", "hangs", "gone"])
        if way == "gone":
            self.endpoint.close()
        else:
            self.endpoint.mode = way
        time.sleep(self.random.uniform(2, 10))
        self.endpoint.mode = "takes"
        self.endpoint.open()

    def sinks(self):
        self.set_sinks(**self.random.choice([{}, {"textfile": {"path": os.path.join(self.agent.app, "a.prom")}}]))

    def clock_step(self):
        if self.faketime:
            self.set_clock(self.random.choice([1, 60, 3600, DAY, -1, -60, -3600, -DAY, 0]))

    def ask(self):
        for name in ["tervane", *COMPONENTS]:
            self.agent.status(name)

    def main_killed(self):
        self.agent.process.kill()
        self.agent.process.wait()
        while any(self.alive(name) for name in COMPONENTS):
            time.sleep(0.1)
        self.agent.start(120)

    def alive(self, name):
        return any(f"--app-dir\0{self.agent.app}\0" in text and f"--name\0{name}\0" in text
                   for text in (read(path) for path in glob.glob("/proc/[0-9]*/cmdline")))

    # --- what is judged ---

    def sample(self, at):
        children = self.children()
        for label, pid in [("main", self.agent.process.pid), (LEFT_ALONE, children.get(LEFT_ALONE))]:
            try:
                now = Figures(pid)
            except (OSError, TypeError):
                continue
            for key in ("private_kib", "fds", "threads"):
                self.series[label, key].append((at, getattr(now, key)))
        self.series["tree", "groups"].append((at, len(self.agent.groups())))
        size = sum(os.path.getsize(path) for folder in ("spool", "data") for path in
                   glob.glob(os.path.join(self.agent.app, folder, "*")) if os.path.exists(path) and
                   ".corrupt" not in path)
        self.series["disk", "databases_kib"].append((at, size / 1024))

    @staticmethod
    def judge(series, seconds):
        """What grew beyond its bound."""
        wrong = []
        for (label, key), points in sorted(series.items()):
            points = [point for point in points if point[0] >= seconds * WARM_UP_SHARE]
            if len(points) < 20:
                wrong.append(f"{label} {key}: {len(points)} readings are too few")
                continue
            middle = statistics.median(value for _, value in points)
            growth = slope(points) * (points[-1][0] - points[0][0])
            share, besides = BOUNDS[key]
            bound = share * middle + besides
            print(f"{label} {key}: middle {middle:.0f}, from {points[0][1]:.0f} to {points[-1][1]:.0f}, growth by slope "
                  f"{growth:+.1f} of at most {bound:.1f} in {points[-1][0] - points[0][0]:.0f} s")
            if growth > bound:
                wrong.append(f"{label} {key} grew by {growth:.1f}")
        return wrong

    @staticmethod
    def unseen(wrong):
        """Of the growth that was planted, what the verdict does not name."""
        print("\n".join(wrong))
        wanted = [f"{label} {key}" for label in ("main", LEFT_ALONE) for key in PLANTED]
        return [f"{each} was made to grow, and it was not seen" for each in wanted
                if not any(line.startswith(each + " grew by") for line in wrong)]

    def waiting(self):
        """Messages of every process that have not reached a sink."""
        total = 0
        for name in ["tervane", *COMPONENTS]:
            delivery = find(self.agent.status(name), "sinks")
            total += sum(sink.get("waiting", 0) for sink in delivery) if delivery else 1
        return total

    def judge_events(self):
        end = time.monotonic() + 120
        while self.waiting() > 0 and time.monotonic() < end:
            time.sleep(1)
        wrong = [] if self.waiting() == 0 else ["messages wait although every sink takes them"]
        written = collections.Counter()
        for path in glob.glob(os.path.join(self.agent.app, "log", "*.events.jsonl*")):
            for line in read(path).splitlines():
                written[json.loads(line)["id"]] += 1
        only_file = set(written) - set(self.endpoint.ids)
        only_endpoint = set(self.endpoint.ids) - set(written)
        print(f"{len(written)} messages in the files, {len(self.endpoint.ids)} at the endpoint; delivered again: "
              f"{sum(written.values()) - len(written)} and {sum(self.endpoint.ids.values()) - len(self.endpoint.ids)}")
        if only_file:
            wrong.append(f"{len(only_file)} messages never reached the endpoint, {sorted(only_file)[0]} for one")
        if only_endpoint:
            wrong.append(f"{len(only_endpoint)} messages are in no file, {sorted(only_endpoint)[0]} for one")
        if len(written) < 10:
            wrong.append(f"only {len(written)} messages came: too little befell it")
        return wrong

    # --- the run ---

    def run(self):
        self.agent.start(120)
        befall = [(self.config, 6), (self.bad_config, 2), (self.kill, 3), (self.pause, 2), (self.out_of_memory, 2),
                  (self.spoil_quota, 5), (self.move_member, 4), (self.full_disk, 2), (self.outage, 3), (self.sinks, 2),
                  (self.clock_step, 3 if self.faketime else 0), (self.ask, 4)]
        before = set(self.agent.groups())
        stop = threading.Event()
        began = time.monotonic()
        failures = []

        def watch():
            while not stop.wait(1):
                try:
                    self.sample(time.monotonic() - began)
                except (OSError, ValueError) as error:
                    failures.append(error)

        watcher = threading.Thread(target=watch, daemon=True)
        killed = False
        watcher.start()
        try:
            while time.monotonic() - began < self.seconds:
                if not killed and time.monotonic() - began > self.seconds * WARM_UP_SHARE / 2:
                    killed = True
                    what = self.main_killed
                else:
                    what, = self.random.choices([one for one, _ in befall], [weight for _, weight in befall])
                try:
                    what()
                    self.done[what.__name__] += 1
                except (OSError, subprocess.TimeoutExpired):  # gone meanwhile, or the kernel does not take the value
                    self.done[f"{what.__name__} in vain"] += 1
                if self.agent.process.poll() is not None:
                    return [f"the main process ended with status {self.agent.process.returncode}"]
                time.sleep(self.random.uniform(0, 2))
        finally:
            stop.set()
            watcher.join()
        print("befell it: " + ", ".join(f"{name} {count}" for name, count in sorted(self.done.items())))
        if failures:
            print(f"{len(failures)} readings failed, the last with: {failures[-1]}")
        if self.planted:
            return self.unseen(self.judge(self.series, self.seconds))
        self.set_clock(0)
        self.write("online_config.json", '{"osAbnormalSwitch": 1}\n')
        self.set_sinks()
        time.sleep(CALM_SECONDS)
        wrong = self.judge(self.series, self.seconds) + self.judge_events()
        if set(self.agent.groups()) != before:
            wrong.append(f"groups that were not there before or are gone: {sorted(set(self.agent.groups()) ^ before)}")
        if not self.agent.in_force():
            wrong.append("not every process is in its leaf with its limits")
        tree = self.agent.tree_directory()
        self.agent.stop()
        if tree and os.path.exists(tree):
            wrong.append(f"{tree} is left")
        return wrong


def self_test():
    """Whether the verdict notices what grows, in each quantity, and only that."""
    seconds, noise = 300, random.Random(1)
    failed = 0
    for key, (share, besides) in BOUNDS.items():
        flat = [(at, 700 + (400 if at % 9 == 0 else noise.uniform(-0.4, 0.4))) for at in range(seconds)]
        leak = 2 * (share * 700 + besides) / (seconds * (1 - WARM_UP_SHARE))
        grows = [(at, value + leak * at) for at, value in flat]
        warms_up = [(at, value - max(0, 60 - at) * 5) for at, value in flat]
        for series, expected in [(flat, 0), (warms_up, 0), (grows, 1), (flat[:60], 1)]:
            if len(Soak.judge({("it", key): series}, seconds)) != expected:
                print(f"FAILED: {key}: {expected} verdicts expected")
                failed = 1
    return failed


def find(value, key):
    """The first member of that name in nested objects."""
    if isinstance(value, dict):
        if key in value:
            return value[key]
        for each in value.values():
            found = find(each, key)
            if found is not None:
                return found
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/dev")
    parser.add_argument("--for", dest="seconds", type=int, default=600)
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(4), "big"))
    parser.add_argument("--planted", metavar="LIBRARY", help="a library that makes the agent grow: is it seen?")
    parser.add_argument("--self-test", action="store_true", help="only whether growth would be noticed")
    options = parser.parse_args()
    if options.self_test:
        return self_test()
    if os.geteuid() != 0:
        print("SKIP: needs root: control groups are made")
        return 77
    end_on_request()
    directory = tempfile.mkdtemp(prefix="soak.", dir=os.path.abspath(options.build))
    if subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={DISK_MB}m,mode=755", "soak", directory]).returncode != 0:
        print("SKIP: no file system may be mounted")
        os.rmdir(directory)
        return 77
    soak = Soak(options, directory)
    print(f"seed {options.seed}, {options.seconds} s" + ("" if soak.faketime else "; no libfaketime: no steps of the clock"),
          flush=True)
    wrong = ["it did not come to its end"]
    try:
        wrong = soak.run()
    finally:
        if soak.agent.process and soak.agent.process.poll() is None:
            soak.agent.stop()
        soak.endpoint.close()
        if wrong:
            kept = directory + ".log"
            shutil.copytree(os.path.join(soak.agent.app, "log"), kept, dirs_exist_ok=True)
            print(f"its log is kept in {kept}")
        subprocess.run(["umount", "-l", directory])
        os.rmdir(directory)
    print("\n".join(f"seed {options.seed}: {what}" for what in wrong) or f"seed {options.seed}: " + (
        "what was planted is seen" if options.planted else "nothing grew"))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
