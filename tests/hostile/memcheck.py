#!/usr/bin/env python3
"""End-to-end cases of every command under valgrind: memcheck.py BINARY.
A case fails on an invalid access, a use of uninitialised memory, a definite
leak outside tests/lsan.supp, or output other than the case's.
"""

import dataclasses
import os
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "e2e"))
import cases  # noqa: E402
import run_case  # noqa: E402

PATHS = ["list_services", "add_full", "edit_ok", "enable_synchronized", "disable_ok", "save_proxy",
         "enable_proxy", "get_proxy_enabled", "audit_enable", "traceability_syslog",
         "remove_long_name_uncut", "remove_refused", "usage_help", "list_no_agent"]


def main(argv):
    if len(argv) != 2:
        sys.stderr.write("usage: memcheck.py BINARY\n")
        return 2
    failures = 0
    with tempfile.TemporaryDirectory() as folder:
        supp, log = os.path.join(folder, "leaks.supp"), os.path.join(folder, "valgrind.log")
        with open(os.path.join(run_case.HERE, "..", "lsan.supp")) as lsan, open(supp, "w") as out:
            for name in (line[5:].strip() for line in lsan if line.startswith("leak:")):
                out.write("{\n %s\n Memcheck:Leak\n match-leak-kinds: definite\n ...\n"
                          " fun:*%s*\n}\n" % (name, name))
        valgrind = ["valgrind", "--error-exitcode=99", "--leak-check=full",
                    "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite",
                    "--track-origins=yes", "--suppressions=" + supp, "--log-file=" + log]
        for case in (c for c in cases.CASES if c.name in PATHS):
            faults, elapsed = run_case.check(dataclasses.replace(case, elapsed=(0, 90)),
                                             argv[1], prefix=valgrind)
            print("%s %s (%.1f s)" % ("FAIL" if faults else "ok", case.name, elapsed))
            if faults:
                failures += 1
                print("\n".join(["  " + fault for fault in faults] + [open(log).read()]))
    print("%d path(s) failed" % failures if failures else "all paths clean")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
