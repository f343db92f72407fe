"""What tests of brokers wait for, and how they read a stream and say what is wrong with it."""
import base64
import contextlib
import json
import os
import re
import sys
import time

from broker import PATIENCE_SECONDS, ROOT, Refused

sys.path.insert(0, os.path.join(ROOT, "bench"))
from processes import end_on_request  # noqa: E402, F401: for those who read this

WINDOW = 256
NO_MESSAGE = 10037
failures = []


def check(truth, what):
    if not truth:
        failures.append(what)
        print("FAILED " + what)
    return truth


def eventually(condition, what, seconds=PATIENCE_SECONDS):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        with contextlib.suppress(OSError, Refused):
            found = condition()
            if found:
                return found
        time.sleep(0.05)
    raise AssertionError(f"after {seconds} s: {what}")


def read_all(client, last):
    """[(sequence, subject, id, payload)] of all that is there up to `last`, and a little beyond."""
    client.subscribe(f"_INBOX.{client.name}.>")
    found = []
    for begin in range(1, last + WINDOW, WINDOW):
        for sequence in range(begin, begin + WINDOW):
            body = json.dumps({"seq": sequence}).encode()
            client.send(f"PUB $JS.API.STREAM.MSG.GET.EVENTS _INBOX.{client.name}.{sequence} {len(body)}\r\n".encode() +
                        body + b"\r\n")
        for inbox, _, answer in client.receive(WINDOW):
            found.append(message_of(int(inbox.rsplit(".", 1)[1]), json.loads(answer)))
    return sorted(message for message in found if message is not None)


def message_of(sequence, answer):
    if "message" not in answer:
        if answer.get("error", {}).get("err_code") != NO_MESSAGE:
            raise AssertionError(f"message {sequence}: {answer}")
        return None
    message = answer["message"]
    headers = base64.b64decode(message["hdrs"]).decode()
    identity = re.search(r"^Nats-Msg-Id: (\S+)", headers, re.MULTILINE).group(1)
    return message["seq"], message["subject"], identity, base64.b64decode(message["data"])
