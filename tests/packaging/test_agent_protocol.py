"""Frame and handshake checks of tools/agent/agent_protocol.py."""

import os
import socket
import sys
import threading
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "tools", "agent"))
import agent_protocol as ap  # noqa: E402

MASK = bytes([0x37, 0xFA, 0x21, 0x3D])


class RfcExamples(unittest.TestCase):
    # RFC 6455 section 5.7, byte for byte.
    CASES = [
        ("unmasked text", b"Hello", ap.OP_TEXT, True, None, "810548656c6c6f"),
        ("masked text", b"Hello", ap.OP_TEXT, True, MASK, "818537fa213d7f9f4d5158"),
        ("first fragment", b"Hel", ap.OP_TEXT, False, None, "010348656c"),
        ("last fragment", b"lo", ap.OP_CONTINUATION, True, None, "80026c6f"),
        ("unmasked ping", b"Hello", ap.OP_PING, True, None, "890548656c6c6f"),
        ("masked pong", b"Hello", ap.OP_PONG, True, MASK, "8a8537fa213d7f9f4d5158"),
    ]

    def test_encode_and_decode(self):
        for name, payload, opcode, fin, mask, wire in self.CASES:
            with self.subTest(name):
                raw = bytes.fromhex(wire)
                self.assertEqual(ap.encode_frame(payload, opcode, fin, mask), raw)
                frame, used = ap.decode_frame(raw)
                self.assertEqual(used, len(raw))
                self.assertEqual((frame.payload, frame.opcode, frame.fin, frame.mask),
                                 (payload, opcode, fin, mask))

    def test_handshake_accept(self):
        # RFC 6455 section 1.3 sample.
        self.assertEqual(ap.accept_value("dGhlIHNhbXBsZSBub25jZQ=="),
                         "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=")


class RoundTrips(unittest.TestCase):
    HEADERS = {256: "827e0100", 65536: "827f0000000000010000"}  # RFC 6455 section 5.7

    def test_length_forms_and_masks(self):
        for size in (0, 1, 125, 126, 127, 200, 256, 65535, 65536):
            for bits in (None, 16, 64):
                for mask in (None, b"\x01\x02\x03\x04"):
                    if bits == 16 and size > 65535:
                        continue
                    with self.subTest(size=size, bits=bits, masked=mask is not None):
                        payload = bytes(i % 251 for i in range(size))
                        raw = ap.encode_frame(payload, ap.OP_BINARY, mask=mask, length_bits=bits)
                        frame, used = ap.decode_frame(raw + b"\x81")
                        self.assertEqual((frame.payload, used), (payload, len(raw)))
                        if size in self.HEADERS and bits is mask is None:
                            self.assertEqual(raw.hex()[:-2 * size], self.HEADERS[size])

    def test_forced_form_too_small_is_refused(self):
        for size, bits in [(126, 7), (65536, 16)]:
            with self.subTest(size=size, bits=bits):
                with self.assertRaises(ValueError):
                    ap.encode_frame(bytes(size), length_bits=bits)

    def test_every_prefix_is_incomplete(self):
        raw = ap.encode_frame(b"x" * 300, mask=MASK)
        for cut in range(len(raw)):
            self.assertEqual(ap.decode_frame(raw[:cut]), (None, 0), cut)


class OverSocket(unittest.TestCase):
    """A server Connection against a raw client socket."""

    def setUp(self):
        self.listener = ap.listen(port=0)
        self.port = self.listener.getsockname()[1]
        self.client = socket.create_connection(("127.0.0.1", self.port), timeout=5)
        self.server = ap.accept(self.listener)

    def tearDown(self):
        self.client.close()
        self.server.close()
        self.listener.close()

    def recv_until(self, marker):
        data = b""
        while marker not in data:
            chunk = self.client.recv(4096)
            self.assertTrue(chunk)
            data += chunk
        return data

    def test_handshake_lenient_and_one_send(self):
        key = ap.random_key()
        first = ap.encode_frame(b'{"command": "connection", "id": 17}', mask=MASK)
        # Lower-case header name, no Host, a frame right behind the request.
        self.client.sendall(b"GET / HTTP/1.1\r\nsec-websocket-key: " + key.encode() +
                            b"\r\n\r\n" + first)
        self.assertEqual(self.server.handshake(), key)
        answer = self.recv_until(b"\r\n\r\n")
        self.assertEqual(answer, ap.handshake_response(key))
        self.assertIn(b"Sec-WebSocket-Accept: " + ap.accept_value(key).encode(), answer)
        self.assertEqual(self.server.read_json(), {"command": "connection", "id": 17})

    def test_split_handshake_arrives_in_two_reads(self):
        self.client.sendall(b"GET / HTTP/1.1\r\nSec-WebSocket-Key: abc\r\n\r\n")
        key = self.server.read_handshake()
        thread = threading.Thread(target=self.server.send_handshake,
                                  kwargs={"key": key, "split_at": 10, "pause": 0.3})
        thread.start()
        self.assertEqual(len(self.client.recv(4096)), 10)
        thread.join()

    def test_reassembly_with_interleaved_ping(self):
        frames = ap.encode_message('{"a": 1}', pieces=3, mask=MASK)
        ping = ap.encode_frame(b"p", ap.OP_PING, mask=MASK)
        self.client.sendall(frames[0] + ping + frames[1] + frames[2])
        self.assertEqual(self.server.read_json(), {"a": 1})
        pong, _ = ap.decode_frame(self.client.recv(4096))
        self.assertEqual((pong.opcode, pong.payload, pong.masked), (ap.OP_PONG, b"p", False))

    def test_protocol_errors(self):
        bad = {
            "orphan continuation": ap.encode_frame(b"x", ap.OP_CONTINUATION, mask=MASK),
            "data inside fragments": ap.encode_frame(b"x", fin=False, mask=MASK) +
            ap.encode_frame(b"y", mask=MASK),
        }
        for name, wire in bad.items():
            with self.subTest(name):
                self.client.sendall(wire)
                with self.assertRaises(ap.ProtocolError):
                    self.server.read_message()
                self.server._fragments = None
                self.server.buffer.clear()


if __name__ == "__main__":
    unittest.main()
