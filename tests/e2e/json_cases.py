#!/usr/bin/env python3
"""End-to-end cases of the scripting interface: --json for every command
(each case run with --json first and last), --version, --events, --wait,
--no-wait and --check, against the fake Transfer Agent of fake_agent.py.

`json_cases.py --list` prints the case names; `json_cases.py CASE BINARY`
runs one. Standard output in JSON mode is compared object by object (key
order is not part of the format), every other stream byte for byte.
"""

import contextlib
import json
import os
import re
import signal
import socket
import subprocess
import sys
import threading
import time
from dataclasses import dataclass

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, HERE)
from cases import (ACKED, ADD, BUSY, DISABLING, KEY, LISTING, LONG_LISTING,  # noqa: E402
                   NO_AGENT, NO_ANSWER, PROGRESS, PROXY, REQUESTED, USAGE, Case, ack, after, listing, tenant)
from fake_agent import FakeAgent, event, evict, raw, reply, wait  # noqa: E402
from run_case import tool_env  # noqa: E402

ANY = object()  # matches any value of a field
NUMBER = object()  # matches any JSON number


@dataclass
class JsonCase(Case):
    lines: list = None  # expected JSON objects, one per stdout line (None: stdout as text)
    terminate_after: float = None  # SIGTERM this many seconds after the start
    closes: bool = False  # a close frame must reach the agent
    plain_server: bool = False  # an HTTP server instead of the fake agent


def matches(got, expected):
    if expected is ANY:
        return True
    if expected is NUMBER:
        return type(got) in (int, float)
    if isinstance(expected, dict):
        return (isinstance(got, dict) and got.keys() == expected.keys()
                and all(matches(got[k], v) for k, v in expected.items()))
    if isinstance(expected, list):
        return (isinstance(got, list) and len(got) == len(expected)
                and all(matches(g, e) for g, e in zip(got, expected)))
    return type(got) is type(expected) and got == expected


class PlainServer:
    """Answers the upgrade request with an HTTP error: not a WebSocket."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 11038))
        self.listener.settimeout(0.2)
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self.connections, self.errors, self.received, self.closes = 0, [], [], []

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_exc):
        self._stop.set()
        self._thread.join(5)
        self.listener.close()

    def _serve(self):
        while not self._stop.is_set():
            with contextlib.suppress(socket.timeout):
                conn, _ = self.listener.accept()
                with conn:
                    conn.recv(4096)
                    conn.sendall(b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n")
                    time.sleep(0.3)


def check(case, binary):
    env = tool_env()
    server = PlainServer() if case.plain_server else (
        None if case.agent is None else FakeAgent(case.agent))
    with server or contextlib.nullcontext():
        start = time.monotonic()
        tool = subprocess.Popen(["sylvane-service"] + case.args, executable=binary, env=env,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)
        if case.terminate_after is not None:
            time.sleep(case.terminate_after)
            tool.send_signal(signal.SIGTERM)
        stdout, stderr = (s.decode("utf-8", "replace") for s in tool.communicate(timeout=40))
        elapsed = time.monotonic() - start
        time.sleep(0.3)  # the agent reads what was sent last
    faults = [] if tool.returncode == case.status else [
        "exit status %d, expected %d" % (tool.returncode, case.status)]
    if case.lines is not None:
        try:
            got = [json.loads(line) for line in stdout.splitlines()]
        except ValueError:
            got = stdout
        if not matches(got, [dict(version=1, **line) for line in case.lines]):
            faults.append("stdout:\n  got      %r\n  expected %r" % (got, case.lines))
    elif not (case.stdout.fullmatch(stdout) if isinstance(case.stdout, re.Pattern)
              else stdout == case.stdout):
        faults.append("stdout:\n  got      %r\n  expected %r" % (stdout, case.stdout))
    if stderr != case.stderr:
        faults.append("stderr:\n  got      %r\n  expected %r" % (stderr, case.stderr))
    if not case.elapsed[0] <= elapsed <= case.elapsed[1]:
        faults.append("took %.2f s, expected %.1f to %.1f s" % ((elapsed,) + case.elapsed))
    if server is not None:
        faults += server.errors
        if case.connects is False and server.connections:
            faults.append("the tool connected although it should not have")
        if case.closes and b"\x03\xe8" not in server.closes:
            faults.append("no close frame with status 1000 (got %r)" % server.closes)
    return faults


CASES = []


def add(case):
    assert all(c.name != case.name for c in CASES), case.name
    CASES.append(case)


def both_ends(name, args, lines, status=0, **fields):
    """The case with --json first and with --json last."""
    for where, words in [("first", ["--json"] + args), ("last", args + ["--json"])]:
        add(JsonCase("json_%s_%s" % (name, where), words, lines=lines, status=status, **fields))


def failure(error, message, status, **fields):
    return dict(ok=False, error=error, message=message, **fields)


WEB1 = {"service": "web1"}
SETTINGS = [("enable_proxy", ["--enableProxy"], "set_proxy", "Failed to set proxy: %s"),
            ("save_proxy", "-c 10.0.0.1:3128 -t Socks5".split(), "save_proxy",
             "Failed to save proxy configuration: %s"),
            ("audit", ["--disableAuthenticationAudit"], "set_authentication_audit",
             "Failed to update authentication status: %s"),
            ("traceability", "--saveTraceabilityConfig file /var/log t.log 10".split(),
             "save_traceability_logger_config", "Failed to save traceability configuration: %s")]

# -- every command: its success, then its failures ------------------------------
for name, args, script, lines in [
        ("list", ["-l"], {"get_tenants": [reply(listing(LISTING[0], LISTING[3]))]},
         [dict(ok=True, services=[
             dict(service="web1", uuid=LISTING[0]["uuid"], status="connected",
                  ip_address="127.0.0.1", port=443, virtual_port=8082, onion_address="abc.onion"),
             dict(service="web4", uuid="u4", status="disconnected")])]),
        ("list_empty", ["-l"], {"get_tenants": [reply({})]}, [dict(ok=True, services=[])]),
        ("get_proxy", ["-g"], {"get_proxy": [reply(PROXY)]},
         [dict(ok=True, proxy=dict(type="SOCKS5", ip_address="192.168.1.10", port=1080,
                                   enabled=True))]),
        ("remove", ["-r", "web1"], {"remove_tenant": [reply({"removed": True})]},
         [dict(ok=True, **WEB1)]),
        ("remove_quoted_name", ["-r", 'a"b\\c\x01'], {"remove_tenant": [reply({"removed": True})]},
         [dict(ok=True, service='a"b\\c\x01')]),
        ("help", ["-h"], {}, [dict(ok=True, usage=USAGE[:-1])]),
        ("edit", "-e web1 -p 1.2.3.4:80 -f 81".split(), {"edit_tenant": [reply({"edited": True})]},
         [dict(ok=True, **WEB1)]),
        ("add", ADD, {"add_tenant": [reply({"added": True}),
                                     event(tenant("web1", onion_address="w.onion"))]},
         [dict(state="added", **WEB1),
          dict(ok=True, state="added", onion_address="w.onion", **WEB1)]),
        ("enable", ["-s", "web1"], {"connect_tenants": [
            ACKED, PROGRESS, event(tenant("web1", synchronized=True))]},
         [dict(state="requested", **WEB1), dict(status="in progress", **WEB1),
          dict(status="connected", synchronized=True, **WEB1),
          dict(ok=True, state="enabled", synchronized=True, **WEB1)]),
        ("disable", ["-d", "web1"], {"disconnect_tenants": [
            ACKED, event(tenant("web1", "disconnected"))]},
         [dict(state="requested", **WEB1), dict(ok=True, state="disabled", **WEB1)])] + [
        (name, args, {command: [reply({"success": True})]}, [dict(ok=True)])
        for name, args, command, _ in SETTINGS]:
    both_ends(name, args, lines, agent=script)

for name, args, command, with_reason in SETTINGS:
    both_ends(name + "_refused", args, [failure("refused", with_reason % "No", 1, reason="No")],
              status=1, agent={command: [reply({"success": False, "reason": "No"})]})

ENABLE_FAILED = "Could not enable service 'web1'."
for name, args, script, lines, status in [
        ("remove_refused", ["-r", "web1"], {"remove_tenant": [reply(
            {"removed": False, "reason": "Busy"})]},
         [failure("refused", "Could not remove service 'web1'. Busy", 1, reason="Busy", **WEB1)], 1),
        ("disable_refused_shows_reason", ["-d", "web1"],
         {"disconnect_tenants": [reply(ack(accepted=False, reason="Unknown"))]},
         [failure("refused", "Could not disable service 'web1'.", 1, reason="Unknown", **WEB1)], 1),
        ("enable_error_shows_reason", ["-s", "web1"],
         {"connect_tenants": [ACKED, event(tenant("web1", "error", reason="Bad key"))]},
         [dict(state="requested", **WEB1),
          failure("failed", ENABLE_FAILED, 1, reason="Bad key", **WEB1)], 1),
        ("get_proxy_bad_answer", ["-g"], {"get_proxy": [reply(dict(PROXY, port=-1))]},
         [failure("bad_answer", "Unable to retrieve proxy port.", 1)], 1),
        ("list_bad_element", ["-l"], {"get_tenants": [reply(listing(LISTING[0], "{oops"))]},
         [failure("bad_answer", ANY, 1)], 1),
        ("list_wrong_id", ["-l"], {"get_tenants": [reply({}, id_shift=1)]},
         [failure("bad_answer", "The Transfer Agent gave no usable answer.", 1)], 1),
        ("audit_bad_answer", ["--enableAuthenticationAudit"],
         {"set_authentication_audit": [raw('{"command": "set_authentication_audit"}')]},
         [failure("bad_answer", ANY, 1)], 1),
        ("busy", ["-g"], {"connection": [evict()]}, [failure("busy", BUSY[:-1], 3)], 3),
        ("busy_while_enabling", ["-s", "web1"], {"connect_tenants": [evict()]},
         [failure("busy", BUSY[:-1], 3, **WEB1)], 3)]:
    both_ends(name, args, lines, status=status, agent=script)
both_ends("bad_argument", ["-a", "web1", "-p", "1.2.3.4", "-k", KEY],
          [failure("bad_argument", ANY, 1)], status=1, agent={}, connects=False)

for name, args, seconds, message, agent, error in [
        ("list_no_answer", ["-l"], 2, NO_ANSWER, {}, "timeout"),
        ("list_no_agent", ["-l"], 2, NO_ANSWER, None, "unreachable"),
        ("remove_no_answer", ["-r", "web1"], 4, NO_ANSWER, {}, "timeout"),
        ("enable_no_agent", ["-s", "web1"], 6, "Could not connect to the Transfer Agent on "
         "127.0.0.1:11038.\n", None, "unreachable"),
        ("set_proxy_no_answer", ["--enableProxy"], 4, NO_AGENT, {}, "timeout")]:
    service = WEB1 if "web1" in args else {}
    both_ends(name, args, [failure(error, message[:-1], 3, **service)], status=3,
              agent=agent, elapsed=after(seconds))

# Strict reading: what the human interface drops or merges is a usage error.
for name, args, stderr in [
        ("add_with_proxy_address", ["-a", "x", "-p", "1.2.3.4:80", "-k", KEY, "-c",
                                    "1.2.3.4:80", "-t", "HTTP"], ""),
        ("edit_with_proxy_address", "-e x -c 1.2.3.4:80 -t HTTP".split(), ""),
        ("two_commands", ["-l", "-g"], ""), ("stray_word", ["-l", "extra"], ""),
        ("unused_option", ["-e", "web1", "-p", "1.2.3.4:80", "-k", KEY], ""),
        ("no_command", [], ""), ("no_wait_for_list", ["-l", "--no-wait"], ""),
        ("unknown_option", ["-x", "-l"], "sylvane-service: invalid option -- 'x'\n"),
        ("traceability_words", "--saveTraceabilityConfig console x".split(), "")]:
    both_ends("usage_" + name, args, [failure("usage", ANY, 2)], status=2, stderr=stderr,
              agent={}, connects=False)

# "--c" still abbreviates --configProxy: --check must not make it ambiguous.
add(JsonCase("abbreviation_still_human", "--c 10.0.0.1:3128 -t HTTP".split(),
             stdout="Proxy configuration successfully saved.\n",
             agent={"save_proxy": [reply({"success": True})]}))

VERSION = re.search(r"project\(sylvane-service VERSION (\S+)",
                    open(os.path.join(HERE, "..", "..", "CMakeLists.txt")).read()).group(1)
add(JsonCase("version", ["--version"], stdout="sylvane-service %s\n" % VERSION))

# Services read where they lie in the answer, some fields missing: the same
# bytes as the writer of escaped texts (keys in this order, ", " and ": ").
LONG_SENT = LONG_LISTING + [dict(port=5, api_key="k" * 80)]
LONG_SHOWN = [{shown: t[key] for shown, key in [
    ("service", "tenant_name"), ("uuid", "uuid"), ("status", "status"),
    ("ip_address", "ip_address"), ("port", "port"), ("virtual_port", "virtual_port"),
    ("onion_address", "onion_address")] if key in t} for t in LONG_SENT]
add(JsonCase("json_list_long_services", ["--json", "-l"],
             stdout='{"version": 1, "ok": true, "services": [%s]}\n'
             % ", ".join(json.dumps(t) for t in LONG_SHOWN),
             agent={"get_tenants": [reply(listing(*LONG_SENT))]}))
both_ends("version", ["--version"], [dict(ok=True, tool_version=VERSION)])

# -- --events ----------------------------------------------------------------------


def hang_up():
    return lambda conn, _request: conn.sock.shutdown(socket.SHUT_RDWR)


def watched(*actions):
    return {"subscription": [reply({"subscriptions": []})] + list(actions)}


CHANGES = watched(event(tenant("web", synchronized=True, onion_address="w.onion"),
                        tenant("db", "error", reason="boom")), event(tenant("web", "in progress")))
GONE = "Transfer Agent closed the connection.\n"
for name, args, script, stdout, lines, status, stderr, fields in [
        ("events", ["--wait", "1"], CHANGES,
         "web: connected (synchronized)\ndb: error: boom\nweb: in progress\n",
         [dict(service="web", status="connected", synchronized=True, onion_address="w.onion"),
          dict(service="db", status="error", reason="boom"),
          dict(service="web", status="in progress"), dict(ok=True, state="stopped")],
         0, "", dict(elapsed=after(1), closes=True)),
        ("events_sigterm", [], watched(event(tenant("web"))), "web: connected\n",
         [dict(service="web", status="connected"), dict(ok=True, state="stopped")],
         0, "", dict(terminate_after=1.0, closes=True)),
        ("events_agent_hangs_up", [], watched(event(tenant("web")), wait(0.2), hang_up()),
         "web: connected\n",
         [dict(service="web", status="connected"), failure("unreachable", GONE[:-1], 3)],
         3, GONE, {}),
        ("events_evicted", [], watched(evict()), "", [failure("busy", BUSY[:-1], 3)], 3, BUSY, {}),
        ("events_no_agent", [], None, "", [failure("unreachable", ANY, 3)], 3,
         "Could not connect to the Transfer Agent on 127.0.0.1:11038.\n", dict(elapsed=after(6)))]:
    add(JsonCase(name, ["--events"] + args, stdout=stdout, stderr=stderr, status=status,
                 agent=script, **fields))
    both_ends(name, ["--events"] + args, lines, status=status, agent=script, **fields)

add(JsonCase("events_no_agent_within_wait", ["--events", "--wait", "1"], status=3,
             stderr="Could not connect to the Transfer Agent on 127.0.0.1:11038.\n",
             elapsed=after(1)))
add(JsonCase("events_not_websocket", ["--events"], plain_server=True, status=3, elapsed=(0, 2.5),
             stderr="The connection to the Transfer Agent was lost.\n"))

# -- --wait, --no-wait ----------------------------------------------------------------
SLOW_DISABLE = {"disconnect_tenants": [ACKED, wait(5.5), event(tenant("web1", "disconnected"))]}
add(JsonCase("wait_longer_than_default", ["-d", "web1", "--wait", "8"],
             stdout=DISABLING + "Service disabled successfully.\n", agent=SLOW_DISABLE,
             elapsed=(5.5, 7.5)))
add(JsonCase("wait_shorter_than_default", ["--wait", "1", "-s", "web1"], stdout=REQUESTED,
             stderr=NO_ANSWER,
             status=1, agent={"connect_tenants": [ACKED]}, elapsed=after(1)))
add(JsonCase("wait_bad_value", ["-s", "web1", "--wait", "0"], status=1, agent={},
             connects=False, stderr="Bad value for --wait. Expected a whole number of seconds "
                                    "from 1 to 86400.\n"))
add(JsonCase("no_wait", ["-s", "web1", "--no-wait"], stdout=REQUESTED,
             agent={"connect_tenants": [ACKED, wait(3), PROGRESS]}, elapsed=(0, 2.5)))
both_ends("no_wait", ["--no-wait", "-d", "web1"], [dict(ok=True, state="requested", **WEB1)],
          agent={"disconnect_tenants": [ACKED]}, elapsed=(0, 2.5))

# -- --check ------------------------------------------------------------------------------
for name, script, stdout, lines, stderr, seconds in [
        ("live", {"get_proxy": [reply(PROXY)]},
         re.compile(r"Transfer Agent is answering on 127\.0\.0\.1:11038 \(\d+\.\d ms\)\.\n"),
         [dict(ok=True, latency_ms=NUMBER)], "", (0, 1.9)),
        ("silent", {}, "", [failure("timeout", ANY, 3)],
         "Transfer Agent did not answer within 2 seconds.\n", after(2)),
        ("not_websocket", "plain", "", [failure("not_an_agent", ANY, 3)],
         "The program listening on 127.0.0.1:11038 is not a Transfer Agent.\n", (0, 3)),
        ("nothing", None, "", [failure("unreachable", ANY, 3)],
         "Nothing is listening on 127.0.0.1:11038.\n", (0, 1.9))]:
    plain = script == "plain"
    fields = dict(agent=None if plain else script, plain_server=plain, elapsed=seconds)
    add(JsonCase("check_" + name, ["--check"], stdout=stdout, stderr=stderr,
                 status=3 if stderr else 0, **fields))
    both_ends("check_" + name, ["--check"], lines,
              status=0 if lines[0].get("ok") else 3, **fields)


def main(argv):
    if argv[1:] == ["--list"]:
        print(";".join(case.name for case in CASES))
        return 0
    case = next(c for c in CASES if c.name == argv[1])
    faults = check(case, argv[2])
    print("%s %s" % ("FAIL" if faults else "ok", case.name))
    for fault in faults:
        print("  " + fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
