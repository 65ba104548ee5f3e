#!/usr/bin/env python3
"""The fault sweep: sweep.py [--every K] SHIM BINARY.

Runs each main command against the fake Transfer Agent (on 127.0.0.1:11038:
run it in a network namespace of its own) once per allocation point of a
normal run, that allocation failing through SHIM (libfailmalloc.so), and
counts per command how the runs ended. --every K tries every K-th point;
SYLV_FAULT_JOBS runs that many at once (12), as most wait on a time-out.
Exit status 1 when a run died by a signal or hung.
"""

import collections
import concurrent.futures
import os
import signal
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "e2e"))
import cases  # noqa: E402
from fake_agent import FakeAgent  # noqa: E402
from run_case import run_tool, tool_env  # noqa: E402

# End-to-end cases whose command and agent make a normal run; their agents'
# scripts answer distinct commands, so one agent serves them all at once.
COMMANDS = ["list_services", "get_proxy_enabled", "add_full", "edit_ok", "remove_long_name_uncut",
            "enable_synchronized", "disable_ok", "save_proxy", "enable_proxy",
            "traceability_file", "audit_enable"]
KINDS = ["succeeded", "message", "timed out", "other", "died", "hung"]
LIMIT = 40  # seconds; the longest time-out is 15


def outcome(run, normal):
    status, stdout, stderr, _settled, _peak, exited = run
    if exited >= LIMIT:
        return "hung"
    if status < 0:
        return "died"
    if (status, stdout, stderr) == normal[:3]:
        return "succeeded"
    if stderr.startswith(cases.NO_ANSWER[:40]):
        return "timed out"
    return "message" if status == 1 and stderr.endswith("\n") else "other"


def main(argv):
    every = int(argv[2]) if argv[1:2] == ["--every"] else 1
    if len(argv) != (5 if every > 1 else 3):
        sys.stderr.write("usage: sweep.py [--every K] SHIM BINARY\n")
        return 2
    env, binary = tool_env(LD_PRELOAD=os.path.realpath(argv[-2])), argv[-1]
    chosen = [next(c for c in cases.CASES if c.name == name) for name in COMMANDS]
    script = {command: actions for case in chosen for command, actions in case.agent.items()}
    jobs = concurrent.futures.ThreadPoolExecutor(int(os.environ.get("SYLV_FAULT_JOBS", 12)))
    with FakeAgent(script), jobs, tempfile.TemporaryDirectory() as folder:
        runs = {}
        for case in chosen:  # the normal run counts the points
            counted = dict(env, SYLV_FAIL_COUNT=os.path.join(folder, case.name))
            normal = run_tool(binary, case.args, counted, limit=LIMIT)
            with open(counted["SYLV_FAIL_COUNT"]) as count:
                points = int(count.read())
            runs[case.name] = (normal, points, [(i, jobs.submit(
                run_tool, binary, case.args, dict(env, SYLV_FAIL_AT=str(i)), limit=LIMIT))
                for i in range(1, points + 1, every)])
        print("%-30s %6s" % ("command", "points") + "".join("%10s" % k for k in KINDS))
        bad = 0
        for case in chosen:
            normal, points, tried = runs[case.name]
            kinds = collections.defaultdict(list)
            for point, future in tried:
                kinds[outcome(future.result(), normal)].append((point, future.result()))
            print("%-30s %6d" % (" ".join(case.args)[:30], points)
                  + "".join("%10d" % len(kinds[k]) for k in KINDS), flush=True)
            # Runs that end otherwise (a silent success, ...) are shown, not failed.
            for point, run in kinds["died"] + kinds["hung"] + kinds["other"][:3]:
                how = signal.Signals(-run[0]).name if run[0] < 0 else "status %d" % run[0]
                print("    point %d: %s, %r" % (point, how, (run[1] + run[2])[-100:]))
            bad += len(kinds["died"]) + len(kinds["hung"])
    print("%d run(s) died or hung" % bad)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
