"""A WebSocket client that may send whatever it likes."""

import base64
import json
import os
import socket
import struct
import time

TEXT, BINARY, CLOSE = 1, 2, 8


class WebSocket:
    """Connects to kvoxweb at a port; `headers` replace the usual ones."""

    def __init__(self, port, token=None, **headers):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=20)
        self.buffer = b""
        lines = {
            "Host": f"127.0.0.1:{port}",
            "Origin": f"http://127.0.0.1:{port}",
            "Upgrade": "websocket",
            "Connection": "Upgrade",
            "Sec-WebSocket-Key": base64.b64encode(os.urandom(16)).decode(),
            "Sec-WebSocket-Version": "13",
            "Sec-WebSocket-Protocol": "kvox.1",
            **headers,
        }
        text = "".join(f"{name}: {value}\r\n" for name, value in lines.items() if value)
        self.socket.sendall(f"GET /api HTTP/1.1\r\n{text}\r\n".encode())
        self.status = self._head()
        if token is not None:
            self.send({"token": token})

    def _head(self):
        while b"\r\n\r\n" not in self.buffer:
            part = self.socket.recv(4096)
            if not part:
                return 0
            self.buffer += part
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        return int(head.split()[1])

    def send(self, message):
        """As JSON."""
        self.frame(TEXT, json.dumps(message).encode())

    def frame(self, kind, data, final=True, length=None):
        length = len(data) if length is None else length
        head = struct.pack("!BB", kind | (0x80 if final else 0), 0x80 | min(length, 126))
        if length > 65535:
            head = head[:1] + struct.pack("!BQ", 0x80 | 127, length)
        elif length > 125:
            head += struct.pack("!H", length)
        self.socket.sendall(head + b"\0\0\0\0" + data)

    def _take(self, size):
        while len(self.buffer) < size:
            part = self.socket.recv(65536)
            if not part:
                raise ConnectionError
            self.buffer += part
        taken, self.buffer = self.buffer[:size], self.buffer[size:]
        return taken

    def receive(self):
        """The next frame, as (kind, data). Raises OSError when the connection has ended."""
        first, length = self._take(2)
        if length == 126:
            (length,) = struct.unpack("!H", self._take(2))
        elif length == 127:
            (length,) = struct.unpack("!Q", self._take(8))
        return first & 15, self._take(length)

    def message(self, wanted):
        """The next JSON message that has the key; others are skipped."""
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            kind, data = self.receive()
            if kind == CLOSE:
                raise ConnectionError(data[2:].decode())
            if kind == TEXT and wanted in (message := json.loads(data)):
                return message
        raise TimeoutError(f"no message with {wanted}")

    def run(self, *words, id=1):
        self.send({"id": id, "run": list(words)})
        return self.message("id")

    def ends(self):
        """Whether the other side closes the connection within the timeout."""
        deadline = time.monotonic() + 15
        try:
            while self.receive()[0] != CLOSE:
                if time.monotonic() > deadline:
                    return False
        except TimeoutError:
            return False
        except OSError:
            pass
        return True

    def close(self):
        self.socket.close()
