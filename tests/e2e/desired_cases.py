#!/usr/bin/env python3
"""desired_cases.py --list | CASE BINARY: --diff, --apply and --export against
the fake Transfer Agent. Each case writes its desired-state files into a
temporary folder ({dir} in the arguments), runs the tool one or more times and
checks the status, the output (JSON objects compared as values) and every
request sent after the announcement."""

import json
import os
import re
import subprocess
import sys
import tempfile

from cases import KEY, SUBSCRIBE, USAGE, listing, tenant
from fake_agent import FakeAgent, about_request, acknowledge, evict, reply, turns
from run_case import check_sent, tool_env

LIST = ("get_tenants", {})
PROXY_READ = ("get_proxy", {})

# The agent: one service per way a file can differ from it.
AGENT_SERVICES = [
    tenant("same", ip_address="127.0.0.1", port=80, virtual_port=80),
    tenant("moved", ip_address="127.0.0.1", port=81, virtual_port=81),
    tenant("off", "disconnected", ip_address="127.0.0.1", port=82, virtual_port=82),
    tenant("on", ip_address="127.0.0.1", port=83, virtual_port=83),
    tenant("old", ip_address="127.0.0.1", port=84, virtual_port=84),
]
FILE = """version: 1
services:
  new:
    target: 127.0.0.1:90
    clear_services: [intranet.example]
    enabled: true
  same: {target: 127.0.0.1:80, enabled: true}
  moved: {target: 127.0.0.2:81, virtual_port: 8081}
  off: {target: 127.0.0.1:82, enabled: true}
  on: {target: 127.0.0.1:83, enabled: false}
"""
SYNCED = about_request(status="connected", synchronized=True)
DISCONNECTED = about_request(status="disconnected")
# Answers every step of FILE's apply.
AGENT = {
    "get_tenants": [reply(listing(*AGENT_SERVICES))],
    "add_tenant": [reply({"added": True}), about_request(status="disconnected")],
    "edit_tenant": [reply({"edited": True})],
    "connect_tenants": [acknowledge(), SYNCED],
    "disconnect_tenants": [acknowledge(), DISCONNECTED],
    "remove_tenant": [reply({"removed": True})],
}
NEW = ("add_tenant", {"method": "api_key", "value": KEY, "name": "new", "ip_address": "127.0.0.1",
                      "port": 90, "virtual_port": 90, "clear_services": ["intranet.example"]})
STEPS = [NEW, ("edit_tenant", {"tenant_name": "moved", "ip_address": "127.0.0.2", "port": 81,
                               "virtual_port": 8081}),
         ("connect_tenants", {"tenants": ["new"]}), ("connect_tenants", {"tenants": ["off"]}),
         ("disconnect_tenants", {"tenants": ["on"]})]
REMOVE_OLD = ("remove_tenant", {"tenant_name": "old"})

PLAN_TEXT = """+ create service new: target 127.0.0.1:90, virtual_port 90, enabled true
~ update service moved: target 127.0.0.1:81 -> 127.0.0.2:81, virtual_port 81 -> 8081
~ enable service new (new)
~ enable service off (was disconnected)
~ disable service on (was connected)
  unchanged service same
  not managed service old: target 127.0.0.1:84, virtual_port 84, enabled true, status connected
Plan: 1 to create, 1 to update, 2 to enable, 1 to disable, 0 to remove; 1 unchanged, 1 not managed.
"""
APPLIED_TEXT = "".join(line + " ... done\n" for line in PLAN_TEXT.splitlines()[:5]) + (
    "Applied: 1 created, 1 updated, 2 enabled, 1 disabled, 0 removed; 1 unchanged, "
    "1 not managed.\n")


def summary(create=0, update=0, enable=0, disable=0, remove=0, unchanged=0, not_managed=0):
    return dict(create=create, update=update, enable=enable, disable=disable, remove=remove,
                unchanged=unchanged, not_managed=not_managed)


def step(service, action, state="done", **fields):
    return dict(version=1, object="service", service=service, action=action, state=state,
                **fields)


def service_state(target, virtual_port, **fields):
    return dict(target=target, virtual_port=virtual_port, **fields)


def change(service, action, before, after):
    return dict(object="service", service=service, action=action, before=before, after=after)


PRUNED_PLAN = dict(version=1, ok=True, pending=True, changes=[
    change("new", "create", None, service_state("127.0.0.1:90", 90, enabled=True)),
    change("moved", "update", service_state("127.0.0.1:81", 81), service_state("127.0.0.2:81", 8081)),
    change("new", "enable", dict(enabled=False), dict(enabled=True)),
    change("off", "enable", dict(enabled=False, status="disconnected"), dict(enabled=True)),
    change("on", "disable", dict(enabled=True, status="connected"), dict(enabled=False)),
    change("old", "remove", service_state("127.0.0.1:84", 84, enabled=True, status="connected"),
           None),
    change("same", "unchanged", service_state("127.0.0.1:80", 80, enabled=True, status="connected"),
           service_state("127.0.0.1:80", 80, enabled=True))],
    summary=summary(1, 1, 2, 1, 1, 1))

# A run: arguments, environment, expected status, stdout (text, or a list of
# JSON objects), stderr (text or a compiled pattern) and requests (None: the
# tool must not connect).
def run(args, status=0, stdout="", stderr="", sent=None, env=None):
    return dict(args=args, status=status, stdout=stdout, stderr=stderr, sent=sent, env=env or {})


KEYED = {"SYLVANE_API_KEY": KEY}
REFUSED_SENT = [LIST, SUBSCRIBE] + [("add_tenant", dict(NEW[1], name=name, port=port,
                                                         virtual_port=port, clear_services=[]))
                                    for name, port in [("a", 1), ("b", 2)]]
# name: (files, the agent's script, runs in order)
CASES = {
    "diff_plan_in_order_and_status_4": ({"f": FILE}, AGENT, [
        run(["--diff", "{dir}/f"], 4, PLAN_TEXT, sent=[LIST]),
        run(["--apply", "{dir}/f", "--dry-run"], 4, PLAN_TEXT, sent=[LIST])]),
    "diff_json_prune_removes": ({"f": FILE}, AGENT, [
        run(["--json", "--diff", "{dir}/f", "--prune"], 4, [PRUNED_PLAN], sent=[LIST])]),
    "apply_json_prune_every_action_in_order": ({"f": FILE}, AGENT, [
        run(["--json", "--apply", "{dir}/f", "--prune"], 0, [
            step("new", "create"), step("moved", "update"), step("new", "enable"),
            step("off", "enable"), step("on", "disable"), step("old", "remove"),
            dict(version=1, ok=True, changed=True, summary=summary(1, 1, 2, 1, 1, 1))],
            sent=[LIST, SUBSCRIBE] + STEPS + [REMOVE_OLD], env=KEYED)]),
    "apply_human_leaves_unmanaged": ({"f": FILE}, AGENT, [
        run(["--apply", "{dir}/f"], 0, APPLIED_TEXT, sent=[LIST, SUBSCRIBE] + STEPS, env=KEYED)]),
    "apply_no_wait_returns_at_acknowledgements": ({"f": FILE}, dict(
        AGENT, add_tenant=[reply({"added": True})], connect_tenants=[acknowledge()],
        disconnect_tenants=[acknowledge()]), [
        run(["--apply", "{dir}/f", "--no-wait"], 0, APPLIED_TEXT, sent=[LIST] + STEPS,
            env=KEYED)]),
    "apply_again_sends_no_change": ({"f": "version: 1\nservices:\n  same: {target: "
                                          "127.0.0.1:80, enabled: true}\n"}, AGENT, [
        run(["--apply", "{dir}/f"], 0, "Nothing to do: the agent matches the file (1 unchanged, "
            "4 not managed).\n", sent=[LIST], env=KEYED)]),
    # The second create is refused: the first stays done, the enable is not tried.
    "apply_stops_at_refused_step": ({"f": "version: 1\nservices:\n  a: {target: 127.0.0.1:1}\n"
                                          "  b: {target: 127.0.0.1:2, enabled: true}\n"}, dict(
        AGENT, get_tenants=[reply(listing())],
        add_tenant=turns([reply({"added": True}), about_request(status="disconnected")],
                         [reply({"added": False, "reason": "Invalid API key."})])), [
        run(["--json", "--apply", "{dir}/f"], 1, [
            step("a", "create"), step("b", "create", "failed", reason="Invalid API key."),
            dict(version=1, ok=False, error="refused",
                 message="Could not create service 'b': Invalid API key.", service="b",
                 reason="Invalid API key.", changed=True, summary=summary(create=1),
                 not_tried=[dict(object="service", service="b", action="enable")])],
            sent=REFUSED_SENT, env=KEYED),
        run(["--apply", "{dir}/f"], 1,
            "+ create service a: target 127.0.0.1:1, virtual_port 1 ... done\n",
            "+ create service b: target 127.0.0.1:2, virtual_port 2, enabled true ... failed: "
            "Could not create service 'b': Invalid API key.\nStopped: 1 created, 0 updated, "
            "0 enabled, 0 disabled, 0 removed.\nNot tried:\n  ~ enable service b (new)\n",
            sent=REFUSED_SENT, env=KEYED)]),
    # A step that does not settle, or the agent turning to another client
    # mid-run: the same report, status 1 in both modes, the code kept.
    **{name: ({"f": "version: 1\nservices:\n  a: {target: 127.0.0.1:1}\n"
                    "  b: {target: 127.0.0.1:2}\n"}, dict(
        AGENT, get_tenants=[reply(listing())], add_tenant=turns(
            [reply({"added": True}), about_request(status="disconnected")], second)), [
        run(["--json", "--apply", "{dir}/f", "--wait", "1"], 1, [
            step("a", "create"), step("b", "create", "failed"),
            dict(version=1, ok=False, error=code, message="Could not create service 'b': "
                 + why + ".", service="b", changed=True, summary=summary(create=1),
                 not_tried=[])], sent=REFUSED_SENT, env=KEYED),
        run(["--apply", "{dir}/f", "--wait", "1"], 1,
            "+ create service a: target 127.0.0.1:1, virtual_port 1 ... done\n",
            "+ create service b: target 127.0.0.1:2, virtual_port 2 ... failed: Could not "
            "create service 'b': " + why + "\nStopped: 1 created, 0 updated, 0 enabled, "
            "0 disabled, 0 removed.\n", sent=REFUSED_SENT, env=KEYED)])
       for name, second, code, why in [
           ("apply_step_timeout_exits_1", [reply({"added": True})], "timeout",
            "not settled within 1 seconds"),
           ("apply_busy_mid_run_reports_steps", [evict()], "busy",
            "the Transfer Agent serves another client now")]},
    "apply_create_without_key_sends_nothing": ({"f": FILE}, AGENT, [
        run(["--apply", "{dir}/f"], 1, "", "Creating services needs an API key: give "
            "--api-key-file, SYLVANE_API_KEY or -k.\n", sent=[LIST])]),
    # Export, then apply of its output: nothing to do, only the reads.
    "export_round_trip": ({}, dict(AGENT, get_proxy=[reply(
        {"type": "Socks5", "ip_address": "10.0.0.1", "port": 1080, "enabled": True})]), [
        run(["--export"], 0, None, sent=[LIST, PROXY_READ]),
        run(["--apply", "{dir}/exported"], 0, "Nothing to do: the agent matches the file "
            "(6 unchanged, 0 not managed).\n", sent=[LIST, PROXY_READ])]),
}

# Every kind of bad file is refused before connecting, as FILE:LINE:COLUMN.
for name, text in [("unknown_key", "version: 1\nservices:\n  a: {target: 127.0.0.1:1, colour: red}\n"),
                   ("duplicate_name", "version: 1\nservices:\n  a: {target: 127.0.0.1:1}\n"
                                      "  a: {target: 127.0.0.1:2}\n"),
                   ("wrong_version", "version: 2\n"),
                   ("bad_target", "version: 1\nservices:\n  a: {target: 127.0.0.1:0}\n"),
                   ("key_in_file", "version: 1\nservices:\n  a: {target: 127.0.0.1:1, api_key: x}\n"),
                   ("not_yaml", "version: 1\nservices: [\n")]:
    CASES["bad_file_" + name] = ({"f": text}, AGENT, [
        run(["--apply", "{dir}/f"], 1, "", re.compile(r"{dir}/f:\d+:\d+: .+\n"), env=KEYED)])
CASES["bad_file_json"] = ({"f": "version: 2\n"}, AGENT, [
    run(["--diff", "{dir}/f", "--json"], 1, [dict(
        version=1, ok=False, error="bad_argument",
        message="{dir}/f:1:10: version: this tool reads version 1, got \"2\"")])])
for name, args, reason in [("prune_needs_diff_or_apply", ["-l", "--prune"],
                            "--prune applies to --diff and --apply only.\n"),
                           ("dry_run_needs_apply", ["--diff", "x", "--dry-run"],
                            "--dry-run applies to --apply only.\n"),
                           ("key_not_for_diff", ["--diff", "x", "-k", KEY],
                            "Option -k is not used by --diff.\n")]:
    CASES["usage_" + name] = ({}, AGENT, [run(args, 2, USAGE, reason)])


def matches(got, want):
    return json.dumps(got, sort_keys=True) == json.dumps(want, sort_keys=True)


def fill(value, folder):
    """`value` with {dir} replaced, inside strings, lists and dicts."""
    if isinstance(value, str):
        return value.replace("{dir}", folder)
    if isinstance(value, list):
        return [fill(v, folder) for v in value]
    if isinstance(value, dict):
        return {k: fill(v, folder) for k, v in value.items()}
    return value


def check_run(binary, folder, expected, script):
    faults = []
    agent = FakeAgent(script)
    with agent:
        result = subprocess.run(["sylvane-service"] + fill(expected["args"], folder),
                                executable=binary, env=tool_env(**expected["env"]),
                                stdin=subprocess.DEVNULL, capture_output=True, timeout=40)
    out, err = result.stdout.decode(), result.stderr.decode()
    if expected["args"] == ["--export"]:
        with open(os.path.join(folder, "exported"), "w") as exported:
            exported.write(out)
    elif isinstance(expected["stdout"], list):
        try:
            got = [json.loads(line) for line in out.splitlines()]
        except ValueError:
            got = out
        if not matches(got, fill(expected["stdout"], folder)):
            faults.append("stdout:\n  got      %r\n  expected %r" % (got, expected["stdout"]))
    elif out != expected["stdout"]:
        faults.append("stdout:\n  got      %r\n  expected %r" % (out, expected["stdout"]))
    want_err = expected["stderr"]
    if (want_err.fullmatch(err) is None if isinstance(want_err, re.Pattern)
            else err != want_err.replace("{dir}", folder)):
        faults.append("stderr:\n  got      %r\n  expected %r" % (err, want_err))
    if result.returncode != expected["status"]:
        faults.append("status %d, expected %d" % (result.returncode, expected["status"]))
    faults += agent.errors
    if expected["sent"] is None and agent.connections:
        faults.append("the tool connected although it should not have")
    elif expected["sent"] is not None:
        faults += check_sent(agent.received, expected["sent"])
    return faults


def main(name, binary):
    files, script, runs = CASES[name]
    faults = []
    with tempfile.TemporaryDirectory() as folder:
        for file_name, text in files.items():
            with open(os.path.join(folder, file_name), "w") as desired:
                desired.write(text)
        for number, expected in enumerate(runs):
            if isinstance(expected["stderr"], re.Pattern):
                expected["stderr"] = re.compile(expected["stderr"].pattern.replace(
                    "{dir}", re.escape(folder)))
            faults += ["run %d: %s" % (number + 1, f)
                       for f in check_run(binary, folder, expected, script)]
    print("%s %s" % ("FAIL" if faults else "ok", name), *faults, sep="\n  ")
    return 1 if faults else 0


if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        print(";".join(CASES))
    else:
        sys.exit(main(sys.argv[1], sys.argv[2]))
