"""Server end of the channel that sylvane-service speaks on 127.0.0.1:11038.

The tool opens one TCP connection, upgrades it to a WebSocket and exchanges
JSON objects in text frames. This module holds what a test double or the
simulator needs to play the Transfer Agent's part:

* the opening handshake, read leniently and answered in one send (or split on
  request, to exercise a client that needs the whole answer in one read);
* frame encoding and decoding (masked or not, 7/16/64-bit lengths, optional
  forced long length forms, fragmentation, continuation reassembly);
* helpers for the three kinds of JSON message: responses, "tenants_event"
  events and the "please_disconnect" eviction.

Standard library only, so any python3 can run it.
"""

import base64
import hashlib
import json
import os
import socket
import struct
import time

GUID = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"

OP_CONTINUATION = 0x0
OP_TEXT = 0x1
OP_BINARY = 0x2
OP_CLOSE = 0x8
OP_PING = 0x9
OP_PONG = 0xA

DEFAULT_HOST = "127.0.0.1"
DEFAULT_PORT = 11038
TENANTS_EVENT = "tenants_event"
EVICTION = "please_disconnect"

_MAX_HANDSHAKE = 16384


class ConnectionClosed(Exception):
    """The peer closed the TCP connection."""


class ProtocolError(Exception):
    """The peer sent something this end cannot make sense of."""


def accept_value(key):
    """Sec-WebSocket-Accept answer for a Sec-WebSocket-Key value."""
    digest = hashlib.sha1((key + GUID).encode("ascii")).digest()
    return base64.b64encode(digest).decode("ascii")


def handshake_response(key, accept=None):
    """The whole 101 answer as bytes; `accept` overrides the computed value."""
    value = accept_value(key) if accept is None else accept
    return ("HTTP/1.1 101 Switching Protocols\r\n"
            "Upgrade: websocket\r\n"
            "Connection: Upgrade\r\n"
            "Sec-WebSocket-Accept: " + value + "\r\n\r\n").encode("ascii")


def parse_handshake_key(request):
    """Sec-WebSocket-Key of an HTTP request head (bytes); header names are
    matched case-insensitively and nothing else is checked."""
    text = request.decode("latin-1")
    for line in text.split("\r\n")[1:]:
        name, sep, value = line.partition(":")
        if sep and name.strip().lower() == "sec-websocket-key":
            return value.strip()
    raise ProtocolError("handshake request has no Sec-WebSocket-Key")


def apply_mask(data, key):
    """XOR `data` with the 4-byte `key`, byte i with key[i % 4]."""
    if not key:
        return bytes(data)
    n = len(data)
    # Whole-buffer XOR through big integers: far faster than a byte loop.
    repeated = (key * (n // 4 + 1))[:n]
    return (int.from_bytes(data, "big") ^ int.from_bytes(repeated, "big")).to_bytes(n, "big")


def encode_frame(payload, opcode=OP_TEXT, fin=True, mask=None, length_bits=None):
    """One frame as bytes.

    mask: None for an unmasked frame (the server's way), or 4 key bytes.
    length_bits: None for the shortest length form, or 7, 16, 64 to force one
    (a forced form that cannot hold the length raises ValueError)."""
    if isinstance(payload, str):
        payload = payload.encode("utf-8")
    n = len(payload)
    if length_bits is None:
        length_bits = 7 if n < 126 else 16 if n < 65536 else 64
    limits = {7: 125, 16: 65535, 64: 2**63 - 1}
    if length_bits not in limits or n > limits[length_bits]:
        raise ValueError("length form %r cannot hold %d bytes" % (length_bits, n))
    head = bytearray([(0x80 if fin else 0) | (opcode & 0x0F)])
    mask_bit = 0x80 if mask is not None else 0
    if length_bits == 7:
        head.append(mask_bit | n)
    elif length_bits == 16:
        head.append(mask_bit | 126)
        head += struct.pack("!H", n)
    else:
        head.append(mask_bit | 127)
        head += struct.pack("!Q", n)
    if mask is not None:
        if len(mask) != 4:
            raise ValueError("a masking key has 4 bytes")
        head += mask
        payload = apply_mask(payload, mask)
    return bytes(head) + bytes(payload)


def encode_message(payload, opcode=OP_TEXT, pieces=1, mask=None, length_bits=None):
    """A message as a list of frames: split into `pieces` fragments (the
    first carries the opcode, the others continuation, FIN on the last)."""
    if isinstance(payload, str):
        payload = payload.encode("utf-8")
    pieces = max(1, min(pieces, max(1, len(payload))))
    size, extra = divmod(len(payload), pieces)
    frames, start = [], 0
    for i in range(pieces):
        end = start + size + (1 if i < extra else 0)
        frames.append(encode_frame(payload[start:end], opcode if i == 0 else OP_CONTINUATION,
                                   fin=(i == pieces - 1), mask=mask, length_bits=length_bits))
        start = end
    return frames


class Frame:
    """One decoded frame. `raw` holds the exact bytes it was read from."""

    def __init__(self, fin, opcode, mask, payload, raw):
        self.fin = fin
        self.opcode = opcode
        self.mask = mask  # None when the frame was not masked
        self.payload = payload  # unmasked
        self.raw = raw

    @property
    def masked(self):
        return self.mask is not None

    def __repr__(self):
        return "Frame(fin=%s, opcode=%d, masked=%s, payload=%r)" % (
            self.fin, self.opcode, self.masked, self.payload[:40])


def decode_frame(buf):
    """(Frame, bytes used) for the first frame in `buf`, or (None, 0) when
    `buf` does not hold a whole frame yet."""
    if len(buf) < 2:
        return None, 0
    b0, b1 = buf[0], buf[1]
    code = b1 & 0x7F
    pos = 2
    if code == 126:
        if len(buf) < 4:
            return None, 0
        (n,) = struct.unpack("!H", bytes(buf[2:4]))
        pos = 4
    elif code == 127:
        if len(buf) < 10:
            return None, 0
        (n,) = struct.unpack("!Q", bytes(buf[2:10]))
        pos = 10
    else:
        n = code
    mask = None
    if b1 & 0x80:
        if len(buf) < pos + 4:
            return None, 0
        mask = bytes(buf[pos:pos + 4])
        pos += 4
    if len(buf) < pos + n:
        return None, 0
    payload = apply_mask(bytes(buf[pos:pos + n]), mask)
    return Frame(bool(b0 & 0x80), b0 & 0x0F, mask, payload, bytes(buf[:pos + n])), pos + n


class Connection:
    """One accepted client: handshake, then frames and JSON messages.

    Reads block up to `timeout` seconds (socket.timeout past that). Sends
    are whole-buffer sendall calls; callers sending from several threads
    hold their own lock."""

    def __init__(self, sock, timeout=5.0):
        self.sock = sock
        self.sock.settimeout(timeout)
        self.buffer = bytearray()
        self.request = b""  # the client's handshake request head
        self._fragments = None  # (opcode, bytearray) while reassembling

    # -- handshake ---------------------------------------------------------

    def read_handshake(self):
        """Reads the HTTP request up to its blank line; returns the key.
        Bytes that follow the blank line stay queued for the frame reader."""
        while b"\r\n\r\n" not in self.buffer:
            if len(self.buffer) > _MAX_HANDSHAKE:
                raise ProtocolError("handshake request too long")
            self._fill()
        end = self.buffer.index(b"\r\n\r\n") + 4
        self.request = bytes(self.buffer[:end])
        del self.buffer[:end]
        return parse_handshake_key(self.request)

    def send_handshake(self, key, split_at=None, pause=0.2, accept=None, trailing=b""):
        """Answers the handshake in one sendall. `split_at` sends the first
        split_at bytes, waits `pause` seconds, then the rest; `trailing` is
        appended to the answer in the same send."""
        answer = handshake_response(key, accept) + trailing
        if split_at is None:
            self.sock.sendall(answer)
        else:
            self.sock.sendall(answer[:split_at])
            time.sleep(pause)
            self.sock.sendall(answer[split_at:])

    def handshake(self, **options):
        """read_handshake then send_handshake(key, **options); returns key."""
        key = self.read_handshake()
        self.send_handshake(key, **options)
        return key

    # -- reading -----------------------------------------------------------

    def _fill(self):
        chunk = self.sock.recv(65536)
        if not chunk:
            raise ConnectionClosed("peer closed the connection")
        self.buffer += chunk

    def read_frame(self):
        """Next frame as sent, continuation or control frame included."""
        while True:
            frame, used = decode_frame(self.buffer)
            if frame is not None:
                del self.buffer[:used]
                return frame
            self._fill()

    def read_message(self):
        """(opcode, payload) of the next whole message. Fragments are joined;
        a control frame arriving between fragments is returned at once."""
        while True:
            frame = self.read_frame()
            if frame.opcode >= OP_CLOSE:
                self.last_control_masked = frame.masked
                return frame.opcode, frame.payload
            if frame.opcode == OP_CONTINUATION:
                if self._fragments is None:
                    raise ProtocolError("continuation frame without a message in progress")
                self._fragments[1].extend(frame.payload)
            else:
                if self._fragments is not None:
                    raise ProtocolError("new data frame inside a fragmented message")
                self._fragments = (frame.opcode, bytearray(frame.payload))
            if frame.fin:
                opcode, data = self._fragments
                self._fragments = None
                return opcode, bytes(data)

    def read_json(self):
        """Next text message parsed as JSON. Pings are answered with a pong
        carrying the same payload; a close frame raises ConnectionClosed."""
        while True:
            opcode, payload = self.read_message()
            if opcode == OP_TEXT:
                try:
                    return json.loads(payload.decode("utf-8"))
                except ValueError as err:
                    raise ProtocolError("bad JSON from client: %s" % err) from err
            if opcode == OP_CLOSE:
                raise ConnectionClosed("client sent a close frame")
            if opcode == OP_PING:
                self.send_frame(payload, OP_PONG)

    # -- writing -----------------------------------------------------------

    def send_frame(self, payload, opcode=OP_TEXT, fin=True, length_bits=None):
        self.sock.sendall(encode_frame(payload, opcode, fin, None, length_bits))

    def send_message(self, payload, opcode=OP_TEXT, pieces=1, length_bits=None, pause=0.0):
        """A message in `pieces` unmasked frames. With `pause` the frames go
        in separate sends that far apart, otherwise in one send."""
        frames = encode_message(payload, opcode, pieces, None, length_bits)
        if pause <= 0:
            self.sock.sendall(b"".join(frames))
            return
        for i, frame in enumerate(frames):
            if i:
                time.sleep(pause)
            self.sock.sendall(frame)

    def send_text(self, text, **options):
        self.send_message(text, OP_TEXT, **options)

    def send_binary(self, data, **options):
        self.send_message(data, OP_BINARY, **options)

    def send_ping(self, data=b""):
        self.send_frame(data, OP_PING)

    def send_pong(self, data=b""):
        self.send_frame(data, OP_PONG)

    def send_close(self, code=None, reason=""):
        payload = b"" if code is None else struct.pack("!H", code) + reason.encode("utf-8")
        self.send_frame(payload, OP_CLOSE)

    def send_json(self, obj, **options):
        self.send_text(json.dumps(obj), **options)

    def send_response(self, command, msg_id, data, **options):
        """Answer to a request: {"command", "id", "data"}."""
        self.send_json(response_message(command, msg_id, data), **options)

    def send_event(self, tenants, command=TENANTS_EVENT, **options):
        """A subscription event; each of `tenants` is a dict sent as a string
        holding its JSON text, which is how the client expects list items."""
        self.send_json(event_message(tenants, command), **options)

    def send_eviction(self, **options):
        """Tells the client that another one is being served."""
        self.send_json(eviction_message(), **options)

    def close(self):
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.sock.close()


def response_message(command, msg_id, data):
    return {"command": command, "id": msg_id, "data": data}


def event_message(tenants, command=TENANTS_EVENT):
    return {"command": command, "data": {"tenants": [json.dumps(t) for t in tenants]}}


def eviction_message():
    return {"command": EVICTION, "id": 0}


def listen(host=DEFAULT_HOST, port=DEFAULT_PORT, backlog=8):
    """A listening TCP socket; port 0 picks a free one (see getsockname)."""
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind((host, port))
        sock.listen(backlog)
    except OSError:
        sock.close()
        raise
    return sock


def accept(listener, timeout=5.0):
    """Waits for one client and returns its Connection (no handshake yet)."""
    sock, _ = listener.accept()
    return Connection(sock, timeout)


def random_key():
    """A fresh Sec-WebSocket-Key, for client-side test code."""
    return base64.b64encode(os.urandom(16)).decode("ascii")
