#!/usr/bin/env python3
"""observe_cases.py --list | CASE BINARY: the trace of an add (handshake and
request shown, key never), the metrics as promtool and node_exporter read
them, and check_sylvane's verdict lines, against the fake Transfer Agent.
A case whose outside tool (promtool, node_exporter) is missing exits 77."""

import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

from cases import ADDED, KEY, SUBSCRIBE, USAGE, Case, added, event, listing, tenant
from fake_agent import FakeAgent, evict, reply
from run_case import check, check_sent, tool_env

SKIP = 77

# -- the trace --------------------------------------------------------------------------
# A key with a quote and a backslash: JSON writes it differently, and neither form may show.
QKEY = ('Ab"c\\d' + KEY)[:76]
QKEY_JSON = QKEY.replace("\\", "\\\\").replace('"', '\\"')
WEB1 = ["-a", "web1", "-p", "127.0.0.1:443"]
ADD_SENT = ("add_tenant", {"method": "api_key", "value": QKEY, "name": "web1",
                           "ip_address": "127.0.0.1", "port": 443, "virtual_port": 443,
                           "clear_services": []})
JSON_ADDED = ('{"version": 1, "service": "web1", "state": "added"}\n{"version": 1, "ok": true, '
              '"service": "web1", "state": "added", "onion_address": "w.onion"}\n')
SEEN = ["[info] Connection attempt to 127.0.0.1:11038 succeeded",
        "[debug] WebSocket handshake request: GET / HTTP/1.1\\r\\nUpgrade: websocket",
        "[debug] WebSocket handshake answer: HTTP/1.1 101 Switching Protocols",
        '[debug] Sending request {"command":"add_tenant"',
        '"value":"[redacted]","name":"web1"']
# name: (arguments, environment, key file text or None, standard output, key shown)
TRACES = {
    "trace_add_verbose_k": (["--verbose", "-k", QKEY], {}, None, ADDED, False),
    "trace_add_json_debug_variable": (["--json"], {"SYLVANE_DEBUG": "1", "SYLVANE_API_KEY": QKEY},
                                      None, JSON_ADDED, False),
    "trace_add_key_file_every_step": (["--api-key-file", "{file}", "--verbose", "--verbose"], {},
                                      QKEY + "\n", ADDED, False),
    "trace_add_redact_off": (["-k", QKEY, "--verbose"], {"SYLVANE_TRACE_REDACT": "0"}, None,
                             ADDED, True),
}


def run_trace(name, binary):
    args, env, key_text, stdout, shown = TRACES[name]
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "key")
        if key_text is not None:
            with open(path, "w") as key_file:
                key_file.write(key_text)
            os.chmod(path, 0o600)
        agent = FakeAgent(added(event(tenant("web1", onion_address="w.onion"))))
        with agent:
            result = subprocess.run(["sylvane-service"] + WEB1 + [a.format(file=path) for a in args],
                                    executable=binary, env=tool_env(**env), capture_output=True,
                                    timeout=20)
    err = result.stderr.decode("utf-8", "replace")
    faults = agent.errors + check_sent(agent.received, [SUBSCRIBE, ADD_SENT])
    if result.returncode != 0 or result.stdout.decode() != stdout:
        faults.append("status %d, stdout %r" % (result.returncode, result.stdout))
    wanted = SEEN if not shown else SEEN[:4] + ["secrets are shown", '"value":"%s"' % QKEY_JSON]
    faults += ["trace lacks %r" % line for line in wanted if line not in err]
    leaks = [form for form in (QKEY, QKEY_JSON, KEY[6:30]) if form in err]
    if leaks and not shown:
        faults.append("the key shows in the trace: %r" % leaks)
    if key_text is not None and "[trace]" not in err:
        faults.append("two --verbose did not trace every step")
    bad = [line for line in err.splitlines() if not re.match(r"\w{3}_\d\d_\d\d_\d\d_\d\d\.\d{3} \[", line)]
    if bad:
        faults.append("lines that are not trace lines on stderr: %r" % bad[:3])
    return faults


# -- the metrics ------------------------------------------------------------------------
SERVICES = {"get_tenants": [reply(listing(
    tenant("web"), tenant("db", "in progress"), tenant("mail", "disconnected"),
    tenant("ftp", "error", uuid="u4", onion_address="f.onion")))],
    "get_proxy": [reply({"type": "SOCKS5", "ip_address": "10.0.0.1", "enabled": True,
                         "port": 1080})]}
UP_SERIES = ["sylvane_agent_up 1", 'sylvane_services{status="error"} 1',
             'sylvane_service_status{service="db",status="in progress"} 1',
             'sylvane_service_info{service="ftp",uuid="u4",onion_address="f.onion"} 1',
             "sylvane_proxy_enabled 1", 'sylvane_proxy_info{address="10.0.0.1:1080",type="SOCKS5"} 1',
             'sylvane_build_info{version="']
DOWN_SERIES = ["sylvane_agent_up 0", 'sylvane_build_info{version="']
NOTHING = "Nothing is listening on 127.0.0.1:11038"
# name: (fake agent script or None, arguments, status, standard error, series, seconds)
METRICS = {
    "metrics_up": (SERVICES, [], 0, "", UP_SERIES, 1),
    "metrics_down": (None, [], 3, NOTHING + ".\n", DOWN_SERIES, 1),
    "metrics_mute": ({}, [], 3, "Transfer Agent did not answer within 4 seconds.\n",
                     DOWN_SERIES, 5),
    "metrics_busy": ({"get_tenants": [evict()]}, [], 3,
                     "Transfer Agent is serving another client.\n", DOWN_SERIES, 1),
    "metrics_no_listing": ({"get_tenants": [reply({})]}, [], 3,
                           "The program listening on 127.0.0.1:11038 is not a Transfer Agent.\n",
                           DOWN_SERIES, 1),
}


def promtool_faults(text):
    promtool = shutil.which("promtool")
    if promtool is None:
        return None
    checked = subprocess.run([promtool, "check", "metrics"], input=text.encode(),
                             capture_output=True)
    return [] if checked.returncode == 0 else ["promtool: %r" % checked.stderr]


def run_metrics(name, binary):
    script, args, status, stderr, series, seconds = METRICS[name]
    agent = FakeAgent(script) if script is not None else None
    start = time.monotonic()
    with agent or tempfile.TemporaryDirectory():
        result = subprocess.run(["sylvane-service", "--metrics"] + args, executable=binary,
                                env=tool_env(), capture_output=True, timeout=20)
    elapsed = time.monotonic() - start
    out = result.stdout.decode()
    faults = promtool_faults(out)
    if faults is None:
        return None
    if (result.returncode, result.stderr.decode()) != (status, stderr):
        faults.append("status %d, stderr %r" % (result.returncode, result.stderr))
    faults += ["missing %r" % s for s in series if s not in out]
    if elapsed > seconds + 1:
        faults.append("took %.1f s" % elapsed)
    if script is SERVICES:  # one connection, both requests
        faults += agent.errors + check_sent(agent.received, [("get_tenants", {}), ("get_proxy", {})])
        faults += ["%d connections" % agent.connections] if agent.connections != 1 else []
    return faults


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def scrape(exporter, port):
    for _ in range(100):
        if exporter.poll() is not None:
            return None
        try:
            with urllib.request.urlopen("http://127.0.0.1:%d/metrics" % port, timeout=2) as page:
                return page.read().decode()
        except OSError:
            time.sleep(0.05)
    return None


def run_node_exporter(_name, binary):
    """--metrics-file in node_exporter's textfile folder: the scrape serves the
    tool's series, then sylvane_agent_up 0 once the agent is gone; JSON mode
    names the file."""
    program = shutil.which("prometheus-node-exporter") or shutil.which("node_exporter")
    if program is None:
        return None
    faults = []
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "sylvane.prom")
        port = free_port()
        exporter = subprocess.Popen([program, "--web.listen-address=127.0.0.1:%d" % port,
                                     "--collector.disable-defaults", "--collector.textfile",
                                     "--collector.textfile.directory=" + folder],
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            for script, status, out, series in [
                    (SERVICES, 0, '{"version": 1, "ok": true, "file": "%s", "agent_up": true, '
                     '"services": 4}\n' % path, UP_SERIES),
                    (None, 3, '{"version": 1, "ok": false, "error": "unreachable", "message": '
                     '"%s: wrote sylvane_agent_up 0 to %s.", "file": "%s", "agent_up": false}\n'
                     % (NOTHING, path, path), DOWN_SERIES)]:
                agent = FakeAgent(script) if script is not None else None
                with agent or tempfile.TemporaryDirectory():
                    result = subprocess.run(["sylvane-service", "--json", "--metrics-file", path],
                                            executable=binary, env=tool_env(), capture_output=True,
                                            timeout=20)
                if (result.returncode, result.stdout.decode(), result.stderr) != (status, out, b""):
                    faults.append("status %d, stdout %r, stderr %r" % (
                        result.returncode, result.stdout, result.stderr))
                page = scrape(exporter, port)
                if page is None:
                    return faults + ["node_exporter did not serve its page"]
                # node_exporter sorts the labels: the info series reads differently.
                faults += ["scrape lacks %r" % s for s in series + ["node_textfile_scrape_error 0"]
                           if s not in page and "uuid" not in s]
                faults += ["folder holds %r" % os.listdir(folder)] if os.listdir(folder) != [
                    "sylvane.prom"] else []
        finally:
            exporter.terminate()
            exporter.wait(5)
    return faults


# Exact outputs: --metrics --json is refused, a file that cannot be written is the tool's
# failure (status 1, not the agent's 3); --ver still abbreviates --version.
EXACT = [
    Case("metrics_json_refused", ["--metrics", "--json"], status=2, stdout=(
        '{"version": 1, "ok": false, "error": "usage", "message": "--metrics writes '
        "Prometheus's text format; with --json, use --metrics-file.\"}\n"), connects=False),
    Case("metrics_file_empty_name", ["--metrics-file", ""], status=1,
         stderr="--metrics-file needs a file name.\n", agent=SERVICES, connects=False),
    Case("metrics_file_unwritable", ["--metrics-file", "/nonexistent/sylvane.prom"], status=1,
         stderr="Could not create a temporary file beside /nonexistent/sylvane.prom: No such file "
         "or directory.\n", agent=SERVICES),
    Case("version_abbreviated", ["--ver"], stdout="sylvane-service 0.1.0\n", connects=False),
    Case("verbose_alone_is_no_command", ["--verbose"], stdout=USAGE, connects=False),
]

# -- check_sylvane ----------------------------------------------------------------------
# The guidelines' grammar: "SYLVANE STATE - text" within 79 bytes, then optionally " | " and
# 'label'=value[unit];[warn];[crit];[min];[max] items separated by blanks.
PERFORMANCE = re.compile(r"'[^'=]+'=-?[0-9.]+(s|%|B|KB|MB|TB|c)?(;[-0-9.:~@]*){0,4}")
STATES = ["OK", "WARNING", "CRITICAL", "UNKNOWN"]
T = r"\d+\.\d{3} s"
# name: (fake agent script or None, arguments, status, status text as a pattern)
PLUGIN = {
    "plugin_up": (SERVICES, ["--service", "web"], 0,
                  "answered in %s, 1 of 4 services connected" % T),
    "plugin_down": (None, [], 2, r"no agent listening on 127\.0\.0\.1:11038"),
    "plugin_mute": ({}, ["-t", "0.5"], 2, r"no answer from the agent within 0\.5 s"),
    "plugin_busy": ({"get_tenants": [evict()]}, [], 3, "agent busy with another client"),
    "plugin_service_in_error": (SERVICES, ["--service", "web", "--service", "ftp"], 2,
                                "ftp error; answered in %s, 1 of 4 services connected" % T),
    "plugin_service_enabling": (SERVICES, ["--service=db"], 1,
                                "db enabling; answered in %s, 1 of 4 services connected" % T),
    "plugin_warning_crossed": (SERVICES, ["-w", "0.000001", "-c", "60"], 1,
                               r"answer took %s \(warning 0\.000001\), 1 of 4 .*"
                               % T),
    "plugin_critical_crossed": (SERVICES, ["-w", "60", "--critical=@0:60"], 2,
                                r"answer took %s \(critical @0:60\), 1 of 4 .*"
                                % T),
    "plugin_bad_threshold": (SERVICES, ["-w", "fast"], 3, "bad warning threshold 'fast'"),
}


def run_plugin(name, binary):
    script, args, status, pattern = PLUGIN[name]
    with tempfile.TemporaryDirectory() as folder:
        plugin = os.path.join(folder, "check_sylvane")
        os.symlink(os.path.abspath(binary), plugin)
        agent = FakeAgent(script) if script is not None else None
        start = time.monotonic()
        with agent or tempfile.TemporaryDirectory():
            result = subprocess.run([plugin] + args, env=tool_env(), capture_output=True,
                                    timeout=20)
        elapsed = time.monotonic() - start
    line = result.stdout.decode("utf-8", "replace")
    faults = [] if result.stderr == b"" else ["stderr %r" % result.stderr]
    text, _, data = line.rstrip("\n").partition(" | ")
    if result.returncode != status or not re.fullmatch(
            "SYLVANE %s - %s" % (STATES[status], pattern), text):
        faults.append("status %d, line %r" % (result.returncode, line))
    if not line.endswith("\n") or line.count("\n") != 1 or len(text.encode()) > 79:
        faults.append("not one line of at most 79 bytes before the data: %r" % line)
    if (data != "") != (script is SERVICES and status != 3):
        faults.append("performance data present when it should not be, or missing: %r" % data)
    faults += ["bad performance item %r" % item for item in data.split(" ")
               if data and not PERFORMANCE.fullmatch(item)]
    if elapsed > 2.5:
        faults.append("took %.1f s" % elapsed)
    if script is SERVICES and status != 3:
        faults += agent.errors + check_sent(agent.received, [("get_tenants", {})])
    return faults


def run_exact(name, binary):
    return check([c for c in EXACT if c.name == name][0], binary)[0]


RUNNERS = {**{n: run_trace for n in TRACES}, **{n: run_metrics for n in METRICS},
           "metrics_file_node_exporter": run_node_exporter, **{c.name: run_exact for c in EXACT},
           **{n: run_plugin for n in PLUGIN}}

if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        print(";".join(RUNNERS))
        sys.exit(0)
    found = RUNNERS[sys.argv[1]](sys.argv[1], sys.argv[2])
    if found is None:
        print("skipped %s: promtool or node_exporter is not installed" % sys.argv[1])
        sys.exit(SKIP)
    print("%s %s" % ("FAIL" if found else "ok", sys.argv[1]), *found, sep="\n  ")
    sys.exit(1 if found else 0)
