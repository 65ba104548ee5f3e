"""The end-to-end cases: one invocation of the tool each, with the fake
Transfer Agent's script and what the tool must print, return and send.

`python3 cases.py --list` prints the case names (CMake reads them).
"""

import json
import sys
from dataclasses import dataclass

from fake_agent import evict, event, event_data, ping, raw, reply, wait


class _Absent:
    def __repr__(self):
        return "<no data>"


ABSENT = _Absent()  # a request sent without a "data" key

QUICK = 3.5  # cases settled by an answer; a time-out would also change the output
SLACK = 1.5  # how late a time-out may end on a loaded machine


@dataclass
class Case:
    name: str
    args: list
    stdout: str = ""
    stderr: str = ""
    status: int = 0
    agent: dict = None  # script of the fake agent; None: nothing listens
    sent: list = None  # (command, data) after the announcement; None: unchecked
    connects: bool = None  # False: the tool must not connect at all
    elapsed: tuple = (0.0, QUICK)
    pongs: tuple = ()


def after(seconds):
    return (seconds, seconds + SLACK)


USAGE = (
    "Usage: sylvane-service [-hlg][-a name -p ipv4:port -f userAccessPort -k ApiKey -u clearServices][-d name][-c ipv4:port -t proxyType]\n"
    "\n"
    "with:\n"
    "-a name -p addr:port -k ApiKey\n"
    "\t -a: Declare a new service with name 'name'\n"
    "\t -p: Set 'address' and 'port' of target service.\n"
    "\t -f: Set user access port of target service.\n"
    "\t -k: API key copied from Sylvane manager.\n"
    "\t -u: List of clear services.\n"
    "-r name\t\t\t\tRemove service 'name'\n"
    "-l\t\t\t\tList the previously declared services with associated attributes (like onion addresses)\n"
    "-h\t\t\t\tPrint this help message\n"
    "\n"
    "-s name\t\t\t\tEnable service 'name'.\n"
    "-d name\t\t\t\tDisable service 'name'.\n"
    "-e name -p addr:port\t\tEdit service 'name' with new 'address' and 'port'\n"
    "\n"
    "-u clearServices\t\tList of clear services\n"
    "\n"
    "-c addr:port -t ProxyType\tConfigure proxy (with ProxyType set to HTTP, HTTPS or Socks5)\n"
    "-g\t\t\t\tGet current proxy configuration\n"
    "\n"
    "--enableProxy\t\t\t\tEnable proxy\n"
    "\n"
    "--disableProxy\t\t\t\tDisable proxy\n"
    "\n"
    "--enableAuthenticationAudit\t\t\t\tEnable authentication audit\n"
    "\n"
    "--disableAuthenticationAudit\t\t\t\tDisable authentication audit\n"
    "\n"
    "--saveTraceabilityConfig console\t\t\t\tSet traceability logger configuration. Tracking logs will be displayed in the console\n"
    "\n"
    "--saveTraceabilityConfig file [logFolderPath filenameFormat maxFileSize]\t\t\t\tSet traceability logger configuration. Tracking logs will be written in files located in the specified path\n"
    "\n"
    "--saveTraceabilityConfig syslog [syslogServerAddress syslogServerPort syslogServerProtocol]\t\t\t\tSet traceability logger configuration. Tracking logs will be forwarded to a syslog server\n"
    "\n"
    "Usage example:\n"
    "   sylvane-service -l\n"
    "   sylvane-service -a WebServer1 -p 127.0.0.1:443 -f 8082 -k APIKey -u firstDomainName,127.0.0.1,secondDomainName"
    "\n")  # puts adds the last newline

KEY = ("Zk9Qa1B2c3R4" * 7)[:76]
SUBSCRIBE = ("subscription", {"subscriptions": ["services_subscription"]})
NO_ANSWER = "Transfer Agent process did not respond in expected time. Please retry.\n"
NO_AGENT = ("Transfer Agent process did not respond in expected time. Please retry. "
            "Make sure the Sylvane Network process is currently running\n")
BUSY = ("Could not execute command because another program is executing operation with "
        "the Transfer Agent. You probably have a Graphic User interface or another client "
        "communicating with the Sylvane service. Please close the client then retry.\n")
BAD_EVENT = "Error while trying to add a service. Server responded with bad formatted answer\n"

CASES = []


def add(*cases):
    for case in cases:
        assert all(c.name != case.name for c in CASES), case.name
        CASES.append(case)


def usage(name, args, stderr=""):
    """Usage problems: the text on stdout, status 0, nothing sent."""
    return Case(name, args, stdout=USAGE, stderr=stderr, agent={}, connects=False)


def refused(name, args, stderr):
    """Arguments refused before anything is sent."""
    return Case(name, args, stderr=stderr, status=1, agent={}, connects=False)


def tenant(name, status="connected", **fields):
    return dict(tenant_name=name, status=status, **fields)


# -- command line and dispatch ----------------------------------------------

add(
    usage("usage_no_arguments", []),
    usage("usage_help", ["-h"]),
    usage("usage_help_long", ["--help"]),
    usage("usage_help_after_options", ["-a", "web1", "-h", "-l"]),
    usage("usage_stray_word", ["list"]),
    usage("usage_unknown_option", ["-x", "--enableProxy"],
          stderr="sylvane-service: invalid option -- 'x'\n"),
    usage("usage_unused_letter", ["-b"], stderr="sylvane-service: invalid option -- 'b'\n"),
    usage("usage_missing_argument", ["-r"],
          stderr="sylvane-service: option requires an argument -- 'r'\n"),
    usage("usage_long_option_not_first", ["-p", "1.2.3.4:80", "--enableProxy"]),
    usage("usage_long_option_abbreviated", ["--enableProx"]),
    usage("usage_add_without_key", ["-a", "web1", "-p", "1.2.3.4:80"]),
    usage("usage_add_without_address", ["-a", "web1", "-k", KEY]),
    usage("usage_edit_needs_p", ["-e", "web1", "-c", "1.2.3.4:80"]),
    usage("usage_proxy_without_type", ["-c", "1.2.3.4:80"]),
    usage("usage_traceability_missing", ["--saveTraceabilityConfig"],
          stderr="sylvane-service: option '--saveTraceabilityConfig' requires an argument\n"),
    usage("usage_traceability_console_extra", ["--saveTraceabilityConfig", "console", "x"]),
    usage("usage_traceability_file_short", ["--saveTraceabilityConfig", "file", "/var/log"]),
    usage("usage_traceability_unknown_target",
          ["--saveTraceabilityConfig", "stdout", "a", "b", "c"]),
    usage("usage_traceability_too_many",
          ["--saveTraceabilityConfig", "syslog", "1.2.3.4", "514", "UDP", "x"]),
)

LISTED_EMPTY = {"get_tenants": [reply({"tenants": []})]}
REMOVED = {"remove_tenant": [reply({"removed": True})]}
ADDED_WEB2 = {"add_tenant": [reply({"added": True}),
                             event(tenant("web2", onion_address="x.onion"))]}

add(
    Case("first_immediate_option_wins", ["-l", "-r", "web1"],
         stdout="No registered services yet.\n", agent=dict(LISTED_EMPTY, **REMOVED),
         sent=[("get_tenants", {})]),
    Case("remove_before_list", ["-r", "web1", "-l"], stdout="Service removed.\n",
         agent=dict(LISTED_EMPTY, **REMOVED),
         sent=[("remove_tenant", {"tenant_name": "web1"})]),
    Case("list_before_long_option", ["-l", "--enableProxy"],
         stdout="No registered services yet.\n", agent=LISTED_EMPTY,
         sent=[("get_tenants", {})]),
    Case("list_long_form", ["--list"], stdout="No registered services yet.\n",
         agent=LISTED_EMPTY, sent=[("get_tenants", {})]),
    Case("add_later_name_wins", ["-a", "web1", "-e", "web2", "-p", "1.2.3.4:80", "-k", KEY],
         stdout="Service added successfully.\n", agent=ADDED_WEB2,
         sent=[SUBSCRIBE, ("add_tenant", {
             "method": "api_key", "value": KEY, "name": "web2", "ip_address": "1.2.3.4",
             "port": 80, "virtual_port": 80, "clear_services": []})]),
    Case("proxy_later_address_wins",
         ["-c", "1.2.3.4:80", "-t", "HTTP", "-p", "5.6.7.8:90"],
         stdout="Proxy configuration successfully saved.\n",
         agent={"save_proxy": [reply({"success": True})]},
         sent=[("save_proxy", {"ip_address": "5.6.7.8", "port": 90, "proxy_type": "HTTP"})]),
    Case("proxy_address_c_after_p",
         ["-e", "web1", "-p", "5.6.7.8:90", "-c", "1.2.3.4:80", "-t", "HTTPS"],
         stdout="Service edited successfully.\n",
         agent={"edit_tenant": [reply({"edited": True})]},
         sent=[("edit_tenant", {"tenant_name": "web1", "ip_address": "1.2.3.4", "port": 80,
                                "virtual_port": 80})]),
)

# -- add ----------------------------------------------------------------------

ADD = ["-a", "web1", "-p", "127.0.0.1:443", "-k", KEY]


def add_data(name="web1", ip="127.0.0.1", port=443, virtual_port=443, clear=()):
    return {"method": "api_key", "value": KEY, "name": name, "ip_address": ip, "port": port,
            "virtual_port": virtual_port, "clear_services": list(clear)}


LONG_NAME = "s" * 300

add(
    Case("add_full", ADD + ["-f", "8082", "-u", "firstDomainName.net,010.0.0.1,b"],
         stdout="Service added successfully.\n",
         agent={"add_tenant": [reply({"added": True}),
                               event(tenant("other", onion_address="o.onion")),
                               event(tenant("web1", status="in progress",
                                            onion_address="w.onion"))]},
         sent=[SUBSCRIBE, ("add_tenant", add_data(
             virtual_port=8082, clear=["firstDomainName.net", "10.0.0.1", "b"]))]),
    Case("add_long_name_cut", ["-a", LONG_NAME, "-p", "1.2.3.4:80", "-k", KEY],
         stderr=NO_AGENT, status=1, agent={"add_tenant": [reply({"added": True})]},
         elapsed=after(4),
         sent=[SUBSCRIBE, ("add_tenant", add_data(
             name=LONG_NAME[:255], ip="1.2.3.4", port=80, virtual_port=80))]),
    Case("add_forwarding_text_compare", ADD + ["-f", "0443"],
         stdout="Service added successfully.\n",
         agent={"add_tenant": [reply({"added": True}),
                               event(tenant("web1", onion_address=""))]},
         sent=[SUBSCRIBE, ("add_tenant", add_data())]),
    Case("add_event_before_answer", ADD, stdout="Service added successfully.\n",
         agent={"add_tenant": [event(tenant("web1", onion_address="w.onion")),
                               reply({"added": True})]},
         sent=[SUBSCRIBE, ("add_tenant", add_data())]),
    Case("add_event_unparsable_element_stops", ADD, stderr=NO_AGENT, status=1,
         agent={"add_tenant": [reply({"added": True}),
                               event_data({"tenants": ["{not json",
                                                       '{"tenant_name": "web1", '
                                                       '"onion_address": "w.onion"}']})]},
         elapsed=after(4)),
    Case("add_event_empty_list_waits", ADD, stdout="Service added successfully.\n",
         agent={"add_tenant": [reply({"added": True}), event_data({"tenants": []}),
                               event(tenant("web1", onion_address="w.onion"))]}),
    Case("add_event_without_list", ADD, stderr=BAD_EVENT, status=1,
         agent={"add_tenant": [reply({"added": True}), event_data({"services": []})]}),
    Case("add_event_null_data", ADD, stderr=BAD_EVENT, status=1,
         agent={"add_tenant": [reply({"added": True}), event_data(None)]}),
    Case("add_event_element_not_string", ADD, stderr=BAD_EVENT, status=1,
         agent={"add_tenant": [reply({"added": True}),
                               event_data({"tenants": [{"tenant_name": "web1"}]})]}),
    Case("add_event_without_onion_address", ADD, stderr=BAD_EVENT, status=1,
         agent={"add_tenant": [reply({"added": True}), event(tenant("other"))]}),
    Case("add_no_answer", ADD, stderr=NO_AGENT, status=1, agent={}, elapsed=after(4),
         sent=[SUBSCRIBE, ("add_tenant", add_data())]),
    refused("add_bad_address", ["-a", "web1", "-p", "127.0.0.1", "-k", KEY],
            "Bad format specified in p parameter. Expected ip_address:port. "
            "For example: 127.0.0.1:80\n"),
    refused("add_bad_ip", ["-a", "web1", "-p", "256.0.0.1:80", "-k", KEY],
            "Bad format specified in p parameter. Expected ip_address:port. "
            "For example: 127.0.0.1:80\n"),
    refused("add_same_ports", ADD + ["-f", "443"],
            "Final port and virtual port must be different when port forwarding is enabled.\n"),
    refused("add_bad_forwarding", ADD + ["-f", "70000"],
            "Bad format specified in f parameter. Expected virtual port.\n"),
    refused("add_short_key", ["-a", "web1", "-p", "1.2.3.4:80", "-k", KEY[:75]],
            "Bad format specified in k parameter. Expected length of 76\n"),
    refused("add_long_key", ["-a", "web1", "-p", "1.2.3.4:80", "-k", KEY + "x"],
            "Bad format specified in k parameter. Expected length of 76\n"),
    refused("add_bad_clear_services", ADD + ["-u", "a.com,"],
            "Bad format specified in u parameter. Expected list of clear services(domain "
            "name or ip address). For example: firstDomainName.net,127.0.0.1,"
            "secondDomainName\n"),
)

# -- answers of add, edit and remove ------------------------------------------
# (command, option words, key, verb)
SERVICE_COMMANDS = [
    ("add_tenant", ADD, "added", "add"),
    ("edit_tenant", ["-e", "web1", "-p", "127.0.0.1:443"], "edited", "edit"),
    ("remove_tenant", ["-r", "web1"], "removed", "remove"),
]
for command, args, key, verb in SERVICE_COMMANDS:
    add(
        Case("%s_refused" % verb, args,
             stderr="Could not %s service 'web1'. Service is busy\n" % verb, status=1,
             agent={command: [reply({key: False, "reason": "Service is busy"})]}),
        Case("%s_refused_without_reason" % verb, args,
             stderr="Error while trying to %s the service. Please check the arguments\n" % verb,
             status=1, agent={command: [reply({key: False})]}),
        Case("%s_bad_answer" % verb, args,
             stderr="Error while trying to %s the service. Internal process responded with a "
                    "bad formatted message. Please retry.\n" % verb,
             status=1, agent={command: [reply({key: "true"})]}),
    )

add(
    Case("edit_ok", ["-e", "web1", "-p", "10.1.2.3:8080", "-f", "9090", "-k", "ignored",
                     "-u", "-bad-"],
         stdout="Service edited successfully.\n",
         agent={"edit_tenant": [reply({"edited": True})]},
         sent=[("edit_tenant", {"tenant_name": "web1", "ip_address": "10.1.2.3", "port": 8080,
                                "virtual_port": 9090})]),
    Case("edit_long_name_cut", ["-e", LONG_NAME, "-p", "1.2.3.4:80"],
         stdout="Service edited successfully.\n",
         agent={"edit_tenant": [reply({"edited": True})]},
         sent=[("edit_tenant", {"tenant_name": LONG_NAME[:255], "ip_address": "1.2.3.4",
                                "port": 80, "virtual_port": 80})]),
    refused("edit_bad_address", ["-e", "web1", "-p", "1.2.3:80"],
            "Bad format specified in p parameter. Expected ip_address:port. "
            "For example: 127.0.0.1:80\n"),
    refused("edit_same_ports", ["-e", "web1", "-p", "1.2.3.4:80", "-f", "80"],
            "Final port and virtual port must be different when port forwarding is enabled.\n"),
    Case("remove_long_name_uncut", ["-r", LONG_NAME], stdout="Service removed.\n",
         agent=REMOVED, sent=[("remove_tenant", {"tenant_name": LONG_NAME})]),
    Case("remove_no_answer", ["--remove", "web1"], stderr=NO_ANSWER, status=1, agent={},
         elapsed=after(4), sent=[("remove_tenant", {"tenant_name": "web1"})]),
)

# -- listing ------------------------------------------------------------------

LISTING = [
    tenant("web1", uuid="0f8fad5b-d9cb-469f-a165-70867728950e", ip_address="127.0.0.1",
           port=443, virtual_port=8082, onion_address="abc.onion"),
    tenant("web2", status="in progress", uuid="u2", ip_address="10.0.0.2", port=80,
           virtual_port=80, onion_address="hidden.onion"),
    tenant("web3", status="error", uuid="u3", ip_address="", port=0, virtual_port=81),
    tenant("web4", status="disconnected", uuid="u4"),
    {"tenant_name": "web5", "status": "connected", "ip_address": "1.1.1.1", "port": 22,
     "virtual_port": 2222, "uuid": "u5", "onion_address": ""},
]
LISTED = (
    "----------------------------------------\n"
    "Service:\tweb1\nUuid:\t\t0f8fad5b-d9cb-469f-a165-70867728950e\n"
    "IP address:\t127.0.0.1\nPort:\t\t443\nVirtual port:\t8082\nStatus:\t\tEnabled\n"
    "Onion address:\tabc.onion\n"
    "----------------------------------------\n"
    "Service:\tweb2\nUuid:\t\tu2\nIP address:\t10.0.0.2\nPort:\t\t80\n"
    "Virtual port:\tNot set\nStatus:\t\tEnabling in progress\n"
    "----------------------------------------\n"
    "Service:\tweb3\nUuid:\t\tu3\nIP address:\tUnknown\nPort:\t\tUnknown\n"
    "Virtual port:\t81\nStatus:\t\tError\n"
    "----------------------------------------\n"
    "Service:\tweb4\nUuid:\t\tu4\nIP address:\tUnknown\nPort:\t\tUnknown\n"
    "Virtual port:\tNot set\nStatus:\t\tDisabled\n"
    "----------------------------------------\n"
    "Service:\tweb5\nUuid:\t\tu5\nIP address:\t1.1.1.1\nPort:\t\t22\n"
    "Virtual port:\t2222\nStatus:\t\tEnabled\n")


def listing(*items):
    """A "tenants" list: dicts go as JSON strings, strings as they are
    (garbage included), anything else as a non-string element."""
    return {"tenants": [json.dumps(i) if isinstance(i, dict) else i for i in items]}


add(
    Case("list_services", ["-l"], stdout=LISTED,
         agent={"get_tenants": [reply(listing(*LISTING))]}, sent=[("get_tenants", {})]),
    Case("list_skips_non_strings_and_stops_at_garbage", ["-l"],
         stdout=LISTED[:LISTED.index("\n----") + 1],
         agent={"get_tenants": [reply(listing(None, LISTING[0], 7, "{oops", LISTING[1]))]}),
    Case("list_missing_list", ["-l"], stdout="No registered services yet.\n",
         agent={"get_tenants": [reply({})]}),
    Case("list_null_data", ["-l"], stdout="No registered services yet.\n",
         agent={"get_tenants": [reply(None)]}),
    # Frames: fragmented, 16-bit and 64-bit lengths, a ping before the answer.
    Case("list_fragmented_answer", ["-l"], stdout=LISTED,
         agent={"get_tenants": [reply(listing(*LISTING), pieces=4, pause=0.05)]}),
    Case("list_answer_64bit_length", ["-l"], stdout=LISTED,
         agent={"get_tenants": [reply(listing(*LISTING), length_bits=64)]}),
    Case("list_small_answer_16bit_length", ["-l"], stdout="No registered services yet.\n",
         agent={"get_tenants": [reply({"tenants": []}, length_bits=16)]}),
    Case("list_after_ping", ["-l"], stdout="No registered services yet.\n",
         # The client's pong carries "{}", not the ping's payload.
         agent={"get_tenants": [ping(b"hello"), wait(0.2), reply({"tenants": []})]},
         pongs=(b"{}",)),
    # Whatever arrives for the pending command consumes it.
    Case("list_wrong_id", ["-l"], agent={"get_tenants": [reply({"tenants": []}, id_shift=1)]},
         sent=[("get_tenants", {})]),
    Case("list_garbage_answer", ["-l"], agent={"get_tenants": [raw("{not json")]}),
    Case("list_no_agent", ["-l"], stderr=NO_ANSWER, status=1, elapsed=after(2)),
    Case("list_no_answer", ["-l"], stderr=NO_ANSWER, status=1, agent={}, elapsed=after(2),
         sent=[("get_tenants", {})]),
)

# -- busy Transfer Agent --------------------------------------------------------

add(
    Case("busy_at_connection", ["-g"], stderr=BUSY, status=1,
         agent={"connection": [evict()]}),
    Case("busy_instead_of_answer", ["-s", "web1"], stderr=BUSY, status=1,
         agent={"connect_tenants": [evict()]},
         sent=[SUBSCRIBE, ("connect_tenants", {"tenants": ["web1"]})]),
)

# -- enabling -------------------------------------------------------------------

ENABLE = ["-s", "web1"]
ENABLE_SENT = [SUBSCRIBE, ("connect_tenants", {"tenants": ["web1"]})]


def ack(name="web1", accepted=True, **fields):
    return listing(dict(tenant_name=name, ack=accepted, **fields))


REQUESTED = "Requested service enabling for 'web1'...\n"
ENABLE_FAILED = "Could not enable service 'web1'. "

add(
    Case("enable_synchronized", ENABLE,
         stdout=REQUESTED + "Service enabling in progress....\nSyncing...."
                "\nService enabled and synchronized successfully.\n",
         agent={"connect_tenants": [
             reply(ack()), event(tenant("web1", "in progress")),
             event(tenant("other", "in progress"), tenant("web1", "in progress")),
             event(tenant("web1", synchronized=False), tenant("web1", "error")),
             event(tenant("web1", synchronized=True))]},
         sent=ENABLE_SENT),
    Case("enable_synchronized_as_text", ENABLE,
         stdout=REQUESTED + "\nSyncing..."
                "\nService enabled and synchronized successfully.\n",
         agent={"connect_tenants": [reply(ack()), event(tenant("web1", synchronized="true"))]}),
    Case("enable_events_before_answer", ENABLE,
         stdout="Service enabling in progress..." + REQUESTED +
                "\nSyncing...\nService enabled and synchronized successfully.\n",
         agent={"connect_tenants": [event(tenant("web1", "in progress")), reply(ack()),
                                    event(tenant("web1", synchronized=True))]}),
    Case("enable_ends_syncing_at_timeout", ENABLE,
         stdout=REQUESTED + "Service enabling in progress....\nSyncing..."
                "\nService enabled successfully.\n",
         agent={"connect_tenants": [
             reply(ack()), event(tenant("web1", "in progress")),
             event(tenant("web1", "in progress")),
             event(tenant("web1", synchronized="false"))]},
         elapsed=after(15)),
    Case("enable_still_in_progress_at_timeout", ENABLE,
         stdout=REQUESTED + "Service enabling in progress...",
         stderr="\nService is still not enabled after 15 seconds.\nTransfer Agent will "
                "continue trying to enable it but you should probably check that you can "
                "access Sylvane network from this machine and whether provided API key is "
                "correct.\n",
         status=1,
         agent={"connect_tenants": [reply(ack()), event(tenant("web1", "in progress"))]},
         elapsed=after(15)),
    Case("enable_connected_without_progress", ENABLE, stdout=REQUESTED + "\nSyncing...",
         stderr=NO_ANSWER, status=1,
         agent={"connect_tenants": [reply(ack()), event(tenant("web1"))]},
         elapsed=after(15)),
    Case("enable_refused", ENABLE, stderr=ENABLE_FAILED + "Unknown service\n", status=1,
         agent={"connect_tenants": [reply(listing(
             "{garbage", dict(tenant_name="other", ack=True),
             dict(tenant_name="web1", ack=False, reason="Unknown service")))]}),
    Case("enable_refused_without_reason", ENABLE, stderr=ENABLE_FAILED + "\n", status=1,
         agent={"connect_tenants": [reply(ack(accepted=False))]}),
    Case("enable_answer_without_list", ENABLE,
         stderr="An error occurred while enabling service.\n", status=1,
         agent={"connect_tenants": [reply({"acks": []})]}),
    Case("enable_disconnection_event", ENABLE,
         stdout=REQUESTED,
         stderr="\n" + ENABLE_FAILED + "Received a disconnection event.\n", status=1,
         agent={"connect_tenants": [reply(ack()), event(tenant("web1", "disconnected"))]}),
    Case("enable_error_event_hides_reason", ENABLE, stdout=REQUESTED,
         stderr="\n" + ENABLE_FAILED + "\n", status=1,
         agent={"connect_tenants": [reply(ack()),
                                    event(tenant("web1", "error", reason="Bad API key"))]}),
    Case("enable_event_element_not_string", ENABLE, stdout=REQUESTED, stderr=BAD_EVENT,
         status=1,
         agent={"connect_tenants": [reply(ack()), event_data({"tenants": [3]})]}),
    Case("enable_event_without_list", ENABLE, stdout=REQUESTED, stderr=BAD_EVENT, status=1,
         agent={"connect_tenants": [reply(ack()), event_data({})]}),
)

# -- disabling ------------------------------------------------------------------

DISABLE = ["-d", "web1"]
DISABLED_REQUESTED = "Requested service disabling for 'web1'...\n"

add(
    Case("disable_ok", DISABLE,
         stdout=DISABLED_REQUESTED + "Service disabled successfully.\n",
         agent={"disconnect_tenants": [reply(ack()), event(tenant("web1", "connected")),
                                       event(tenant("other", "disconnected"),
                                             tenant("web1", "disconnected"))]},
         sent=[SUBSCRIBE, ("disconnect_tenants", {"tenants": ["web1"]})]),
    Case("disable_refused_hides_reason", ["--disable", "web1"],
         stderr="Could not disable service 'web1'. \n", status=1,
         agent={"disconnect_tenants": [reply(ack(accepted=False, reason="Unknown"))]}),
    Case("disable_answer_without_list", DISABLE,
         stderr="An error occurred while disabling service.\n", status=1,
         agent={"disconnect_tenants": [reply({})]}),
    Case("disable_event_element_not_string", DISABLE, stdout=DISABLED_REQUESTED,
         stderr=BAD_EVENT, status=1,
         agent={"disconnect_tenants": [reply(ack()), event_data({"tenants": [None]})]}),
    Case("disable_not_disconnected_in_time", DISABLE, stdout=DISABLED_REQUESTED,
         stderr=NO_ANSWER, status=1,
         agent={"disconnect_tenants": [reply(ack()), event(tenant("web1", "in progress"))]},
         elapsed=after(5)),
)

# -- proxy ----------------------------------------------------------------------

PROXY = {"type": "SOCKS5", "ip_address": "192.168.1.10", "enabled": True, "port": 1080}


def without(key):
    return {k: v for k, v in PROXY.items() if k != key}


add(
    Case("get_proxy_enabled", ["-g"],
         stdout="---------- Proxy configuration ----------\nIP address:\t192.168.1.10\n"
                "Port:\t\t1080\nType:\t\tSOCKS5\nStatus:\t\tEnabled\n",
         agent={"get_proxy": [reply(PROXY)]}, sent=[("get_proxy", {})]),
    Case("get_proxy_disabled", ["--getProxy"],
         stdout="---------- Proxy configuration ----------\nIP address:\t0.0.0.0\n"
                "Port:\t\t0\nType:\t\tHTTP\nStatus:\t\tDisabled\n",
         agent={"get_proxy": [reply({"type": "HTTP", "ip_address": "0.0.0.0",
                                     "enabled": False, "port": 0})]}),
    Case("get_proxy_no_answer", ["-g"], stderr=NO_AGENT, status=1, agent={},
         elapsed=after(4)),
)
for key, text in [("type", "type"), ("ip_address", "IP address"), ("enabled", "status"),
                  ("port", "port")]:
    add(Case("get_proxy_without_" + key, ["-g"],
             stderr="Unable to retrieve proxy %s.\n" % text, status=1,
             agent={"get_proxy": [reply(without(key))]}))
add(Case("get_proxy_negative_port", ["-g"], stderr="Unable to retrieve proxy port.\n",
         status=1, agent={"get_proxy": [reply(dict(PROXY, port=-1))]}))

# (name, option words, command, request data, success, failure-with-reason, generic)
SETTINGS = [
    ("enable_proxy", ["--enableProxy"], "set_proxy", {"enable": True},
     "Enabled/Disabled proxy successfully.\n", "Failed to set proxy: %s\n",
     "An error occurred while trying to set proxy.\n"),
    ("disable_proxy", ["--disableProxy"], "set_proxy", {"enable": False},
     "Enabled/Disabled proxy successfully.\n", "Failed to set proxy: %s\n",
     "An error occurred while trying to set proxy.\n"),
    ("save_proxy", ["-c", "10.0.0.1:3128", "-t", "Socks5"], "save_proxy",
     {"ip_address": "10.0.0.1", "port": 3128, "proxy_type": "SOCKS5"},
     "Proxy configuration successfully saved.\n", "Failed to save proxy configuration: %s\n",
     "An error occurred while trying to save proxy configuration.\n"),
    ("traceability_console", ["--saveTraceabilityConfig", "console"],
     "save_traceability_logger_config", {"target": "console"},
     "Traceability configuration successfully saved.\n",
     "Failed to save traceability configuration: %s\n",
     "An error occurred while trying to save traceability configuration.\n"),
    ("traceability_file", ["--saveTraceabilityConfig", "file", "/var/log/sylvane",
                           "track_%d.log", "1048576"],
     "save_traceability_logger_config",
     {"target": "file", "path": "/var/log/sylvane", "filename_format": "track_%d.log",
      "max_size": 1048576},
     "Traceability configuration successfully saved.\n",
     "Failed to save traceability configuration: %s\n",
     "An error occurred while trying to save traceability configuration.\n"),
    ("traceability_syslog", ["--saveTraceabilityConfig", "syslog", "10.0.0.9", "514", "UDP"],
     "save_traceability_logger_config",
     {"target": "syslog", "address": "10.0.0.9", "protocol": "UDP", "port": 514},
     "Traceability configuration successfully saved.\n",
     "Failed to save traceability configuration: %s\n",
     "An error occurred while trying to save traceability configuration.\n"),
]
for name, args, command, data, success, with_reason, generic in SETTINGS:
    add(
        Case(name, args, stdout=success, agent={command: [reply({"success": True})]},
             sent=[(command, data)]),
        Case(name + "_refused", args, stderr=with_reason % "Not allowed", status=1,
             agent={command: [reply({"success": False, "reason": "Not allowed"})]}),
        Case(name + "_refused_without_reason", args, stderr=generic, status=1,
             agent={command: [reply({"success": False})]}),
        Case(name + "_bad_answer", args, stderr=generic, status=1,
             agent={command: [reply({"success": 1})]}),
    )

add(
    Case("save_proxy_http", ["--configProxy", "1.2.3.4:8080", "--proxyType", "HTTPS"],
         stdout="Proxy configuration successfully saved.\n",
         agent={"save_proxy": [reply({"success": True})]},
         sent=[("save_proxy", {"ip_address": "1.2.3.4", "port": 8080,
                               "proxy_type": "HTTPS"})]),
    refused("save_proxy_type_case_sensitive", ["-c", "1.2.3.4:80", "-t", "socks5"],
            "Bad format specified in t parameter. Expected proxy type. Possible values: "
            "HTTP, HTTPS, Socks5.\n"),
    refused("save_proxy_bad_address", ["-c", "1.2.3.4:0", "-t", "HTTP"],
            "Bad format specified in c parameter. Expected ip_address:port. "
            "For example: 127.0.0.1:80\n"),
    Case("set_proxy_no_answer", ["--enableProxy"], stderr=NO_AGENT, status=1, agent={},
         elapsed=after(4), sent=[("set_proxy", {"enable": True})]),
)

# -- authentication audit -------------------------------------------------------

AUDITED = "Authentication status updated successfully\n"
add(
    # A success that exits 1, whatever the answer says.
    Case("audit_enable", ["--enableAuthenticationAudit"], stdout=AUDITED, status=1,
         agent={"set_authentication_audit": [reply({"success": False})]},
         sent=[("set_authentication_audit", {"enable": True})]),
    Case("audit_disable", ["--disableAuthenticationAudit"], stdout=AUDITED, status=1,
         agent={"set_authentication_audit": [reply(None)]},
         sent=[("set_authentication_audit", {"enable": False})]),
)

# -- traceability numbers ---------------------------------------------------------

add(
    refused("traceability_file_bad_size",
            ["--saveTraceabilityConfig", "file", "/var/log", "f", "10x"],
            "An error occurred while saving traceability configuration. Unable to retrieve "
            "syslog server port.\n"),
    refused("traceability_syslog_bad_port",
            ["--saveTraceabilityConfig", "syslog", "10.0.0.9", "51x", "TCP"],
            "An error occurred while saving traceability configuration. Unable to retrieve "
            "file max size.\n"),
    Case("traceability_file_empty_size",
         ["--saveTraceabilityConfig", "file", "", "", ""],
         stdout="Traceability configuration successfully saved.\n",
         agent={"save_traceability_logger_config": [reply({"success": True})]},
         sent=[("save_traceability_logger_config",
                {"target": "file", "path": "", "filename_format": "", "max_size": 0})]),
    Case("traceability_no_answer", ["--saveTraceabilityConfig", "console"], stderr=NO_AGENT,
         status=1, agent={}, elapsed=after(4)),
)


def find(name):
    for case in CASES:
        if case.name == name:
            return case
    raise SystemExit("no case named %r" % name)


if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        print(";".join(case.name for case in CASES))
