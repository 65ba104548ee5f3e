#!/usr/bin/env python3
"""The tool's main paths under valgrind memcheck: memcheck.py BINARY.

Runs every kind of command, in an order that makes each one meaningful,
against the Transfer Agent simulator on 127.0.0.1:11038, each under
valgrind. A path fails on any invalid access, use of uninitialised memory or
definite leak outside tests/lsan.supp; its output must also be the ordinary
one (the slower run still settles every command within its time-out).
"""

import os
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.realpath(__file__))
SIMULATOR = os.path.join(HERE, "..", "..", "tools", "agent", "sylvane-agent-sim")
KEY = "k" * 76

# (arguments, expected exit status, expected start of standard output)
PATHS = [
    (["-l"], 0, "No registered services yet."),
    (["-a", "web", "-p", "127.0.0.1:8080", "-f", "8081", "-k", KEY, "-u", "a.com,10.0.0.1"], 0,
     "Service added successfully."),
    (["-l"], 0, "----------------------------------------\nService:\tweb"),
    (["-e", "web", "-p", "127.0.0.1:8090"], 0, "Service edited successfully."),
    (["-s", "web"], 0, "Requested service enabling for 'web'..."),
    (["-d", "web"], 0, "Requested service disabling for 'web'..."),
    (["-c", "10.0.0.2:3128", "-t", "HTTPS"], 0, "Proxy configuration successfully saved."),
    (["--enableProxy"], 0, "Enabled/Disabled proxy successfully."),
    (["-g"], 0, "---------- Proxy configuration ----------"),
    (["--enableAuthenticationAudit"], 1, "Authentication status updated successfully"),
    (["--saveTraceabilityConfig", "console"], 0, "Traceability configuration successfully saved."),
    (["-r", "web"], 0, "Service removed."),
    (["-r", "web"], 1, ""),
    (["-x"], 0, "Usage"),
]

VALGRIND = ["valgrind", "--tool=memcheck", "--error-exitcode=99", "--leak-check=full",
            "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite", "--track-origins=yes"]


def suppressions(path):
    """Writes the leaks that tests/lsan.supp allows in valgrind's format."""
    with open(os.path.join(HERE, "..", "lsan.supp")) as lsan, open(path, "w") as out:
        for name in (line[5:].strip() for line in lsan if line.startswith("leak:")):
            out.write("{\n %s\n Memcheck:Leak\n match-leak-kinds: definite\n ...\n fun:*%s*\n}\n"
                      % (name, name))
    return "--suppressions=" + path


def run_one(binary, args, status, start):
    began = time.monotonic()
    result = subprocess.run(VALGRIND + [binary] + args, stdin=subprocess.DEVNULL,
                            capture_output=True, timeout=120, text=True, errors="replace")
    print("%-45s status %d in %.1f s" % (" ".join(args)[:45], result.returncode,
                                         time.monotonic() - began))
    faults = []
    if result.returncode == 99:
        faults.append("memcheck errors")
    elif result.returncode != status:
        faults.append("exit status %d, expected %d" % (result.returncode, status))
    if not result.stdout.startswith(start):
        faults.append("standard output %r, standard error %r"
                      % (result.stdout[:200], result.stderr[-300:]))
    if faults:
        print("FAULT: " + "; ".join(faults))
        print("\n".join(line for line in result.stderr.splitlines() if line.startswith("==")))
    return 1 if faults else 0


def main(argv):
    if len(argv) != 2:
        sys.stderr.write("usage: memcheck.py BINARY\n")
        return 2
    with tempfile.TemporaryDirectory() as folder:
        VALGRIND.append(suppressions(os.path.join(folder, "leaks.supp")))
        agent = subprocess.Popen([sys.executable, SIMULATOR, "--quiet", "--step", "0.05",
                                  "--state", os.path.join(folder, "state.json")],
                                 stdout=subprocess.PIPE)
        agent.stdout.readline()  # "listening on ...": ready
        try:
            failures = sum(run_one(argv[1], *path) for path in PATHS)
        finally:
            agent.terminate()
            agent.wait()
        # With no Transfer Agent: the time-out path.
        failures += run_one(argv[1], ["-l"], 1, "")
    print("%d path(s) failed" % failures if failures else "all paths clean")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
