"""A broker of a test's own, and a client that speaks its text protocol with the credentials that a host gets."""
import base64
import contextlib
import json
import os
import random
import re
import shutil
import signal
import socket
import ssl
import subprocess
import time
import urllib.request

from cryptography.hazmat.primitives.asymmetric import ed25519

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXAMPLES = os.path.join(ROOT, "packaging", "fleet")
PATIENCE_SECONDS = 60
# An attempt that was lost on its way through three brokers stands in the way of the next one for so long.
DUPLICATE_SECONDS = 2


def free_port():
    """One that no outgoing connection is given: a broker that was killed has to find it free again."""
    with open("/proc/sys/net/ipv4/ip_local_port_range") as file:
        first = int(file.read().split()[0])
    while True:
        with socket.socket() as probe, contextlib.suppress(OSError):
            probe.bind(("127.0.0.1", random.randrange(10000, max(first, 20000))))
            return probe.getsockname()[1]


class Broker:
    """An example configuration on ports and in a directory of its own."""

    def __init__(self, directory, fleet, server="b1", program="nats-server", example="one-broker.conf", changes=None,
                 memory="256MiB"):
        self.port, self.http, self.process, self.program = free_port(), free_port(), None, program
        self.directory, self.log = directory, os.path.join(directory, "broker.log")
        self.config, self.memory = os.path.join(directory, "broker.conf"), memory
        with open(os.path.join(EXAMPLES, example)) as file:
            text = file.read()
        changes = {"0.0.0.0:4222": f"127.0.0.1:{self.port}", "127.0.0.1:8222": f"127.0.0.1:{self.http}",
                   "/var/lib/nats": os.path.join(directory, "store"), "20GB": "2GB",
                   "server_name: b1": f"server_name: {server}",
                   "/etc/nats/b1": os.path.join(fleet, "tls", server), **(changes or {})}
        for old, new in changes.items():
            if old not in text:
                raise AssertionError(f"the example has no {old}")
            text = text.replace(old, new)
        with open(self.config, "w") as file:
            file.write(text)
        self.fleet = fleet
        self.take_auth()

    def take_auth(self):
        shutil.copy(os.path.join(self.fleet, "auth.conf"), os.path.join(self.directory, "auth.conf"))

    def start(self):
        self.launch()
        return self.wait_ready()

    def launch(self):
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen([self.program, "-c", self.config], stdout=log, stderr=log,
                                            env=dict(os.environ, GOMAXPROCS="2", GOMEMLIMIT=self.memory))

    def wait_ready(self):
        end = time.monotonic() + PATIENCE_SECONDS
        while time.monotonic() < end:
            try:
                with urllib.request.urlopen(f"http://127.0.0.1:{self.http}/healthz", timeout=5) as answer:
                    if answer.status == 200:
                        return self
            except OSError:
                time.sleep(0.05)
            if self.process.poll() is not None:
                break
        with open(self.log) as log:
            said = "".join(line for line in log if "Healthcheck failed" not in line)
            raise AssertionError("the broker does not start: " + said[-4000:])

    def figures(self, path):
        """What the broker says of itself at its port for that."""
        with urllib.request.urlopen(f"http://127.0.0.1:{self.http}/{path}", timeout=5) as answer:
            return json.load(answer)

    def reload(self):
        before = self.count("Reloaded server configuration")
        self.process.send_signal(signal.SIGHUP)
        end = time.monotonic() + PATIENCE_SECONDS
        while self.count("Reloaded server configuration") == before:
            if time.monotonic() > end or self.count("Failed to reload"):
                raise AssertionError(f"the broker did not reload: {self.log}")
            time.sleep(0.05)

    def count(self, text):
        with open(self.log) as log:
            return log.read().count(text)

    def stop(self, hard=False):
        if self.process is not None:
            self.process.send_signal(signal.SIGKILL if hard else signal.SIGTERM)
            self.process.wait()
            self.process = None


class Refused(Exception):
    """What the broker said when it let the client not in."""


class Credentials:
    def __init__(self, path):
        with open(path) as file:
            text = file.read()
        self.token = re.search(r"BEGIN NATS USER JWT-+\n(\S+)", text).group(1)
        seed = re.search(r"BEGIN USER NKEY SEED-+\n(\S+)", text).group(1)
        raw = base64.b32decode(seed + "=" * (-len(seed) % 8))
        self.key = ed25519.Ed25519PrivateKey.from_private_bytes(raw[2:34])
        claims = self.token.split(".")[1]
        self.claims = json.loads(base64.urlsafe_b64decode(claims + "=" * (-len(claims) % 4)))

    def sign(self, nonce):
        return base64.urlsafe_b64encode(self.key.sign(nonce.encode())).rstrip(b"=").decode()


class Client:
    """One connection. Every call reads until the broker has answered it: PING and PONG keep the order."""

    def __init__(self, port, authority, credentials, address="127.0.0.1", plain=False):
        raw = socket.create_connection((address, port), timeout=PATIENCE_SECONDS)
        try:
            self.info = json.loads(self._first_line(raw)[5:])
            if not plain:
                context = ssl.create_default_context(cafile=authority)
                context.verify_flags |= ssl.VERIFY_X509_STRICT  # as newer Pythons do of themselves
                raw = context.wrap_socket(raw, server_hostname=address)
        except BaseException:
            raw.close()
            raise
        self.socket, self.buffer, self.errors, self.messages, self.sid = raw, b"", [], [], 0
        self.name = credentials.claims["name"]
        connect = {"verbose": False, "pedantic": False, "headers": True, "no_responders": True, "lang": "test",
                   "version": "1", "protocol": 1, "tls_required": not plain, "jwt": credentials.token,
                   "sig": credentials.sign(self.info["nonce"])}
        self.send(b"CONNECT " + json.dumps(connect).encode() + b"\r\n")
        self.sync()

    @staticmethod
    def _first_line(raw):
        line = b""
        while not line.endswith(b"\r\n"):  # a byte at a time: what follows is not ours but TLS
            byte = raw.recv(1)
            if not byte:
                raise Refused("closed at once")
            line += byte
        return line.decode()

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, data):
        try:
            self.socket.sendall(data)
        except OSError as error:
            raise Refused(str(error)) from error

    def _fill(self):
        try:
            data = self.socket.recv(1 << 16)
        except OSError as error:
            raise Refused(str(error)) from error
        if not data:
            raise Refused("; ".join(self.errors) or "closed")
        self.buffer += data

    def _line(self):
        while b"\r\n" not in self.buffer:
            self._fill()
        line, self.buffer = self.buffer.split(b"\r\n", 1)
        return line.decode()

    def _bytes(self, length):
        while len(self.buffer) < length + 2:
            self._fill()
        data, self.buffer = self.buffer[:length], self.buffer[length + 2:]
        return data

    def _step(self):
        line = self._line()
        word, _, rest = line.partition(" ")
        if word == "PING":
            self.send(b"PONG\r\n")
        elif word == "-ERR":
            self.errors.append(rest)
        elif word in ("MSG", "HMSG"):
            parts = rest.split()
            head = int(parts[-2]) if word == "HMSG" else 0
            data = self._bytes(int(parts[-1]))
            self.messages.append((parts[0], data[:head].decode(), data[head:]))
        return word

    def sync(self):
        """Until everything sent so far was worked on. Returns: the errors that came, which are forgotten with that."""
        self.send(b"PING\r\n")
        while self._step() != "PONG":
            pass
        errors, self.errors = self.errors, []
        return errors

    def receive(self, number):
        """Waits until as many messages are there, and takes them."""
        while len(self.messages) < number:
            self._step()
        messages, self.messages = self.messages, []
        return messages

    def subscribe(self, subject):
        self.sid += 1
        self.send(f"SUB {subject} {self.sid}\r\n".encode())
        return self.sync()

    def publish(self, subject, data=b"", reply="", headers=None):
        head = "".join(f"{key}: {value}\r\n" for key, value in (headers or {}).items())
        if head:
            head = "NATS/1.0\r\n" + head + "\r\n"
            sizes = f"{len(head)} {len(head) + len(data)}"
        self.send(f"{'HPUB' if head else 'PUB'} {subject} {reply + ' ' if reply else ''}"
                   f"{sizes if head else len(data)}\r\n{head}".encode() + data + b"\r\n")
        return self.sync()

    def request(self, subject, data=b"", headers=None):
        """Returns: (headers, body), or (None, what was refused)."""
        self.sid += 1
        inbox = f"_INBOX.{self.name}.{self.sid}"
        refused = self.subscribe(inbox) or self.publish(subject, data, inbox, headers)
        if refused:
            return None, "; ".join(refused)
        while True:
            for message in self.messages:
                if message[0] == inbox:
                    self.messages.remove(message)
                    return message[1], message[2]
            self._step()

    def api(self, verb, **body):
        head, answer = self.request("$JS.API." + verb, json.dumps(body).encode() if body else b"")
        if head is None:
            raise Refused(answer)
        return json.loads(answer)

    def make_streams(self, replicas=1):
        """The three streams of a fleet."""
        for config in (
                {"name": "EVENTS", "subjects": ["zel.events.>"], "max_age": 7 * 86400 * 10**9, "allow_direct": True,
                 "deny_delete": True, "duplicate_window": DUPLICATE_SECONDS * 10**9},
                {"name": "KV_state", "subjects": ["$KV.state.>"], "max_msgs_per_subject": 1, "allow_direct": True},
                {"name": "KV_config", "subjects": ["$KV.config.>"], "max_msgs_per_subject": 10, "allow_direct": True}):
            config = dict(config, storage="file", retention="limits", discard="old", num_replicas=replicas)
            answer = self.api("STREAM.CREATE." + config["name"], **config)
            if "error" in answer:
                raise AssertionError(answer)
