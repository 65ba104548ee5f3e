#!/usr/bin/env python3
"""An agent that answers every request with N pre-built services at once, so
that timing `sylvane-service -l` against it measures the tool, not the
simulator (which spends as long building a large list as the tool spends
reading it).

Usage: canned_agent.py N    (listens on 127.0.0.1:11038; run it in a private
network namespace, as bench/NOTES.md shows)
"""
import json
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "tools",
                                "agent"))
import agent_protocol as ap  # noqa: E402
from bench import service  # noqa: E402


def serve(data_text):
    listener = ap.listen()
    print("ready", flush=True)
    while True:
        sock, _ = listener.accept()
        conn = ap.Connection(sock)
        try:
            conn.handshake()
            conn.read_json()  # the announcement
            request = conn.read_json()
            text = '{"command": "%s", "id": %d, "data": %s}' % (request["command"],
                                                                 request["id"], data_text)
            sock.sendall(ap.encode_frame(text.encode()))
            while conn.read_frame():
                pass
        except (ap.ConnectionClosed, ap.ProtocolError, OSError):
            pass
        conn.close()


if __name__ == "__main__":
    count = int(sys.argv[1])
    serve(json.dumps({"tenants": [json.dumps(service(i)) for i in range(count)]}))
