"""Edge cases of the human interface: untrusted text escaped on the
terminal, long and non-UTF-8 names settled, key files that are not regular
files, the strict reading's values and messages. Run by run_case.py."""

from cases import (ADD, KEY, LISTED, LISTING, REQUESTED, SUBSCRIBE, USAGE, Case, add, add_data,
                   added, listed, listing, tenant)
from fake_agent import event, reply

# A name that forges a listing line, one that retitles the terminal, a
# reason that reverses the text after it.
FORGED, TITLE, REVERSED = "a\nService:\tfake", "\x1b]0;x\x07", "ok\u202egnp.exe"
SYNCED = "\nService enabled and synchronized successfully.\n"
for name, args, agent, stdout, stderr, status in [
        ("listing_escapes_agent_text", ["-l"],
         listed(reply(listing(dict(LISTING[0], tenant_name=FORGED, uuid=TITLE,
                                   onion_address="x\u0085.onion")))),
         LISTED[:LISTED.index("\n----") + 1].replace("web1", "a\\x0aService:\\x09fake")
         .replace("0f8fad5b-d9cb-469f-a165-70867728950e", "\\x1b]0;x\\x07")
         .replace("abc.onion", "x\\u0085.onion"), "", 0),
        ("refusal_escapes_name_and_reason", ["-r", TITLE],
         {"remove_tenant": [reply({"removed": False, "reason": REVERSED})]}, "",
         "Could not remove service '\\x1b]0;x\\x07'. ok\\u202egnp.exe\n", 1),
        ("events_escape_agent_text", ["--events", "--wait", "1"],
         {"subscription": [reply({}), event(tenant(FORGED, "error", reason="\u2066x\x7f"))]},
         "a\\x0aService:\\x09fake: error: \\u2066x\\x7f\n", "", 0),
        ("proxy_escapes_agent_text", ["-g"],
         {"get_proxy": [reply({"type": "SOCKS5\x1b[2J", "ip_address": "1.2.3.4",
                               "enabled": True, "port": 1})]},
         "---------- Proxy configuration ----------\nIP address:\t1.2.3.4\nPort:\t\t1\n"
         "Type:\t\tSOCKS5\\x1b[2J\nStatus:\t\tEnabled\n", "", 0)]:
    add(Case(name, args, stdout=stdout, stderr=stderr, status=status, agent=agent,
             elapsed=(0.0, 3.5)))

# Names of 40 to 255 bytes, and one that is not UTF-8, settle on the name as
# sent; the listing shows the whole name.
for length in (40, 255):
    name = ("n%d" % length).ljust(length, "x")
    add(Case("add_name_of_%d_bytes" % length, ["-a", name] + ADD[2:],
             stdout="Service added successfully.\n",
             agent=added(event(tenant(name, onion_address="w.onion"))),
             sent=[SUBSCRIBE, add_data(name)]),
        Case("enable_name_of_%d_bytes" % length, ["-s", name],
             stdout=REQUESTED.replace("web1", name) + "\nSyncing..." + SYNCED,
             agent={"connect_tenants": [reply(listing(dict(tenant_name=name, ack=True))),
                                        event(tenant(name, synchronized=True))]}),
        Case("list_name_of_%d_bytes" % length, ["-l"],
             stdout=LISTED[:LISTED.index("\n----") + 1].replace("web1", name),
             agent=listed(reply(listing(dict(LISTING[0], tenant_name=name))))))
SENT = "caf\ufffd"
add(Case("disable_name_not_utf8", ["-d", "caf\udce9"],
         stdout="Requested service disabling for 'caf\udce9'...\nService disabled successfully.\n",
         agent={"disconnect_tenants": [reply(listing(dict(tenant_name=SENT, ack=True))),
                                       event(tenant(SENT, "disconnected"))]},
         sent=[SUBSCRIBE, ("disconnect_tenants", {"tenants": [SENT]})]))

# The strict reading refuses what the human one would send changed; its usage
# messages name what is wrong.
P = "Bad format specified in p parameter. Expected ip_address:port. For example: 127.0.0.1:80\n"
for name, args, stdout, stderr, status in [
        ("strict_address_with_tail", ["--wait", "5", "-a", "w", "-p", "1.2.3.4x:80", "-k", KEY],
         "", P, 1),
        ("strict_address_wraps", ["--wait", "5", "-a", "w", "-p", "300.1.1.1:80", "-k", KEY],
         "", P, 1),
        ("strict_clear_service_rewritten", ["--wait", "5"] + ADD + ["-u", "10.0.0.5.nip.io"], "",
         "Bad format specified in u parameter. Expected list of clear services(domain name or "
         "ip address). For example: firstDomainName.net,127.0.0.1,secondDomainName\n", 1),
        ("strict_name_not_utf8", ["--wait", "5", "-s", "caf\udce9"], "",
         "The service name 'caf\udce9' is not valid UTF-8.\n", 1),
        ("strict_no_wait_with_events", ["--events", "--no-wait"], USAGE,
         "--no-wait applies to -s and -d only.\n", 2),
        ("strict_traceability_words", ["--json", "--saveTraceabilityConfig", "file", "a", "b"],
         '{"version": 1, "ok": false, "error": "usage", "message": "--saveTraceabilityConfig '
         'file takes three words (logFolderPath filenameFormat maxFileSize), not 2."}\n', "", 2)]:
    add(Case(name, args, stdout=stdout, stderr=stderr, status=status, agent={}, connects=False))
