"""A scripted Transfer Agent for the end-to-end tests.

It listens on 127.0.0.1:11038, answers the opening handshake, records every
message the client sends and plays, for each received command, the actions
that the test's script lists for it. Scripts are dicts from a command name
(or "connection" for the announcement) to a list of actions; "subscription"
is answered with success unless the script says otherwise, and any other
command without actions gets no answer at all.
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


# -- actions -----------------------------------------------------------------
# Each action is a function (connection, request) -> None. `request` is the
# client's message that triggered it.

def reply(data, id_shift=0, **send_options):
    """Answers the request with `data`; id_shift != 0 gives a wrong id."""
    return lambda conn, request: conn.send_json(ap.response_message(
        request["command"], request["id"] + id_shift, data), **send_options)


def event(*tenants, **send_options):
    """A "tenants_event" whose list holds each tenant dict as a JSON string."""
    return lambda conn, _request: conn.send_event(list(tenants), **send_options)


def event_data(data, **send_options):
    """A "tenants_event" with `data` exactly as given (malformed lists)."""
    return lambda conn, _request: conn.send_json({"command": ap.TENANTS_EVENT, "data": data},
                                                 **send_options)


def raw(text):
    """A text frame holding `text` as it is (not necessarily JSON)."""
    return lambda conn, _request: conn.send_text(text)


def evict():
    return lambda conn, _request: conn.send_eviction()


def ping(payload=b"are you there"):
    return lambda conn, _request: conn.send_ping(payload)


def wait(seconds):
    return lambda _conn, _request: time.sleep(seconds)


SUBSCRIBED = reply({"subscriptions": [
    {"subscription_name": "services_subscription", "result": True}]})


class FakeAgent:
    """Runs the script on every client that connects, in a thread."""

    def __init__(self, script):
        self.script = dict(script)
        self.script.setdefault("subscription", [SUBSCRIBED])
        self.listener = ap.listen()
        self.listener.settimeout(0.1)
        self.received = []  # every JSON message, in arrival order
        self.pongs = []  # payloads of the client's pongs
        self.closes = []  # payloads of the client's close frames
        self.connections = 0
        self.errors = []  # protocol faults seen on the agent's side
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._serve, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_exc):
        self._stop.set()
        self._thread.join(5)
        self.listener.close()

    def _serve(self):
        while not self._stop.is_set():
            try:
                conn = ap.accept(self.listener, timeout=0.2)
            except socket.timeout:
                continue
            except OSError:
                return
            self.connections += 1
            try:
                self._converse(conn)
            except (ap.ConnectionClosed, OSError):
                pass
            except ap.ProtocolError as err:
                self.errors.append(str(err))
            finally:
                conn.close()

    def _converse(self, conn):
        """Plays the script for each JSON message; records pongs and answers
        pings on the way. Everything sent before the stop is read by then."""
        conn.sock.settimeout(2.0)
        conn.handshake()
        conn.sock.settimeout(0.2)
        while True:
            try:
                opcode, payload = conn.read_message()
            except socket.timeout:
                if self._stop.is_set():
                    return
                continue
            if opcode == ap.OP_PONG:
                self.pongs.append(payload)
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
                for action in self.script.get(message.get("command"), []):
                    action(conn, message)
