"""Drives tools/agent/sylvane-agent-sim the way sylvane-service does."""

import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
SIM = os.path.join(HERE, "..", "..", "tools", "agent", "sylvane-agent-sim")
sys.path.insert(0, os.path.dirname(SIM))
import agent_protocol as ap  # noqa: E402

KEY = "k" * 76
ONION = re.compile(r"^[a-z2-7]{56}\.onion$")


class Client:
    """The tool's side: masked frames, announcement first."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=3)
        key = ap.random_key()
        self.sock.sendall(("GET / HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                           "Sec-WebSocket-Key: %s\r\n\r\n" % key).encode())
        self.buffer = self.sock.recv(4096)
        assert self.buffer.startswith(ap.handshake_response(key)), self.buffer
        self.buffer = self.buffer[len(ap.handshake_response(key)):]
        self.next_id = 100
        self.send({"command": "connection", "id": 17})

    def send(self, message):
        self.sock.sendall(ap.encode_frame(json.dumps(message), mask=b"\x01\x02\x03\x04"))

    def recv(self):
        while True:
            frame, used = ap.decode_frame(self.buffer)
            if frame is not None:
                self.buffer = self.buffer[used:]
                return json.loads(frame.payload)
            chunk = self.sock.recv(65536)
            if not chunk:
                raise EOFError
            self.buffer += chunk

    def call(self, command, data=None):
        self.next_id += 1
        self.send({"command": command, "id": self.next_id, "data": data or {}})
        reply = self.recv()
        assert (reply["command"], reply["id"]) == (command, self.next_id), reply
        return reply["data"]

    def subscribe(self):
        return self.call("subscription", {"subscriptions": ["services_subscription"]})

    def events(self, name, until):
        """Statuses of `name` in tenants events until one has status `until`."""
        seen = []
        while not seen or seen[-1]["status"] != until:
            event = self.recv()
            assert event["command"] == "tenants_event" and "id" not in event, event
            seen += [t for t in map(json.loads, event["data"]["tenants"])
                     if t["tenant_name"] == name]
        return seen

    def close(self):
        self.sock.close()


def add_data(name):
    return {"method": "api_key", "value": KEY, "name": name, "ip_address": "127.0.0.1",
            "port": 80, "virtual_port": 8080, "clear_services": ["a.com"]}


def tenants(data):
    return [json.loads(t) for t in data["tenants"]]


class SimTestCase(unittest.TestCase):
    def start(self, *args):
        """A simulator on a free port and a client of it; both end with the test."""
        sim = subprocess.Popen([sys.executable, SIM, "--port", "0", "--step", "0.05", "--quiet",
                                *args], stdout=subprocess.PIPE, text=True)
        sim.port = int(sim.stdout.readline().rsplit(":", 1)[1])
        self.addCleanup(sim.wait, timeout=5)
        self.addCleanup(sim.stdout.close)
        self.addCleanup(sim.terminate)
        client = Client(sim.port)
        self.addCleanup(client.close)
        return sim, client


class Services(SimTestCase):
    def test_lifecycle(self):
        _, c = self.start()
        self.assertEqual(c.subscribe()["subscriptions"],
                         [{"subscription_name": "services_subscription", "result": True}])
        self.assertEqual(c.call("add_tenant", add_data("web")), {"added": True})
        confirm = c.events("web", "disconnected")[0]
        self.assertRegex(confirm["onion_address"], ONION)
        self.assertEqual(c.call("add_tenant", add_data("web"))["added"], False)
        self.assertEqual(c.call("edit_tenant", {"tenant_name": "nope", "ip_address": "1.2.3.4",
                                                "port": 1, "virtual_port": 1})["edited"], False)
        self.assertEqual(c.call("edit_tenant", {"tenant_name": "web", "ip_address": "10.0.0.2",
                                                "port": 443, "virtual_port": 443}),
                         {"edited": True})
        self.assertEqual(c.call("connect_tenants", {"tenants": ["web", "ghost"]})["tenants"],
                         [json.dumps({"tenant_name": "web", "ack": True}),
                          json.dumps({"tenant_name": "ghost", "ack": False,
                                      "reason": "Unknown service."})])
        steps = [(e["status"], e["synchronized"]) for e in c.events("web", "connected")]
        steps += [(e["status"], e["synchronized"]) for e in c.events("web", "connected")]
        self.assertEqual(steps, [("in progress", False), ("in progress", False),
                                 ("connected", False), ("connected", True)])
        [listed] = tenants(c.call("get_tenants"))
        self.assertEqual({k: listed[k] for k in ("ip_address", "port", "virtual_port", "status",
                                                 "onion_address", "uuid")},
                         {"ip_address": "10.0.0.2", "port": 443, "virtual_port": 443,
                          "status": "connected", "onion_address": confirm["onion_address"],
                          "uuid": confirm["uuid"]})
        c.call("disconnect_tenants", {"tenants": ["web"]})
        self.assertEqual(c.events("web", "disconnected")[-1]["status"], "disconnected")
        self.assertEqual(c.call("remove_tenant", {"tenant_name": "web"}), {"removed": True})
        self.assertEqual(c.call("remove_tenant", {"tenant_name": "web"})["removed"], False)
        self.assertEqual(c.call("get_tenants"), {"tenants": []})

    def test_one_client_at_a_time(self):
        sim, first = self.start()
        first.call("get_proxy")  # answered only once the first client holds the slot
        second = Client(sim.port)
        self.assertEqual(second.recv(), {"command": "please_disconnect", "id": 0})
        second.close()
        first.close()
        for _ in range(50):  # the slot frees once the simulator sees the close
            third = Client(sim.port)
            third.send({"command": "get_proxy", "id": 5, "data": {}})
            if third.recv()["command"] == "get_proxy":
                break
            third.close()
        else:
            self.fail("the slot was never freed")
        third.close()

    def test_failure_switches(self):
        cases = [
            (["--refuse-key", "Invalid API key"], "refused"),
            (["--enable-error", "Manager unreachable"], "error"),
            (["--never-complete-enable"], "stuck"),
            (["--mute"], "silent"),
        ]
        for args, outcome in cases:
            with self.subTest(outcome):
                sim, c = self.start(*args)
                if outcome == "silent":
                    c.sock.settimeout(0.5)
                    with self.assertRaises(socket.timeout):
                        c.subscribe()
                    continue
                c.subscribe()
                added = c.call("add_tenant", add_data("svc"))
                if outcome == "refused":
                    self.assertEqual(added, {"added": False, "reason": "Invalid API key"})
                    continue
                c.events("svc", "disconnected")
                c.call("connect_tenants", {"tenants": ["svc"]})
                if outcome == "error":
                    last = c.events("svc", "error")[-1]
                    self.assertEqual(last["reason"], "Manager unreachable")
                else:
                    statuses = {c.events("svc", "in progress")[-1]["status"] for _ in range(4)}
                    self.assertEqual(statuses, {"in progress"})

    def test_state_survives_restart(self):
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "state.json")
            sim, c = self.start("--state", path)
            c.subscribe()
            c.call("add_tenant", add_data("kept"))
            c.call("save_proxy", {"ip_address": "10.1.1.1", "port": 3128, "proxy_type": "HTTPS"})
            c.close()
            sim.terminate()
            sim.wait(timeout=5)
            _, again = self.start("--state", path)
            self.assertEqual([t["tenant_name"] for t in tenants(again.call("get_tenants"))],
                             ["kept"])
            self.assertEqual(again.call("get_proxy")["ip_address"], "10.1.1.1")

    def test_port_taken(self):
        holder = socket.socket()
        holder.bind(("127.0.0.1", 0))
        holder.listen(1)
        self.addCleanup(holder.close)
        run = subprocess.run([sys.executable, SIM, "--port", str(holder.getsockname()[1])],
                             capture_output=True, text=True, timeout=10)
        self.assertEqual(run.returncode, 2)
        self.assertIn("already in use", run.stderr)


class Settings(SimTestCase):
    def test_settings_validated_stored_and_returned(self):
        _, c = self.start()
        cases = [
            ("set_proxy", {"enable": True}, False),  # nothing saved yet
            ("save_proxy", {"ip_address": "10.0.0.1", "port": 8080, "proxy_type": "Socks5"},
             False),
            ("save_proxy", {"ip_address": "10.0.0.1", "port": 0, "proxy_type": "HTTP"}, False),
            ("save_proxy", {"ip_address": "10.0.0.1", "port": 8080, "proxy_type": "SOCKS5"}, True),
            ("set_proxy", {"enable": True}, True),
            ("set_authentication_audit", {"enable": True}, True),
            ("save_traceability_logger_config", {"target": "console"}, True),
            ("save_traceability_logger_config", {"target": "file", "path": "logs",
                                                 "filename_format": "t.log", "max_size": 10},
             False),
            ("save_traceability_logger_config", {"target": "file", "path": "/var/log/s",
                                                 "filename_format": "t.log", "max_size": 0},
             False),
            ("save_traceability_logger_config", {"target": "syslog", "address": "10.0.0.9",
                                                 "protocol": "udp", "port": 514}, True),
            ("save_traceability_logger_config", {"target": "syslog", "address": "10.0.0.9",
                                                 "protocol": "SCTP", "port": 514}, False),
        ]
        for command, data, success in cases:
            with self.subTest(command=command, data=data):
                reply = c.call(command, data)
                self.assertEqual(reply["success"], success)
                self.assertEqual("reason" in reply, not success)
        self.assertEqual(c.call("get_proxy"), {"type": "SOCKS5", "ip_address": "10.0.0.1",
                                               "port": 8080, "enabled": True})

    def test_unknown_command_gets_no_answer(self):
        _, c = self.start()
        c.send({"command": "reboot", "id": 3, "data": {}})
        self.assertEqual(c.call("subscription", {"subscriptions": ["nope"]})["subscriptions"],
                         [{"subscription_name": "nope", "result": False,
                           "reason": "Subscription does not exist"}])


if __name__ == "__main__":
    unittest.main()
