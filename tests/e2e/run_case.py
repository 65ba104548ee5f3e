#!/usr/bin/env python3
"""Runs one end-to-end case: run_case.py [--show] CASE BINARY.

Starts the case's fake Transfer Agent (if any) on 127.0.0.1:11038, runs the
tool as a subprocess, then checks its standard output, standard error, exit
status and duration exactly, and what it sent to the agent. Exit status 0
when the case passes.
"""

import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, HERE)
import cases as table  # noqa: E402
from fake_agent import FakeAgent  # noqa: E402

ANNOUNCEMENT = {"command": "connection", "id": 17}


def same(a, b):
    """Equality that also holds JSON types and key order (1 is not true)."""
    if type(a) is not type(b):
        return False
    if isinstance(a, dict):
        return list(a) == list(b) and all(same(a[k], b[k]) for k in a)
    if isinstance(a, list):
        return len(a) == len(b) and all(same(x, y) for x, y in zip(a, b))
    return a == b


def check_sent(received, expected):
    """Faults in what the client sent: the announcement first, then each
    request with a fresh id and the expected command and data."""
    faults = []
    if not received or not same(received[0], ANNOUNCEMENT):
        faults.append("first message is not the announcement: %r" % received[:1])
    requests = received[1:]
    got = [(r.get("command"), r.get("data", table.ABSENT)) for r in requests]
    if len(got) != len(expected) or not all(
            c == ec and same(d, ed) for (c, d), (ec, ed) in zip(got, expected)):
        faults.append("requests differ:\n  got      %r\n  expected %r" % (got, expected))
    for r in requests:
        msg_id = r.get("id")
        if type(msg_id) is not int or not 0 <= msg_id < 15000:
            faults.append("bad request id %r in %r" % (msg_id, r))
        if list(r)[:2] != ["command", "id"]:
            faults.append("request keys out of order: %r" % list(r))
    return faults


def run(case, binary):
    env = dict(os.environ)
    env["LSAN_OPTIONS"] = "print_suppressions=0:suppressions=" + os.path.join(HERE, "lsan.supp")
    start = time.monotonic()
    result = subprocess.run(["sylvane-service"] + case.args, executable=binary, env=env,
                            stdin=subprocess.DEVNULL, capture_output=True, timeout=40)
    return result, time.monotonic() - start


def shell_word(word):
    if word and all(c.isalnum() or c in "-_.:,/%" for c in word):
        return word
    return "'" + word.replace("'", "'\\''") + "'"


def show(case, result):
    print("$ " + " ".join(["sylvane-service"] + [shell_word(a) for a in case.args]))
    sys.stdout.write(result.stdout.decode("utf-8", "replace"))
    sys.stdout.write(result.stderr.decode("utf-8", "replace"))
    print("(exit status %d)" % result.returncode)


def check(case, binary, showing=False):
    faults = []
    if case.agent is None:
        result, elapsed = run(case, binary)
        agent = None
    else:
        with FakeAgent(case.agent) as agent:
            result, elapsed = run(case, binary)
    if showing:
        show(case, result)
    stdout = result.stdout.decode("utf-8", "replace")
    stderr = result.stderr.decode("utf-8", "replace")
    if result.returncode != case.status:
        faults.append("exit status %d, expected %d" % (result.returncode, case.status))
    if stdout != case.stdout:
        faults.append("stdout:\n  got      %r\n  expected %r" % (stdout, case.stdout))
    if stderr != case.stderr:
        faults.append("stderr:\n  got      %r\n  expected %r" % (stderr, case.stderr))
    low, high = case.elapsed
    if not low <= elapsed <= high:
        faults.append("took %.2f s, expected %.1f to %.1f s" % (elapsed, low, high))
    if agent is not None:
        faults += agent.errors
        if case.sent is not None:
            faults += check_sent(agent.received, case.sent)
        if case.connects is False and agent.connections:
            faults.append("the tool connected although it should not have")
        for payload in case.pongs:
            if payload not in agent.pongs:
                faults.append("no pong carrying %r (got %r)" % (payload, agent.pongs))
    return faults, elapsed


def main(argv):
    showing = argv[1:2] == ["--show"]
    if showing:
        argv = argv[:1] + argv[2:]
    if len(argv) != 3:
        sys.stderr.write("usage: run_case.py [--show] CASE BINARY\n")
        return 2
    case = table.find(argv[1])
    faults, elapsed = check(case, argv[2], showing)
    if faults:
        print("FAIL %s (%.2f s): %s" % (case.name, elapsed, " ".join(case.args)))
        for fault in faults:
            print("  " + fault)
        return 1
    print("ok %s (%.2f s)" % (case.name, elapsed))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
