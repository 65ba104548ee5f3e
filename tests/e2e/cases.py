"""The end-to-end cases: one invocation of the tool each, with the fake
Transfer Agent's script and what the tool must print, return and send.

run_case.py runs them; other case files reuse Case, add() and the texts.
"""

import json
from dataclasses import dataclass

from fake_agent import evict, event, event_data, ping, raw, reply, wait

ABSENT = type("Absent", (), {"__repr__": lambda _self: "<no data>"})()  # no "data" key
QUICK = 3.5  # cases settled by an answer; a time-out would also change the output
SLACK = 0.95  # how late a time-out may end on a loaded machine; 1 s later is a fault


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
    peak_mib: float = None  # limit of the peak memory, outside sanitizer builds


def after(seconds):
    return (seconds, seconds + SLACK)


TRACE = "Set traceability logger configuration. Tracking logs will be "
LONG_ONLY = [
    ("--enableProxy", "Enable proxy"), ("--disableProxy", "Disable proxy"),
    ("--enableAuthenticationAudit", "Enable authentication audit"),
    ("--disableAuthenticationAudit", "Disable authentication audit"),
    ("--saveTraceabilityConfig console", TRACE + "displayed in the console"),
    ("--saveTraceabilityConfig file [logFolderPath filenameFormat maxFileSize]",
     TRACE + "written in files located in the specified path"),
    ("--saveTraceabilityConfig syslog [syslogServerAddress syslogServerPort "
     "syslogServerProtocol]", TRACE + "forwarded to a syslog server"),
]
USAGE = (
    "Usage: sylvane-service [-hlg][-a name -p ipv4:port -f userAccessPort -k ApiKey -u "
    "clearServices][-d name][-c ipv4:port -t proxyType]\n\nwith:\n"
    "-a name -p addr:port -k ApiKey\n"
    "\t -a: Declare a new service with name 'name'\n"
    "\t -p: Set 'address' and 'port' of target service.\n"
    "\t -f: Set user access port of target service.\n"
    "\t -k: API key copied from Sylvane manager.\n"
    "\t -u: List of clear services.\n"
    "-r name\t\t\t\tRemove service 'name'\n"
    "-l\t\t\t\tList the previously declared services with associated attributes (like "
    "onion addresses)\n"
    "-h\t\t\t\tPrint this help message\n\n"
    "-s name\t\t\t\tEnable service 'name'.\n"
    "-d name\t\t\t\tDisable service 'name'.\n"
    "-e name -p addr:port\t\tEdit service 'name' with new 'address' and 'port'\n\n"
    "-u clearServices\t\tList of clear services\n\n"
    "-c addr:port -t ProxyType\tConfigure proxy (with ProxyType set to HTTP, HTTPS or Socks5)\n"
    "-g\t\t\t\tGet current proxy configuration\n\n"
    + "".join("%s\t\t\t\t%s\n\n" % option for option in LONG_ONLY) +
    "Usage example:\n   sylvane-service -l\n   sylvane-service -a WebServer1 -p 127.0.0.1:443 "
    "-f 8082 -k APIKey -u firstDomainName,127.0.0.1,secondDomainName\n")

KEY = ("Zk9Qa1B2c3R4" * 7)[:76]
SUBSCRIBE = ("subscription", {"subscriptions": ["services_subscription"]})
NO_ANSWER = "Transfer Agent process did not respond in expected time. Please retry.\n"
NO_AGENT = NO_ANSWER[:-1] + " Make sure the Sylvane Network process is currently running\n"
BUSY = ("Could not execute command because another program is executing operation with "
        "the Transfer Agent. You probably have a Graphic User interface or another client "
        "communicating with the Sylvane service. Please close the client then retry.\n")
BAD_EVENT = "Error while trying to add a service. Server responded with bad formatted answer\n"
BAD_ADDRESS = ("Bad format specified in %s parameter. Expected ip_address:port. "
               "For example: 127.0.0.1:80\n")
SAME_PORTS = "Final port and virtual port must be different when port forwarding is enabled.\n"
BAD_KEY = "Bad format specified in k parameter. Expected length of 76\n"
ADDED, EDITED, REMOVED_TEXT = ("Service %s.\n" % w for w in
                               ("added successfully", "edited successfully", "removed"))
NONE_YET = "No registered services yet.\n"
PROXY_SAVED = "Proxy configuration successfully saved.\n"
TRACE_SAVED = "Traceability configuration successfully saved.\n"

CASES = []


def add(*cases):
    for case in cases:
        assert all(c.name != case.name for c in CASES), case.name
        CASES.append(case)


def tenant(name, status="connected", **fields):
    return dict(tenant_name=name, status=status, **fields)


# -- command line and dispatch: usage text on stdout, status 0, nothing sent ---

INVALID = "sylvane-service: invalid option -- '%s'\n"
for name, words, stderr in [
        ("no_arguments", "", ""), ("help", "-h", ""), ("help_long", "--help", ""),
        ("help_after_options", "-a web1 -h -l", ""), ("stray_word", "list", ""),
        ("unknown_option", "-x --enableProxy", INVALID % "x"),
        ("unused_letter", "-b", INVALID % "b"),
        ("missing_argument", "-r", "sylvane-service: option requires an argument -- 'r'\n"),
        ("long_option_not_first", "-p 1.2.3.4:80 --enableProxy", ""),
        ("long_option_abbreviated", "--enableProx", ""),
        ("add_without_key", "-a web1 -p 1.2.3.4:80", ""),
        ("add_without_address", "-a web1 -k " + KEY, ""),
        ("edit_needs_p", "-e web1 -c 1.2.3.4:80", ""),
        ("proxy_without_type", "-c 1.2.3.4:80", ""),
        ("traceability_missing", "--saveTraceabilityConfig",
         "sylvane-service: option '--saveTraceabilityConfig' requires an argument\n"),
        ("traceability_console_extra", "--saveTraceabilityConfig console x", ""),
        ("traceability_file_short", "--saveTraceabilityConfig file /var/log", ""),
        ("traceability_unknown_target", "--saveTraceabilityConfig stdout a b c", ""),
        ("traceability_too_many", "--saveTraceabilityConfig syslog 1.2.3.4 514 UDP x", "")]:
    add(Case("usage_" + name, words.split(), stdout=USAGE, stderr=stderr, agent={},
             connects=False))

LISTED_EMPTY = {"get_tenants": [reply({"tenants": []})]}
REMOVED = {"remove_tenant": [reply({"removed": True})]}
EDIT_OK = {"edit_tenant": [reply({"edited": True})]}


def edit_data(name="web1", ip="1.2.3.4", port=80, virtual_port=80):
    return ("edit_tenant", {"tenant_name": name, "ip_address": ip, "port": port,
                            "virtual_port": virtual_port})


def add_data(name="web1", ip="127.0.0.1", port=443, virtual_port=443, clear=()):
    return ("add_tenant", {"method": "api_key", "value": KEY, "name": name, "ip_address": ip,
                           "port": port, "virtual_port": virtual_port,
                           "clear_services": list(clear)})


add(
    Case("first_immediate_option_wins", ["-l", "-r", "web1"], stdout=NONE_YET,
         agent=dict(LISTED_EMPTY, **REMOVED), sent=[("get_tenants", {})]),
    Case("remove_before_list", ["-r", "web1", "-l"], stdout=REMOVED_TEXT,
         agent=dict(LISTED_EMPTY, **REMOVED),
         sent=[("remove_tenant", {"tenant_name": "web1"})]),
    Case("list_before_long_option", ["-l", "--enableProxy"], stdout=NONE_YET,
         agent=LISTED_EMPTY, sent=[("get_tenants", {})]),
    Case("list_long_form", ["--list"], stdout=NONE_YET, agent=LISTED_EMPTY,
         sent=[("get_tenants", {})]),
    Case("add_later_name_wins", ["-a", "web1", "-e", "web2", "-p", "1.2.3.4:80", "-k", KEY],
         stdout=ADDED, agent={"add_tenant": [reply({"added": True}), event(
             tenant("web2", onion_address="x.onion"))]},
         sent=[SUBSCRIBE, add_data("web2", "1.2.3.4", 80, 80)]),
    Case("proxy_later_address_wins", "-c 1.2.3.4:80 -t HTTP -p 5.6.7.8:90".split(),
         stdout=PROXY_SAVED, agent={"save_proxy": [reply({"success": True})]},
         sent=[("save_proxy", {"ip_address": "5.6.7.8", "port": 90, "proxy_type": "HTTP"})]),
    Case("proxy_address_c_after_p", "-e web1 -p 5.6.7.8:90 -c 1.2.3.4:80 -t HTTPS".split(),
         stdout=EDITED, agent=EDIT_OK, sent=[edit_data()]),
)

# -- add ----------------------------------------------------------------------

ADD = ["-a", "web1", "-p", "127.0.0.1:443", "-k", KEY]
LONG_NAME = "s" * 300


def added(*actions):
    return {"add_tenant": [reply({"added": True})] + list(actions)}


add(
    Case("add_full", ADD + ["-f", "8082", "-u", "firstDomainName.net,010.0.0.1,b"],
         stdout=ADDED, agent=added(event(tenant("other", onion_address="o.onion")),
                                   event(tenant("web1", "in progress", onion_address="w.onion"))),
         sent=[SUBSCRIBE, add_data(virtual_port=8082,
                                   clear=["firstDomainName.net", "10.0.0.1", "b"])]),
    Case("add_long_name_cut", ["-a", LONG_NAME, "-p", "1.2.3.4:80", "-k", KEY],
         stderr=NO_AGENT, status=1, agent=added(), elapsed=after(4),
         sent=[SUBSCRIBE, add_data(LONG_NAME[:255], "1.2.3.4", 80, 80)]),
    Case("add_forwarding_text_compare", ADD + ["-f", "0443"], stdout=ADDED,
         agent=added(event(tenant("web1", onion_address=""))), sent=[SUBSCRIBE, add_data()]),
    Case("add_event_before_answer", ADD, stdout=ADDED,
         agent={"add_tenant": [event(tenant("web1", onion_address="w.onion")),
                               reply({"added": True})]},
         sent=[SUBSCRIBE, add_data()]),
    Case("add_event_unparsable_element_stops", ADD, stderr=NO_AGENT, status=1, elapsed=after(4),
         agent=added(event_data({"tenants": [
             "{not json", '{"tenant_name": "web1", "onion_address": "w.onion"}']}))),
    Case("add_event_empty_list_waits", ADD, stdout=ADDED, agent=added(
        event_data({"tenants": []}), event(tenant("web1", onion_address="w.onion")))),
)
for name, bad in [("without_list", event_data({"services": []})),
                  ("null_data", event_data(None)),
                  ("element_not_string", event_data({"tenants": [{"tenant_name": "web1"}]})),
                  ("without_onion_address", event(tenant("other")))]:
    add(Case("add_event_" + name, ADD, stderr=BAD_EVENT, status=1, agent=added(bad)))

# Arguments refused before anything is sent.
for name, args, stderr in [
        ("add_bad_address", ["-a", "web1", "-p", "127.0.0.1", "-k", KEY], BAD_ADDRESS % "p"),
        ("add_bad_ip", ["-a", "web1", "-p", "256.0.0.1:80", "-k", KEY], BAD_ADDRESS % "p"),
        ("add_same_ports", ADD + ["-f", "443"], SAME_PORTS),
        ("add_bad_forwarding", ADD + ["-f", "70000"],
         "Bad format specified in f parameter. Expected virtual port.\n"),
        ("add_short_key", ["-a", "web1", "-p", "1.2.3.4:80", "-k", KEY[:75]], BAD_KEY),
        ("add_long_key", ["-a", "web1", "-p", "1.2.3.4:80", "-k", KEY + "x"], BAD_KEY),
        ("add_bad_clear_services", ADD + ["-u", "a.com,"],
         "Bad format specified in u parameter. Expected list of clear services(domain name or "
         "ip address). For example: firstDomainName.net,127.0.0.1,secondDomainName\n"),
        ("edit_bad_address", "-e web1 -p 1.2.3:80".split(), BAD_ADDRESS % "p"),
        ("edit_same_ports", "-e web1 -p 1.2.3.4:80 -f 80".split(), SAME_PORTS),
        ("save_proxy_type_case_sensitive", "-c 1.2.3.4:80 -t socks5".split(),
         "Bad format specified in t parameter. Expected proxy type. Possible values: "
         "HTTP, HTTPS, Socks5.\n"),
        ("save_proxy_bad_address", "-c 1.2.3.4:0 -t HTTP".split(), BAD_ADDRESS % "c"),
        ("traceability_file_bad_size", "--saveTraceabilityConfig file /var/log f 10x".split(),
         "An error occurred while saving traceability configuration. Unable to retrieve "
         "syslog server port.\n"),
        ("traceability_syslog_bad_port",
         "--saveTraceabilityConfig syslog 10.0.0.9 51x TCP".split(),
         "An error occurred while saving traceability configuration. Unable to retrieve "
         "file max size.\n")]:
    add(Case(name, args, stderr=stderr, status=1, agent={}, connects=False))

# -- answers of add, edit and remove ------------------------------------------

for command, args, key, verb in [("add_tenant", ADD, "added", "add"),
                                 ("edit_tenant", "-e web1 -p 127.0.0.1:443".split(), "edited",
                                  "edit"),
                                 ("remove_tenant", ["-r", "web1"], "removed", "remove")]:
    failed = "Error while trying to %s the service. " % verb
    add(
        Case("%s_refused" % verb, args, status=1,
             stderr="Could not %s service 'web1'. Service is busy\n" % verb,
             agent={command: [reply({key: False, "reason": "Service is busy"})]}),
        Case("%s_refused_without_reason" % verb, args, status=1,
             stderr=failed + "Please check the arguments\n",
             agent={command: [reply({key: False})]}),
        Case("%s_bad_answer" % verb, args, status=1, agent={command: [reply({key: "true"})]},
             stderr=failed + "Internal process responded with a bad formatted message. "
                             "Please retry.\n"),
    )

add(
    Case("edit_ok", "-e web1 -p 10.1.2.3:8080 -f 9090 -k ignored -u -bad-".split(),
         stdout=EDITED, agent=EDIT_OK, sent=[edit_data("web1", "10.1.2.3", 8080, 9090)]),
    Case("edit_long_name_cut", ["-e", LONG_NAME, "-p", "1.2.3.4:80"], stdout=EDITED,
         agent=EDIT_OK, sent=[edit_data(LONG_NAME[:255])]),
    Case("remove_name_not_utf8", ["-r", "caf\udce9"], stdout=REMOVED_TEXT, agent=REMOVED,
         sent=[("remove_tenant", {"tenant_name": "caf\ufffd"})]),
    Case("remove_long_name_uncut", ["-r", LONG_NAME], stdout=REMOVED_TEXT,
         agent=REMOVED, sent=[("remove_tenant", {"tenant_name": LONG_NAME})]),
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
RULE = "----------------------------------------\n"
LISTED = RULE + RULE.join([
    "Service:\tweb1\nUuid:\t\t0f8fad5b-d9cb-469f-a165-70867728950e\nIP address:\t127.0.0.1\n"
    "Port:\t\t443\nVirtual port:\t8082\nStatus:\t\tEnabled\nOnion address:\tabc.onion\n",
    "Service:\tweb2\nUuid:\t\tu2\nIP address:\t10.0.0.2\nPort:\t\t80\n"
    "Virtual port:\tNot set\nStatus:\t\tEnabling in progress\n",
    "Service:\tweb3\nUuid:\t\tu3\nIP address:\tUnknown\nPort:\t\tUnknown\n"
    "Virtual port:\t81\nStatus:\t\tError\n",
    "Service:\tweb4\nUuid:\t\tu4\nIP address:\tUnknown\nPort:\t\tUnknown\n"
    "Virtual port:\tNot set\nStatus:\t\tDisabled\n",
    "Service:\tweb5\nUuid:\t\tu5\nIP address:\t1.1.1.1\nPort:\t\t22\n"
    "Virtual port:\t2222\nStatus:\t\tEnabled\n"])


# LISTING padded past the length a received string is left in place from,
# and a service whose texts pass the human listing's cuts.
LONG_LISTING = [dict(t, api_key="k" * 80) for t in LISTING] + [
    tenant("long", uuid="u" * 50, ip_address="1" * 50, port=1, virtual_port=2,
           onion_address="o" * 70)]


def listing(*items):
    """A "tenants" list: dicts go as JSON strings, strings as they are
    (garbage included), anything else as a non-string element."""
    return {"tenants": [json.dumps(i, ensure_ascii=False) if isinstance(i, dict) else i
                        for i in items]}


def listed(*actions):
    return {"get_tenants": list(actions)}


EMPTY = reply({"tenants": []})
add(
    Case("list_services", ["-l"], stdout=LISTED, agent=listed(reply(listing(*LISTING))),
         sent=[("get_tenants", {})]),
    Case("list_skips_non_strings_and_stops_at_garbage", ["-l"],
         stdout=LISTED[:LISTED.index("\n----") + 1],
         agent=listed(reply(listing(None, LISTING[0], 7, "{oops", LISTING[1])))),
    # Services long enough to be read where they lie in the answer: shown
    # as they are, with the same missing fields and cuts.
    Case("list_long_services", ["-l"],
         stdout=LISTED + RULE + "Service:\tlong\nUuid:\t\t" + "u" * 36 + "\nIP address:\t"
         + "1" * 39 + "\nPort:\t\t1\nVirtual port:\t2\nStatus:\t\tEnabled\nOnion address:\t"
         + "o" * 62 + "\n",
         agent=listed(reply(listing(*LONG_LISTING)))),
    Case("list_missing_list", ["-l"], stdout=NONE_YET, agent=listed(reply({}))),
    Case("list_null_data", ["-l"], stdout=NONE_YET, agent=listed(reply(None))),
    # Frames: fragmented, 16-bit and 64-bit lengths, a ping before the answer.
    Case("list_fragmented_answer", ["-l"], stdout=LISTED,
         agent=listed(reply(listing(*LISTING), pieces=4, pause=0.05))),
    Case("list_answer_64bit_length", ["-l"], stdout=LISTED,
         agent=listed(reply(listing(*LISTING), length_bits=64))),
    Case("list_small_answer_16bit_length", ["-l"], stdout=NONE_YET,
         agent=listed(reply({"tenants": []}, length_bits=16))),
    # The client's pong carries "{}", not the ping's payload.
    Case("list_after_ping", ["-l"], stdout=NONE_YET, pongs=(b"{}",),
         agent=listed(ping(b"hello"), wait(0.2), EMPTY)),
    # Whatever arrives for the pending command consumes it.
    Case("list_wrong_id", ["-l"], agent=listed(reply({"tenants": []}, id_shift=1)),
         sent=[("get_tenants", {})]),
    Case("list_garbage_answer", ["-l"], agent=listed(raw("{not json"))),
    # A Latin-1 byte (0xE9) in one name: every service is listed, that byte
    # as U+FFFD.
    Case("list_name_not_utf8", ["-l"], stdout=LISTED.replace("web2", "caf\ufffd"),
         agent=listed(reply(listing(LISTING[0], dict(LISTING[1], tenant_name="caf\udce9"),
                                    *LISTING[2:])))),
    # A busy Transfer Agent.
    Case("busy_at_connection", ["-g"], stderr=BUSY, status=1, agent={"connection": [evict()]}),
    Case("busy_instead_of_answer", ["-s", "web1"], stderr=BUSY, status=1,
         agent={"connect_tenants": [evict()]},
         sent=[SUBSCRIBE, ("connect_tenants", {"tenants": ["web1"]})]),
)

# -- enabling and disabling ----------------------------------------------------


def ack(name="web1", accepted=True, **fields):
    return listing(dict(tenant_name=name, ack=accepted, **fields))


ENABLE, DISABLE = ["-s", "web1"], ["-d", "web1"]
REQUESTED = "Requested service enabling for 'web1'...\n"
DISABLING = "Requested service disabling for 'web1'...\n"
ENABLE_FAILED = "Could not enable service 'web1'. "
SYNCED = "\nService enabled and synchronized successfully.\n"
ACKED, PROGRESS = reply(ack()), event(tenant("web1", "in progress"))
add(
    Case("enable_synchronized", ENABLE,
         stdout=REQUESTED + "Service enabling in progress....\nSyncing...." + SYNCED,
         agent={"connect_tenants": [
             ACKED, PROGRESS,
             event(tenant("other", "in progress"), tenant("web1", "in progress")),
             event(tenant("web1", synchronized=False), tenant("web1", "error")),
             event(tenant("web1", synchronized=True))]},
         sent=[SUBSCRIBE, ("connect_tenants", {"tenants": ["web1"]})]),
    Case("disable_ok", DISABLE, stdout=DISABLING + "Service disabled successfully.\n",
         agent={"disconnect_tenants": [
             ACKED, event(tenant("web1", "connected")),
             event(tenant("other", "disconnected"), tenant("web1", "disconnected"))]},
         sent=[SUBSCRIBE, ("disconnect_tenants", {"tenants": ["web1"]})]),
)
# (name, arguments, the agent's actions, stdout, stderr, time-out in seconds or 0);
# a case with a message on stderr exits 1
for name, args, actions, stdout, stderr, timeout in [
        ("enable_synchronized_as_text", ENABLE,
         [ACKED, event(tenant("web1", synchronized="true"))],
         REQUESTED + "\nSyncing..." + SYNCED, "", 0),
        ("enable_events_before_answer", ENABLE,
         [PROGRESS, ACKED, event(tenant("web1", synchronized=True))],
         "Service enabling in progress..." + REQUESTED + "\nSyncing..." + SYNCED, "", 0),
        ("enable_ends_syncing_at_timeout", ENABLE,
         [ACKED, PROGRESS, PROGRESS, event(tenant("web1", synchronized="false"))],
         REQUESTED + "Service enabling in progress....\nSyncing...\nService enabled "
         "successfully.\n", "", 15),
        ("enable_still_in_progress_at_timeout", ENABLE, [ACKED, PROGRESS],
         REQUESTED + "Service enabling in progress...",
         "\nService is still not enabled after 15 seconds.\nTransfer Agent will continue "
         "trying to enable it but you should probably check that you can access Sylvane "
         "network from this machine and whether provided API key is correct.\n", 15),
        ("enable_connected_without_progress", ENABLE, [ACKED, event(tenant("web1"))],
         REQUESTED + "\nSyncing...", NO_ANSWER, 15),
        ("enable_refused", ENABLE, [reply(listing(
            "{garbage", dict(tenant_name="other", ack=True),
            dict(tenant_name="web1", ack=False, reason="Unknown service")))],
         "", ENABLE_FAILED + "Unknown service\n", 0),
        ("enable_refused_without_reason", ENABLE, [reply(ack(accepted=False))],
         "", ENABLE_FAILED + "\n", 0),
        ("enable_answer_without_list", ENABLE, [reply({"acks": []})],
         "", "An error occurred while enabling service.\n", 0),
        ("enable_disconnection_event", ENABLE, [ACKED, event(tenant("web1", "disconnected"))],
         REQUESTED, "\n" + ENABLE_FAILED + "Received a disconnection event.\n", 0),
        ("enable_error_event_hides_reason", ENABLE,
         [ACKED, event(tenant("web1", "error", reason="Bad API key"))],
         REQUESTED, "\n" + ENABLE_FAILED + "\n", 0),
        ("enable_event_element_not_string", ENABLE, [ACKED, event_data({"tenants": [3]})],
         REQUESTED, BAD_EVENT, 0),
        ("enable_event_without_list", ENABLE, [ACKED, event_data({})], REQUESTED, BAD_EVENT, 0),
        ("disable_refused_hides_reason", ["--disable", "web1"],
         [reply(ack(accepted=False, reason="Unknown"))],
         "", "Could not disable service 'web1'. \n", 0),
        ("disable_answer_without_list", DISABLE, [reply({})],
         "", "An error occurred while disabling service.\n", 0),
        ("disable_event_element_not_string", DISABLE,
         [ACKED, event_data({"tenants": [None]})], DISABLING, BAD_EVENT, 0),
        ("disable_not_disconnected_in_time", DISABLE, [ACKED, PROGRESS],
         DISABLING, NO_ANSWER, 5)]:
    command = "connect_tenants" if args == ENABLE else "disconnect_tenants"
    add(Case(name, args, stdout=stdout, stderr=stderr, status=int(bool(stderr)),
             agent={command: actions}, elapsed=after(timeout) if timeout else (0.0, QUICK)))

# -- proxy, audit and traceability ----------------------------------------------

PROXY = {"type": "SOCKS5", "ip_address": "192.168.1.10", "enabled": True, "port": 1080}
SHOWN = "---------- Proxy configuration ----------\nIP address:\t%s\nPort:\t\t%s\n" \
        "Type:\t\t%s\nStatus:\t\t%s\n"

add(
    Case("get_proxy_enabled", ["-g"], stdout=SHOWN % ("192.168.1.10", 1080, "SOCKS5", "Enabled"),
         agent={"get_proxy": [reply(PROXY)]}, sent=[("get_proxy", {})]),
    Case("get_proxy_disabled", ["--getProxy"],
         stdout=SHOWN % ("0.0.0.0", 0, "HTTP", "Disabled"),
         agent={"get_proxy": [reply({"type": "HTTP", "ip_address": "0.0.0.0",
                                     "enabled": False, "port": 0})]}),
    Case("get_proxy_negative_port", ["-g"], stderr="Unable to retrieve proxy port.\n",
         status=1, agent={"get_proxy": [reply(dict(PROXY, port=-1))]}),
)
for key, text in [("type", "type"), ("ip_address", "IP address"), ("enabled", "status"),
                  ("port", "port")]:
    add(Case("get_proxy_without_" + key, ["-g"], stderr="Unable to retrieve proxy %s.\n" % text,
             status=1, agent={"get_proxy": [reply({k: v for k, v in PROXY.items()
                                                   if k != key})]}))

# (success, failure with a reason, any other failure) of each kind of setting
SET = ("Enabled/Disabled proxy successfully.\n", "Failed to set proxy: %s\n",
       "An error occurred while trying to set proxy.\n")
SAVE = (PROXY_SAVED, "Failed to save proxy configuration: %s\n",
        "An error occurred while trying to save proxy configuration.\n")
TRACED = (TRACE_SAVED, "Failed to save traceability configuration: %s\n",
          "An error occurred while trying to save traceability configuration.\n")
TRACING = "save_traceability_logger_config"
for name, words, command, data, (success, with_reason, generic) in [
        ("enable_proxy", "--enableProxy", "set_proxy", {"enable": True}, SET),
        ("disable_proxy", "--disableProxy", "set_proxy", {"enable": False}, SET),
        ("save_proxy", "-c 10.0.0.1:3128 -t Socks5", "save_proxy",
         {"ip_address": "10.0.0.1", "port": 3128, "proxy_type": "SOCKS5"}, SAVE),
        ("traceability_console", "--saveTraceabilityConfig console", TRACING,
         {"target": "console"}, TRACED),
        ("traceability_file", "--saveTraceabilityConfig file /var/log/sylvane track_%d.log "
         "1048576", TRACING, {"target": "file", "path": "/var/log/sylvane",
                              "filename_format": "track_%d.log", "max_size": 1048576}, TRACED),
        ("traceability_syslog", "--saveTraceabilityConfig syslog 10.0.0.9 514 UDP", TRACING,
         {"target": "syslog", "address": "10.0.0.9", "protocol": "UDP", "port": 514}, TRACED)]:
    args = words.split()
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

AUDITED = "Authentication status updated successfully\n"
add(
    Case("save_proxy_http", ["--configProxy", "1.2.3.4:8080", "--proxyType", "HTTPS"],
         stdout=PROXY_SAVED, agent={"save_proxy": [reply({"success": True})]},
         sent=[("save_proxy", {"ip_address": "1.2.3.4", "port": 8080, "proxy_type": "HTTPS"})]),
    # A success that exits 1, whatever the answer says.
    Case("audit_enable", ["--enableAuthenticationAudit"], stdout=AUDITED, status=1,
         agent={"set_authentication_audit": [reply({"success": False})]},
         sent=[("set_authentication_audit", {"enable": True})]),
    Case("audit_disable", ["--disableAuthenticationAudit"], stdout=AUDITED, status=1,
         agent={"set_authentication_audit": [reply(None)]},
         sent=[("set_authentication_audit", {"enable": False})]),
    Case("traceability_file_empty_size", ["--saveTraceabilityConfig", "file", "", "", ""],
         stdout=TRACE_SAVED, agent={TRACING: [reply({"success": True})]},
         sent=[(TRACING, {"target": "file", "path": "", "filename_format": "", "max_size": 0})]),
)


# -- time-outs: no answer (or, for list_no_agent, no Transfer Agent at all) ------
for name, args, stderr, seconds, sent in [
        ("add_no_answer", ADD, NO_AGENT, 4, [SUBSCRIBE, add_data()]),
        ("remove_no_answer", ["--remove", "web1"], NO_ANSWER, 4,
         [("remove_tenant", {"tenant_name": "web1"})]),
        ("list_no_agent", ["-l"], NO_ANSWER, 2, None),
        ("list_no_answer", ["-l"], NO_ANSWER, 2, [("get_tenants", {})]),
        ("get_proxy_no_answer", ["-g"], NO_AGENT, 4, None),
        ("set_proxy_no_answer", ["--enableProxy"], NO_AGENT, 4, [("set_proxy", {"enable": True})]),
        ("traceability_no_answer", ["--saveTraceabilityConfig", "console"], NO_AGENT, 4, None)]:
    add(Case(name, args, stderr=stderr, status=1, agent=None if name == "list_no_agent" else {},
             elapsed=after(seconds), sent=sent))

