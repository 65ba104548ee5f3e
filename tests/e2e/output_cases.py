#!/usr/bin/env python3
"""output_cases.py --list | CASE BINARY: a standard output that can no longer
be written ends the run at once with status 1, a message on standard error,
and the connection closed (the agent's one client slot freed)."""

import subprocess
import sys
import time

from cases import LISTING, listing, tenant
from fake_agent import FakeAgent, event, reply
from run_case import tool_env

GONE = "Could not write to standard output: Broken pipe.\n"
FULL = "Could not write to standard output: No space left on device.\n"


def full_disk(binary):
    """-l > /dev/full: the listing cannot be written."""
    with FakeAgent({"get_tenants": [reply(listing(*LISTING))]}), open("/dev/full", "w") as full:
        tool = subprocess.run(["sylvane-service", "-l"], executable=binary, env=tool_env(),
                              stdout=full, stderr=subprocess.PIPE, timeout=20)
    return [f for f in [tool.returncode != 1 and "status %d" % tool.returncode,
                        tool.stderr.decode() != FULL and "stderr %r" % tool.stderr] if f]


def reader_gone(binary):
    """--events | head -1: the watch ends within a second of its reader."""
    agent = FakeAgent({"subscription": [reply({}), event(tenant("web"))]})
    with agent:
        tool = subprocess.Popen(["sylvane-service", "--events"], executable=binary,
                                env=tool_env(), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        first = tool.stdout.readline()
        tool.stdout.close()
        gone = time.monotonic()
        try:
            tool.wait(timeout=5)
        except subprocess.TimeoutExpired:
            tool.kill()
        ended = time.monotonic() - gone
        stderr = tool.stderr.read().decode()
    return [f for f in [first != b"web: connected\n" and "first line %r" % first,
                        ended > 1.0 and "ended %.2f s after its reader" % ended,
                        tool.returncode != 1 and "status %d" % tool.returncode,
                        stderr != GONE and "stderr %r" % stderr] if f]


CASES = {"full_disk": full_disk, "reader_gone": reader_gone}

if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        print(";".join(CASES))
    else:
        faults = CASES[sys.argv[1]](sys.argv[2])
        print("%s %s" % ("FAIL" if faults else "ok", sys.argv[1]), *faults, sep="\n  ")
        sys.exit(1 if faults else 0)
