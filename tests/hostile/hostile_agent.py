#!/usr/bin/env python3
"""Hostile Transfer Agents: hostile_agent.py --list | CASE BINARY.

Each case plays a misbehaving or malicious server on 127.0.0.1:11038 and
runs the tool against it. Whatever the server does, the tool must end within
its own time-out with its documented message and status, never die of a
signal, and keep its peak memory (VmHWM) under 64 MiB. The peak is polled
from /proc: getrusage would count the forked Python before exec.
"""

import collections
import json
import os
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tools", "agent"))
import agent_protocol as ap  # noqa: E402

MEMORY_LIMIT_KIB = 64 * 1024
SLACK = 1.5  # seconds the tool may take beyond its time-out to exit
MIB = 1024 * 1024
SANITIZED = False  # set by run() for an AddressSanitizer build
LATE = "Transfer Agent process did not respond in expected time. Please retry.\n"
TOO_LARGE = "Transfer Agent message larger than 16 MiB: connection dropped.\n"
LATE_RUNNING = LATE[:-1] + " Make sure the Sylvane Network process is currently running\n"


class Stop(Exception):
    """The client went away; the hostile server is done."""


def requests(conn):
    """Yields the client's JSON requests, skipping the announcement."""
    while True:
        try:
            message = conn.read_json()
        except (ap.ConnectionClosed, OSError) as err:
            raise Stop() from err
        if message.get("command") != "connection":
            yield message


def stream(conn, chunk, seconds=8.0):
    """Sends `chunk` again and again until the client leaves."""
    end = time.monotonic() + seconds
    try:
        while time.monotonic() < end:
            conn.sock.sendall(chunk)
    except OSError as err:
        raise Stop() from err


# ---- server behaviours ------------------------------------------------------

def huge_frame(conn):
    """A frame that announces 1 TiB and keeps streaming its payload."""
    conn.handshake()
    next(requests(conn))
    conn.sock.sendall(b"\x81\x7f" + struct.pack("!Q", 1 << 40))
    stream(conn, b"x" * 65536)


def endless_fragments(conn):
    """A text message that never gets its final fragment."""
    conn.handshake()
    next(requests(conn))
    conn.send_frame(b"{", fin=False)
    stream(conn, ap.encode_frame(b" " * 60000, ap.OP_CONTINUATION, fin=False))


def endless_header(conn):
    """A handshake answer whose header never ends."""
    conn.read_handshake()
    conn.sock.sendall(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n")
    stream(conn, b"X-Padding: " + b"a" * 200 + b"\r\n")


def not_websocket(conn):
    """An ordinary web server on the port."""
    conn.read_handshake()
    body = b"<html><body>Not Found</body></html>"
    conn.sock.sendall(b"HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n"
                      b"Content-Length: %d\r\n\r\n%s" % (len(body), body))
    time.sleep(6)


def banner(conn):
    """A server that speaks first and something else entirely."""
    conn.sock.sendall(b"SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n")
    time.sleep(6)


def reset_mid_frame(conn):
    """Half of an answer, then a TCP reset."""
    conn.handshake()
    request = next(requests(conn))
    frame = ap.encode_frame(json.dumps(ap.response_message(
        request["command"], request["id"], {"tenants": []})))
    conn.sock.sendall(frame[:len(frame) // 2])
    time.sleep(0.2)
    conn.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    conn.sock.close()


def tenant(name, status, synchronized="false"):
    return {"tenant_name": name, "status": status, "synchronized": synchronized}


def event_flood(conn):
    """Enabling "web" under thousands of events of 20 services, then success."""
    conn.handshake()
    for request in requests(conn):
        if request["command"] == "subscription":
            conn.send_response("subscription", request["id"], {"subscriptions": [
                {"subscription_name": "services_subscription", "result": True}]})
            continue
        others = ap.encode_frame(json.dumps(ap.event_message(
            [tenant("other%d" % i, "in progress") for i in range(20)])))
        mine = ap.encode_frame(json.dumps(ap.event_message([tenant("web", "in progress")])))
        # An unoptimised sanitizer build reads events ten times slower.
        rounds = 15 if SANITIZED else 150
        conn.sock.sendall((others * 20 + mine) * rounds)
        conn.send_response(request["command"], request["id"], {"tenants": [
            json.dumps({"tenant_name": "web", "ack": True})]})
        conn.sock.sendall(others * (rounds * 7))
        conn.send_json(ap.event_message([tenant("web", "connected", "true")]))
        time.sleep(6)
        return


def answer_with(data_text):
    """Answers the first request with the envelope around data_text()."""
    def behaviour(conn):
        conn.handshake()
        request = next(requests(conn))
        payload = ('{"command": "%s", "id": %d, "data": %s}' % (
            request["command"], request["id"], data_text())).encode()
        # Sent in pieces so that a large answer is not one huge send.
        for start in range(0, len(payload), MIB):
            piece = payload[start:start + MIB]
            conn.sock.sendall(ap.encode_frame(piece, ap.OP_CONTINUATION if start else ap.OP_TEXT,
                                              fin=start + len(piece) >= len(payload)))
        time.sleep(6)
    return behaviour


def enormous_response():
    # Just under the largest message the framing accepts (6 MiB): the tool
    # holds several copies of it while reading it. A sanitizer build parses
    # ten times slower and is not held to the memory limit, so it gets less,
    # to settle within the time-out.
    size = 2 * MIB if SANITIZED else 6 * MIB - 4096
    return ('{"type": "HTTP", "ip_address": "10.1.2.3", "enabled": true, "port": 3128, '
            '"padding": "%s"}' % ("p" * size))


# ---- cases --------------------------------------------------------------------
# behaviour, arguments, time-out, status, stderr, exact stdout, or end of stdout
Case = collections.namedtuple("Case", "behaviour args timeout status stderr stdout tail",
                              defaults=("", None, None))
LIST, GET = (["-l"], 2), (["-g"], 4)  # time-out of each command, in seconds
QUIET = (0, "", "")  # an unreadable answer costs the pending command; it ends quietly
CASES = {
    "huge_frame": Case(huge_frame, *LIST, 1, TOO_LARGE + LATE),
    "endless_fragments": Case(endless_fragments, *GET, 1, TOO_LARGE + LATE_RUNNING),
    "endless_header": Case(endless_header, *LIST, 1, LATE),
    "not_websocket": Case(not_websocket, *GET, 1, LATE_RUNNING),
    "banner": Case(banner, *LIST, 1, LATE),
    "reset_mid_frame": Case(reset_mid_frame, *LIST, 1, LATE),
    "event_flood": Case(event_flood, ["-s", "web"], 15, 0, "",
                        tail="\nService enabled and synchronized successfully.\n"),
    "deep_json": Case(answer_with(lambda: "[" * 500000 + "]" * 500000), *LIST, *QUIET),
    "deep_element": Case(answer_with(lambda: '{"tenants": [%s]}' % json.dumps(
        "[" * 100000 + "]" * 100000)), *LIST, *QUIET),
    "enormous_json": Case(answer_with(enormous_response), *GET, 0, "",
                          "---------- Proxy configuration ----------\nIP address:\t10.1.2.3\n"
                          "Port:\t\t3128\nType:\t\tHTTP\nStatus:\t\tEnabled\n"),
    "oversized_json": Case(answer_with(lambda: '{"tenants": [], "padding": "%s"}' % (
        "p" * (20 * MIB))), *LIST, 1, TOO_LARGE + LATE),
    # As many values as a document may hold, each a short string that is not
    # a service: parsed, copied as "data" and read as a list, they cost far
    # more than their text; the listing stops at the first.
    "many_strings": Case(answer_with(lambda: '{"tenants": [%s]}' % ", ".join(
        '"not a service %05d"' % i for i in range(65535))), *LIST, *QUIET),
    "too_many_values": Case(answer_with(lambda: '{"tenants": [%s]}' % ",".join(
        ["1"] * 70000)), *LIST, *QUIET),
    # Refused before parsing: building it would take minutes.
    "many_members": Case(answer_with(lambda: "{%s}" % ", ".join(
        '"k%d": [%d, true, null]' % (i, i) for i in range(200000))), *GET, *QUIET),
}


# ---- running ----------------------------------------------------------------

def serve(listener, behaviour, stop):
    """Accepts every connection on the Transfer Agent's port and hands it to
    the behaviour in a thread of its own, until `stop` is set."""
    listener.settimeout(0.1)

    def run_one(sock):
        with sock:
            try:
                behaviour(ap.Connection(sock, timeout=10.0))
            except (Stop, OSError, ap.ConnectionClosed, ap.ProtocolError):
                pass

    with listener:
        while not stop.is_set():
            try:
                threading.Thread(target=run_one, args=(listener.accept()[0],),
                                 daemon=True).start()
            except socket.timeout:
                continue


def peak_kib(pid, peak):
    """The process's VmHWM in KiB, or `peak` when it is already gone."""
    try:
        with open("/proc/%d/status" % pid) as status:
            for line in status:
                if line.startswith("VmHWM:"):
                    return max(peak, int(line.split()[1]))
    except (OSError, ValueError):
        pass
    return peak


def run(name, binary):
    global SANITIZED
    with open(binary, "rb") as image:  # ASan's shadow memory hides the tool's peak
        SANITIZED = b"__asan_init" in image.read()
    case = CASES[name]
    stop = threading.Event()
    server = threading.Thread(target=serve, args=(ap.listen(), case.behaviour, stop),
                              daemon=True)
    server.start()
    start = time.monotonic()
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        tool = subprocess.Popen([binary] + case.args, stdin=subprocess.DEVNULL, stdout=out,
                                stderr=err)
        peak, limit = 0, start + case.timeout + SLACK + 10
        while tool.poll() is None and time.monotonic() < limit:
            peak = peak_kib(tool.pid, peak)
            time.sleep(0.005)
        if tool.poll() is None:
            tool.kill()
        status, elapsed = tool.wait(), time.monotonic() - start
        out.seek(0), err.seek(0)
        out, err = out.read().decode(errors="replace"), err.read().decode(errors="replace")
    stop.set()
    server.join()

    faults = []
    if status < 0:
        faults.append("killed by signal %s" % signal.Signals(-status).name)
    elif status != case.status:
        faults.append("exit status %d, expected %d" % (status, case.status))
    if elapsed > case.timeout + SLACK:
        faults.append("took %.2f s, time-out is %d s" % (elapsed, case.timeout))
    if err != case.stderr:
        faults.append("standard error %r, expected %r" % (err[:300], case.stderr))
    if case.stdout is not None and out != case.stdout:
        faults.append("standard output %r, expected %r" % (out[:300], case.stdout))
    if case.tail is not None and not out.endswith(case.tail):
        faults.append("standard output ends %r, expected %r" % (out[-200:], case.tail))
    if peak > MEMORY_LIMIT_KIB and not SANITIZED:
        faults.append("peak memory %d KiB, limit %d KiB" % (peak, MEMORY_LIMIT_KIB))
    print("%s: status %d in %.2f s, peak %d KiB" % (name, status, elapsed, peak))
    for fault in faults:
        print("FAULT: " + fault)
    return 1 if faults else 0


def main(argv):
    if argv[1:] == ["--list"]:
        print(";".join(CASES))
        return 0
    if len(argv) != 3 or argv[1] not in CASES:
        sys.stderr.write("usage: hostile_agent.py --list | CASE BINARY\n")
        return 2
    return run(argv[1], argv[2])


if __name__ == "__main__":
    sys.exit(main(sys.argv))
