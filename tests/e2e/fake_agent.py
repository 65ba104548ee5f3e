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

def reply(data, id_shift=0, command=None, **send_options):
    """Answers the request with `data`; id_shift != 0 gives a wrong id."""
    def act(conn, request):
        message = ap.response_message(command or request["command"],
                                      request["id"] + id_shift, data)
        conn.send_json(message, **send_options)
    return act


def event(*tenants, **send_options):
    """A "tenants_event" whose list holds each tenant dict as a JSON string."""
    def act(conn, _request):
        conn.send_event(list(tenants), **send_options)
    return act


def event_data(data, **send_options):
    """A "tenants_event" with `data` exactly as given (malformed lists)."""
    def act(conn, _request):
        conn.send_json({"command": ap.TENANTS_EVENT, "data": data}, **send_options)
    return act


def raw(text):
    """A text frame holding `text` as it is (not necessarily JSON)."""
    def act(conn, _request):
        conn.send_text(text)
    return act


def evict():
    def act(conn, _request):
        conn.send_eviction()
    return act


def ping(payload=b"are you there"):
    def act(conn, _request):
        conn.send_ping(payload)
    return act


def wait(seconds):
    def act(_conn, _request):
        time.sleep(seconds)
    return act


SUBSCRIBED = reply({"subscriptions": [
    {"subscription_name": "services_subscription", "result": True}]})


class FakeAgent:
    """Runs the script on every client that connects, in a thread."""

    def __init__(self, script=None, host=ap.DEFAULT_HOST, port=ap.DEFAULT_PORT):
        self.script = dict(script or {})
        self.script.setdefault("subscription", [SUBSCRIBED])
        self.listener = ap.listen(host, port)
        self.listener.settimeout(0.1)
        self.received = []  # every JSON message, in arrival order
        self.pongs = []  # payloads of the client's pongs
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

    def _next_message(self, conn):
        """Next text message as JSON, or None after a pause with nothing
        read. Records pongs and answers pings on the way."""
        while True:
            try:
                opcode, payload = conn.read_message()
            except socket.timeout:
                return None
            if opcode == ap.OP_PONG:
                self.pongs.append(payload)
            elif opcode == ap.OP_PING:
                conn.send_pong(payload)
            elif opcode == ap.OP_CLOSE:
                raise ap.ConnectionClosed("close frame")
            else:
                try:
                    return json.loads(payload.decode("utf-8"))
                except ValueError as err:
                    raise ap.ProtocolError("client sent bad JSON: %s" % err) from err

    def _converse(self, conn):
        conn.sock.settimeout(2.0)
        conn.handshake()
        conn.sock.settimeout(0.2)
        while True:
            message = self._next_message(conn)
            if message is None:
                # Everything sent before the stop has been read by now.
                if self._stop.is_set():
                    return
                continue
            self.received.append(message)
            command = message.get("command")
            for action in self.script.get(command, []):
                action(conn, message)
