"""Hostile Transfer Agents: servers on 127.0.0.1:11038 that misbehave or
attack, run by tests/e2e/run_case.py. Whatever the server does, the tool
ends within its own time-out with its usual message and status, never dies
of a signal, and keeps its peak memory under the case's limit.
"""

import json
import os
import socket
import struct
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "e2e"))
import fake_agent  # noqa: E402
from cases import LISTED, LISTING, NO_AGENT, NO_ANSWER, Case, listing, tenant  # noqa: E402
from fake_agent import ap, reply, reply_text, send_json, stream, wire  # noqa: E402

MIB = 1024 * 1024
LIMIT = 64  # MiB of peak memory
TOO_LARGE = "Transfer Agent message larger than 16 MiB: connection dropped.\n"
# An unoptimised sanitizer build reads ten times slower: it gets less to read.
SMALL = fake_agent.SANITIZED


def reset_mid_frame(conn, request):
    """Half of an answer, then a TCP reset."""
    frame = ap.encode_frame(json.dumps(ap.response_message(request["command"], request["id"],
                                                           {"tenants": []})))
    conn.sock.sendall(frame[:len(frame) // 2])
    time.sleep(0.2)
    conn.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    conn.sock.close()


ROUNDS = 15 if SMALL else 150


def event_flood(conn, request):
    """Thousands of events of 20 other services around the answer."""
    others = ap.encode_frame(json.dumps(ap.event_message(
        [tenant("other%d" % i, "in progress") for i in range(20)])))
    mine = ap.encode_frame(json.dumps(ap.event_message([tenant("web", "in progress")])))
    conn.sock.sendall((others * 20 + mine) * ROUNDS)
    reply(listing({"tenant_name": "web", "ack": True}))(conn, request)
    conn.sock.sendall(others * (ROUNDS * 7))
    send_json(conn, ap.event_message([tenant("web", synchronized="true")]))


def padded(size):
    """A listing with `size` bytes of padding in its first service."""
    return json.dumps(listing(dict(LISTING[0], padding="p" * size), *LISTING[1:]))


CASES = []
# (name, arguments, the command's time-out in seconds, script, status, stderr, stdout);
# a run ends by its time-out or before (a slower one shows the time-out message)
for name, args, seconds, script, status, stderr, stdout in [
        ("huge_frame", ["-l"], 2, {"get_tenants": [
            wire(b"\x81\x7f" + struct.pack("!Q", 1 << 40)), stream(b"x" * 65536)]},
         1, TOO_LARGE + NO_ANSWER, ""),
        ("endless_fragments", ["-g"], 4, {"get_proxy": [
            lambda conn, _request: conn.send_frame(b"{", fin=False),
            stream(ap.encode_frame(b" " * MIB, ap.OP_CONTINUATION, fin=False))]},
         1, TOO_LARGE + NO_AGENT, ""),
        ("endless_header", ["-l"], 2, {"handshake": [
            wire(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"),
            stream(b"X-Padding: " + b"a" * 200 + b"\r\n")]}, 1, NO_ANSWER, ""),
        ("not_websocket", ["-g"], 4, {"handshake": [wire(
            b"HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\nContent-Length: 35\r\n\r\n"
            b"<html><body>Not Found</body></html>")]}, 1, NO_AGENT, ""),
        ("banner", ["-l"], 2, {"handshake": [wire(b"SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n")]},
         1, NO_ANSWER, ""),
        ("reset_mid_frame", ["-l"], 2, {"get_tenants": [reset_mid_frame]}, 1, NO_ANSWER, ""),
        ("event_flood", ["-s", "web"], 15, {"connect_tenants": [event_flood]}, 0, "",
         "Service enabling in progress..." + "." * (ROUNDS - 1) + "Requested service enabling "
         "for 'web'...\n\nSyncing...\nService enabled and synchronized successfully.\n"),
        # Refused whole: one frame, or three fragments each under the bound (the last
        # one passes it).
        ("oversized_frame", ["-l"], 2, {"get_tenants": [reply_text(padded(20 * MIB))]},
         1, TOO_LARGE + NO_ANSWER, ""),
        ("oversized_fragments", ["-l"], 2, {"get_tenants": [
            reply_text(padded(18 * MIB - 4096), fragment=6 * MIB)]}, 1, TOO_LARGE + NO_ANSWER, ""),
        # Unreadable answers cost the pending command; the run ends quietly.
        ("deep_json", ["-l"], 2, {"get_tenants": [
            reply_text("[" * 500000 + "]" * 500000, fragment=MIB)]}, 0, "", ""),
        ("deep_element", ["-l"], 2, {"get_tenants": [reply_text('{"tenants": [%s]}' % json.dumps(
            "[" * 100000 + "]" * 100000))]}, 0, "", ""),
        # As many values as a document may hold, each a short string that is
        # not a service: parsed, copied as "data" and read as a list, they
        # cost far more than their text; the listing stops at the first.
        ("many_strings", ["-l"], 2, {"get_tenants": [reply_text('{"tenants": [%s]}' % ", ".join(
            '"not a service %05d"' % i for i in range(65535)))]}, 0, "", ""),
        ("too_many_values", ["-l"], 2, {"get_tenants": [
            reply_text('{"tenants": [%s]}' % ",".join(["1"] * 70000))]}, 0, "", ""),
        # Refused before parsing: building it would take minutes.
        ("many_members", ["-g"], 4, {"get_proxy": [reply_text("{%s}" % ", ".join(
            '"k%d": [%d, true, null]' % (i, i) for i in range(200000)), fragment=MIB)]}, 0, "", "")]:
    CASES.append(Case(name, args, stdout, stderr, status, script, peak_mib=LIMIT,
                      elapsed=(seconds if status else 0, seconds + (10 if SMALL else 1.5))))

# The largest message accepted, in two fragments, prints whole within four
# times its size plus 8 MiB.
LARGEST = (2 if SMALL else 16) * MIB - 4096
CASES.append(Case("largest_message", ["-l"], LISTED, agent={"get_tenants": [
    reply_text(padded(LARGEST), fragment=8 * MIB)]}, peak_mib=4 * LARGEST / MIB + 8))

# A listing of some 3 MB, as JSON: the services are written around, not
# copied into, the final object, within the same bound.
SERVICES = [dict(tenant_name="web%05d" % i, status="connected", uuid="%036d" % i,
                 ip_address="10.0.%d.%d" % (i // 250, i % 250), port=443, virtual_port=8443,
                 onion_address="%056d.onion" % i) for i in range(300 if SMALL else 14000)]
LISTING_TEXT = json.dumps(listing(*SERVICES))
SHOWN = [dict(service=s["tenant_name"], uuid=s["uuid"], status="connected",
              ip_address=s["ip_address"], port=443, virtual_port=8443,
              onion_address=s["onion_address"]) for s in SERVICES]
CASES.append(Case("json_listing_of_3_mb", ["--json", "-l"],
                  json.dumps(dict(version=1, ok=True, services=SHOWN)) + "\n",
                  agent={"get_tenants": [reply_text(LISTING_TEXT)]},
                  peak_mib=4 * len(LISTING_TEXT) / MIB + 8))
