"""A scripted Transfer Agent for the end-to-end, hostile and fault tests.

It listens on 127.0.0.1:11038, serves each client in a thread, records what
the client sends and plays, for each received command, the actions that the
script lists for it. A script maps a command name ("connection" for the
announcement) to actions; "subscription" is answered with success unless the
script says otherwise, other commands without actions get no answer, and
actions under "handshake" replace the handshake answer. A command that comes
more than once on a connection (the steps of an apply) may play different
actions each time (`turns`), and actions may answer from the request itself
(`acknowledge`, `about_request`).
"""

import json
import os
import socket
import sys
import threading
import time

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tools", "agent"))
import agent_protocol as ap  # noqa: E402

SANITIZED = False  # set by run_case.py for an AddressSanitizer build


def send_json(conn, value, **send_options):
    """Lone surrogates ("\\udce9") go as raw bytes (0xE9): text that is not UTF-8."""
    conn.send_text(json.dumps(value, ensure_ascii=False).encode("utf-8", "surrogateescape"),
                   **send_options)


# -- actions -----------------------------------------------------------------
# Each action is a function (connection, request) -> None. `request` is the
# client's message that triggered it.

def reply(data, id_shift=0, **send_options):
    """Answers the request with `data`; id_shift != 0 gives a wrong id."""
    return lambda conn, request: send_json(conn, ap.response_message(
        request["command"], request["id"] + id_shift, data), **send_options)


def reply_text(data_text, fragment=None):
    """Answers with the envelope around `data_text` (any text), in frames of
    at most `fragment` bytes when given."""
    def action(conn, request):
        payload = ('{"command": "%s", "id": %d, "data": ' % (request["command"], request["id"])
                   ).encode() + data_text.encode("utf-8", "surrogateescape") + b"}"
        step = fragment or len(payload)
        for start in range(0, len(payload), step):
            conn.sock.sendall(ap.encode_frame(payload[start:start + step],
                                              ap.OP_CONTINUATION if start else ap.OP_TEXT,
                                              fin=start + step >= len(payload)))
    return action


def event(*tenants, **send_options):
    """A "tenants_event" whose list holds each tenant dict as a JSON string."""
    return event_data({"tenants": [json.dumps(t, ensure_ascii=False) for t in tenants]},
                      **send_options)


def event_data(data, **send_options):
    """A "tenants_event" with `data` exactly as given (malformed lists)."""
    return lambda conn, _request: send_json(conn, {"command": ap.TENANTS_EVENT, "data": data},
                                            **send_options)


def raw(text):
    """A text frame holding `text` as it is (not necessarily JSON)."""
    return lambda conn, _request: conn.send_text(text)


def wire(data):
    """Bytes as they are, outside any frame."""
    return lambda conn, _request: conn.sock.sendall(data)


def stream(chunk, seconds=8.0):
    """Sends `chunk` again and again until the client leaves."""
    def action(conn, _request):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            conn.sock.sendall(chunk)
    return action


def evict():
    return lambda conn, _request: conn.send_eviction()


def ping(payload=b"are you there"):
    return lambda conn, _request: conn.send_ping(payload)


def wait(seconds):
    return lambda _conn, _request: time.sleep(seconds)


def request_names(request):
    """The service names a request is about: "tenants" of connect and
    disconnect, "name" of an add, "tenant_name" of an edit or a removal."""
    data = request.get("data") or {}
    names = data.get("tenants")
    if isinstance(names, list):
        return [n for n in names if isinstance(n, str)]
    name = data.get("name", data.get("tenant_name"))
    return [name] if isinstance(name, str) else []


def acknowledge(ack=True, reason=None):
    """Answers a connect or disconnect with one "ack" element per name asked."""
    def element(name):
        item = {"tenant_name": name, "ack": ack}
        if reason is not None:
            item["reason"] = reason
        return json.dumps(item, ensure_ascii=False)
    return lambda conn, request: send_json(conn, ap.response_message(
        request["command"], request["id"], {"tenants": [element(n) for n in request_names(request)]}))


def about_request(**fields):
    """A "tenants_event" with one element per name the request is about,
    each holding `fields` (status, synchronized, onion_address...)."""
    return lambda conn, request: event(*[dict(tenant_name=n, **fields)
                                         for n in request_names(request)])(conn, request)


class turns(list):
    """Actions per occurrence of a command on one connection: the first
    request plays the first list, the second the second, and so on; the last
    list plays again for any later one."""

    def __init__(self, *action_lists):
        super().__init__(action_lists)

    def for_occurrence(self, number):
        return self[min(number, len(self) - 1)] if self else []


SUBSCRIBED = reply({"subscriptions": [
    {"subscription_name": "services_subscription", "result": True}]})


class FakeAgent:
    """Runs the script on every client that connects."""

    def __init__(self, script):
        self.script = dict(script)
        self.script.setdefault("subscription", [SUBSCRIBED])
        self.listener = ap.listen(backlog=64)
        self.listener.settimeout(0.1)
        self.received = []  # every JSON message, in arrival order
        self.pongs = []  # payloads of the client's pongs
        self.closes = []  # payloads of the client's close frames
        self.connections = 0
        self.errors = []  # protocol faults seen on the agent's side
        self._stop = threading.Event()
        self._threads = [threading.Thread(target=self._serve, daemon=True)]
        self._threads[0].start()

    def __enter__(self):
        return self

    def __exit__(self, *_exc):
        self._stop.set()
        for thread in list(self._threads):
            thread.join(5)
        self.listener.close()

    def _serve(self):
        while not self._stop.is_set():
            try:
                conn = ap.accept(self.listener, timeout=2.0)
            except socket.timeout:
                continue
            except OSError:
                return
            self.connections += 1
            self._threads.append(threading.Thread(target=self._converse, args=(conn,),
                                                  daemon=True))
            self._threads[-1].start()

    def _converse(self, conn):
        try:
            self._play(conn)
        except (ap.ConnectionClosed, OSError):
            pass
        except ap.ProtocolError as err:
            self.errors.append(str(err))
        finally:
            conn.close()

    def _play(self, conn):
        """Plays the script for each JSON message; records pongs and answers
        pings on the way. Everything sent before the stop is read by then."""
        conn.sock.settimeout(10.0)
        if "handshake" in self.script:
            conn.read_handshake()
            for action in self.script["handshake"]:
                action(conn, None)
        else:
            conn.handshake()
        conn.sock.settimeout(0.2)
        seen = {}  # command -> how many times it came on this connection
        while True:
            try:
                opcode, payload = conn.read_message()
            except socket.timeout:
                if self._stop.is_set():
                    return
                continue
            if opcode == ap.OP_PONG:  # the tool's pongs go unmasked
                self.pongs.append(("masked", payload) if conn.last_control_masked else payload)
            elif opcode == ap.OP_PING:
                conn.send_pong(payload)
            elif opcode == ap.OP_CLOSE:
                self.closes.append(payload)
                raise ap.ConnectionClosed("close frame")
            else:
                try:
                    message = json.loads(payload.decode("utf-8"))
                except ValueError as err:
                    raise ap.ProtocolError("client sent bad JSON: %s" % err) from err
                self.received.append(message)
                conn.sock.settimeout(10.0)  # a slow reader may take a while to drain a send
                command = message.get("command")
                actions = self.script.get(command, [])
                if isinstance(actions, turns):
                    actions = actions.for_occurrence(seen.get(command, 0))
                seen[command] = seen.get(command, 0) + 1
                for action in actions:
                    action(conn, message)
                conn.sock.settimeout(0.2)
