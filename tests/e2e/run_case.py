#!/usr/bin/env python3
"""Runs one end-to-end case: run_case.py [--show] CASE BINARY.

Starts the case's fake Transfer Agent (if any) on 127.0.0.1:11038, runs the
tool as a subprocess, then checks its standard output, standard error, exit
status and duration exactly, and what it sent to the agent. Exit status 0
when the case passes.
"""

import contextlib
import json
import os
import shlex
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, HERE)
import cases as table  # noqa: E402
from fake_agent import FakeAgent  # noqa: E402


def same(a, b):
    """Equality that also holds JSON types and key order (1 is not true)."""
    return json.dumps(a, default=repr) == json.dumps(b, default=repr)


def check_sent(received, expected):
    """Faults in what the client sent: the announcement first, then each
    request with a fresh id and the expected command and data."""
    faults = []
    if not received or not same(received[0], {"command": "connection", "id": 17}):
        faults.append("first message is not the announcement: %r" % received[:1])
    requests = received[1:]
    got = [(r.get("command"), r.get("data", table.ABSENT)) for r in requests]
    if not same(got, expected):
        faults.append("requests differ:\n  got      %r\n  expected %r" % (got, expected))
    for r in requests:
        if type(r.get("id")) is not int or not 0 <= r["id"] < 15000:
            faults.append("bad request id in %r" % r)
        if list(r)[:2] != ["command", "id"]:
            faults.append("request keys out of order: %r" % list(r))
    return faults


def check(case, binary, showing=False):
    env = dict(os.environ)
    env["LSAN_OPTIONS"] = "print_suppressions=0:suppressions=" + os.path.join(HERE, "..", "lsan.supp")
    agent = None if case.agent is None else FakeAgent(case.agent)
    with agent or contextlib.nullcontext():
        start = time.monotonic()
        result = subprocess.run(["sylvane-service"] + case.args, executable=binary, env=env,
                                stdin=subprocess.DEVNULL, capture_output=True, timeout=40)
        elapsed = time.monotonic() - start
    stdout = result.stdout.decode("utf-8", "replace")
    stderr = result.stderr.decode("utf-8", "replace")
    if showing:
        print("$ " + shlex.join(["sylvane-service"] + case.args))
        sys.stdout.write(stdout + stderr)
        print("(exit status %d)" % result.returncode)
    faults = []
    if result.returncode != case.status:
        faults.append("exit status %d, expected %d" % (result.returncode, case.status))
    for stream, got, expected in [("stdout", stdout, case.stdout),
                                  ("stderr", stderr, case.stderr)]:
        if got != expected:
            faults.append("%s:\n  got      %r\n  expected %r" % (stream, got, expected))
    low, high = case.elapsed
    if not low <= elapsed <= high:
        faults.append("took %.2f s, expected %.1f to %.1f s" % (elapsed, low, high))
    if agent is not None:
        faults += agent.errors
        if case.sent is not None:
            faults += check_sent(agent.received, case.sent)
        if case.connects is False and agent.connections:
            faults.append("the tool connected although it should not have")
        faults += ["no pong carrying %r (got %r)" % (p, agent.pongs)
                   for p in case.pongs if p not in agent.pongs]
    return faults, elapsed


def main(argv):
    showing = argv[1:2] == ["--show"]
    argv = [a for a in argv if a != "--show"]
    if len(argv) != 3:
        sys.stderr.write("usage: run_case.py [--show] CASE BINARY\n")
        return 2
    case = table.find(argv[1])
    faults, elapsed = check(case, argv[2], showing)
    print("%s %s (%.2f s)" % ("FAIL" if faults else "ok", case.name, elapsed))
    for fault in faults:
        print("  " + fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
