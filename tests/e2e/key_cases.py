#!/usr/bin/env python3
"""key_cases.py --list | CASE BINARY: the add command's key off the command line. The fake
agent runs as the invoking user: every add that reaches it has passed the listener check."""

import os
import subprocess
import sys
import tempfile

from cases import ADDED, BAD_KEY, KEY, SUBSCRIBE, USAGE, add_data, added, event, tenant
from fake_agent import FakeAgent
from run_case import check_sent, tool_env

WEB1 = ["--a", "web1", "-p", "127.0.0.1:443"]  # "--a" still abbreviates --add
OK = dict(stdout=ADDED, agent=added(event(tenant("web1", onion_address="w.onion"))),
          sent=[SUBSCRIBE, add_data()])
OPEN = ("API key file {file} is accessible by group or others (mode 0640); refusing to use it. "
        "Run: chmod 600 {file}\n")
NOT_A_FILE = dict(status=1, stderr="API key file {file} is not a regular file; refusing to use it.\n")
# name: (arguments, key file text or None, its mode, stdin, environment, expected)
CASES = {
    "file_crlf_first_line": (["--api-key-file", "{file}"], KEY + "\r\nnext line\n", 0o600,
                             "", {}, OK),
    "stdin": (["--api-key-file", "-"], None, 0, KEY + "\n", {}, OK),
    "environment": ([], None, 0, "", {"SYLVANE_API_KEY": KEY}, OK),
    "file_read_only_no_newline_before_environment": (["--api-key-file", "{file}"], KEY, 0o400,
                                                     "", {"SYLVANE_API_KEY": "short"}, OK),
    "k_wins_file_unread": (["-k", KEY, "--api-key-file", "{file}", "--agent-uid", "4321"],
                           "short", 0o644, "", {"SYLVANE_API_KEY": "short"}, OK),
    "file_too_open": (["--api-key-file", "{file}"], KEY, 0o640, "", {},
                      dict(stderr=OPEN, status=1)),
    "file_missing": (["--api-key-file", "{file}"], None, 0, "", {}, dict(status=1, stderr=(
        "Could not read the API key from {file}: No such file or directory.\n"))),
    "file_short_key": (["--api-key-file", "{file}"], KEY[:75] + "\n", 0o600, "", {},
                       dict(stderr="Bad API key from {file}: expected 76 bytes, got 75.\n",
                            status=1)),
    "empty_environment_is_no_key": ([], None, 0, "", {"SYLVANE_API_KEY": ""}, dict(stdout=USAGE)),
    "json_environment": (["--json"], None, 0, "", {"SYLVANE_API_KEY": KEY}, dict(OK, stdout=(
        '{"version": 1, "service": "web1", "state": "added"}\n{"version": 1, "ok": true, '
        '"service": "web1", "state": "added", "onion_address": "w.onion"}\n'))),
    "json_file_too_open": (["--json", "--api-key-file", "{file}"], KEY, 0o640, "", {}, dict(
        stdout='{"version": 1, "ok": false, "error": "bad_argument", "message": "%s"}\n'
        % OPEN[:-1], status=1)),
    # Only a regular file is read: no waiting on a FIFO, no chmod advice for a device.
    "file_is_directory": (["--api-key-file", "{file}"], "<dir>", 0o700, "", {}, NOT_A_FILE),
    "file_is_fifo": (["--api-key-file", "{file}"], "<fifo>", 0o600, "", {}, NOT_A_FILE),
    "file_is_device": (["--api-key-file", "/dev/null"], None, 0, "", {}, dict(status=1, stderr=(
        "API key file /dev/null is not a regular file; refusing to use it.\n"))),
    "environment_short_key": ([], None, 0, "", {"SYLVANE_API_KEY": "short"}, dict(status=1, stderr=(
        "Bad API key from SYLVANE_API_KEY: expected 76 bytes, got 5.\n"))),
    "bad_agent_uid": (["-k", KEY], None, 0, "", {"SYLVANE_AGENT_UID": "agent"},
                      dict(stderr="Bad agent uid agent (SYLVANE_AGENT_UID): expected a numeric "
                           "user id.\n", status=1)),
}


def run(name, binary):
    args, text, mode, stdin, env_extra, expected = CASES[name]
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "key")
        if text == "<dir>":
            os.mkdir(path, mode)
        elif text == "<fifo>":
            os.mkfifo(path, mode)
        elif text is not None:
            with open(path, "w") as key_file:
                key_file.write(text)
            os.chmod(path, mode)
        env = tool_env(**env_extra)
        agent = FakeAgent(expected.get("agent", {}))
        with agent:
            result = subprocess.run(["sylvane-service"] + WEB1 + [a.format(file=path) for a in args],
                                    executable=binary, env=env, input=stdin.encode(),
                                    capture_output=True, timeout=20)
        faults = ["%s: got %r, expected %r" % (what, got, want) for what, got, want in [
            ("status", result.returncode, expected.get("status", 0)),
            ("stdout", result.stdout.decode(), expected.get("stdout", "").replace("{file}", path)),
            ("stderr", result.stderr.decode(), expected.get("stderr", "").replace("{file}", path))]
            if got != want]
        if "sent" in expected:
            faults += agent.errors + check_sent(agent.received, expected["sent"])
        elif agent.connections:
            faults.append("the tool connected although it should not have")
    print("%s %s" % ("FAIL" if faults else "ok", name), *faults, sep="\n  ")
    return 1 if faults else 0


if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        print(";".join(CASES))
    else:
        sys.exit(run(sys.argv[1], sys.argv[2]))
