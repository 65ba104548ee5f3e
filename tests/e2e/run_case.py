#!/usr/bin/env python3
"""Runs one end-to-end case: run_case.py [--show] [CASES_FILE] CASE BINARY,
or lists a file's cases: run_case.py --list [CASES_FILE].

A cases file (cases.py by default) holds its own CASES list or adds to
cases.py's with add(). The tool runs against the case's fake Transfer Agent;
its output, status, duration, peak memory and what it sent are checked.
"""

import contextlib
import importlib.util
import json
import os
import shlex
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, HERE)
import fake_agent  # noqa: E402
import cases as table  # noqa: E402


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


def tool_env(**extra):
    """The environment every case runs the tool in: the shared leak list for
    sanitizer builds, and none of the user's SYLVANE_* variables, which would
    change what an add sends or checks."""
    env = {k: v for k, v in os.environ.items() if not k.startswith("SYLVANE_")}
    env["LSAN_OPTIONS"] = ("print_suppressions=0:suppressions="
                           + os.path.join(HERE, "..", "lsan.supp"))
    env.update(extra)
    return env


def run_tool(binary, args, env=None, poll=False, limit=40, prefix=()):
    """(status, stdout, stderr, settled, peak KiB, exited): seconds to the last
    output (a sanitizer's leak check at exit can take seconds on a busy machine)
    and to the exit. Bytes that are not UTF-8 become lone surrogates."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        start, peak, size, settled = time.monotonic(), 0, 0, None
        tool = subprocess.Popen(list(prefix) + [binary if prefix else "sylvane-service"] + args,
                                executable=None if prefix else binary, env=env,
                                stdin=subprocess.DEVNULL, stdout=out, stderr=err)

        def written():
            return os.fstat(out.fileno()).st_size + os.fstat(err.fileno()).st_size
        while tool.poll() is None and time.monotonic() < start + limit:
            if written() != size:
                size, settled = written(), time.monotonic() - start
            # From /proc: getrusage would count the forked Python before exec.
            with contextlib.suppress(OSError), open("/proc/%d/status" % tool.pid) as status:
                peak = max([peak] + [int(n.split()[1]) for n in status
                                     if poll and n.startswith("VmHWM:")])
            time.sleep(0.005 if poll else 0.02)
        if tool.poll() is None:
            tool.kill()
        status, exited = tool.wait(), time.monotonic() - start
        if written() != size or settled is None:
            settled = exited
        text = []
        for stream in (out, err):
            stream.seek(0)
            text.append(stream.read().decode("utf-8", "surrogateescape"))
    return status, text[0], text[1], settled, peak, exited


def check(case, binary, showing=False, prefix=()):
    env = tool_env()
    polled = case.peak_mib is not None and not fake_agent.SANITIZED
    agent = None if case.agent is None else fake_agent.FakeAgent(case.agent)
    with agent or contextlib.nullcontext():
        status, stdout, stderr, elapsed, peak, exited = run_tool(
            binary, case.args, env, polled, limit=case.elapsed[1] + 30, prefix=prefix)
    if showing:
        print("$ " + shlex.join(["sylvane-service"] + case.args))
        sys.stdout.write(stdout + stderr)
        print("(exit status %d, peak %d KiB)" % (status, peak))
    faults = []
    if status != case.status:
        faults.append("exit status %d, expected %d" % (status, case.status))
    for stream, got, expected in [("stdout", stdout, case.stdout),
                                  ("stderr", stderr, case.stderr)]:
        if got != expected:
            faults.append("%s:\n  got      %r\n  expected %r" % (stream, got[:500], expected[:500]))
    low, high = case.elapsed
    if not low <= elapsed <= high:
        faults.append("settled after %.2f s, expected %.1f to %.1f s" % (elapsed, low, high))
    if exited > high + 5:
        faults.append("exited after %.2f s" % exited)
    if polled and peak > case.peak_mib * 1024:
        faults.append("peak memory %d KiB, limit %d KiB" % (peak, case.peak_mib * 1024))
    if agent is not None:
        faults += agent.errors
        if case.sent is not None:
            faults += check_sent(agent.received, case.sent)
        if case.connects is False and agent.connections:
            faults.append("the tool connected although it should not have")
        faults += ["no pong carrying %r (got %r)" % (p, agent.pongs)
                   for p in case.pongs if p not in agent.pongs]
    return faults, elapsed


def load(path):
    """The cases of a cases file: its own CASES, or those it added to ours."""
    if os.path.realpath(path) == os.path.realpath(table.__file__):
        return table.CASES
    before = len(table.CASES)
    spec = importlib.util.spec_from_file_location(os.path.basename(path)[:-3], path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    own = getattr(module, "CASES", table.CASES)
    return own if own is not table.CASES else table.CASES[before:]


def main(argv):
    showing = "--show" in argv
    argv = [a for a in argv if a != "--show"]
    if argv[1:2] == ["--list"] and len(argv) <= 3:
        print(";".join(case.name for case in load((argv + [table.__file__])[2])))
        return 0
    if len(argv) not in (3, 4):
        sys.stderr.write("usage: run_case.py [--show] [CASES_FILE] CASE BINARY\n")
        return 2
    with open(argv[-1], "rb") as image:  # ASan's shadow memory hides the tool's peak
        fake_agent.SANITIZED = b"__asan_init" in image.read()
    found = [c for c in load(argv[1] if len(argv) == 4 else table.__file__) if c.name == argv[-2]]
    if not found:
        sys.stderr.write("no case named %r\n" % argv[-2])
        return 2
    faults, elapsed = check(found[0], argv[-1], showing)
    print("%s %s (%.2f s)" % ("FAIL" if faults else "ok", found[0].name, elapsed))
    print("".join("  %s\n" % fault for fault in faults), end="")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
