"""The endpoint requests, sent byte for byte to a standard HTTP server on
loopback, are read as exactly one request each: same method and path, the
declared Content-Length, the same body, and nothing left over."""

import base64
import http.server
import json
import os
import socket
import subprocess
import tempfile
import threading
import unittest

BINARY_DIR = os.environ.get("QEL_BINARY_DIR", "")
DUMP = os.path.join(BINARY_DIR, "tests", "qel_http_dump")
FILE_SERVER = ("127.0.0.2", "8080")   # only named in Host lines, never contacted


class Recorder(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"   # keep the connection open, as the agent's server does

    def record(self):
        length = int(self.headers.get("Content-Length", "0"))
        self.server.seen.append({
            "method": self.command, "path": self.path, "headers": self.headers,
            "length": length, "body": self.rfile.read(length)})
        self.send_response(200)
        self.send_header("SessionId", self.headers.get("SessionId", ""))
        self.send_header("Content-Length", "0")
        self.end_headers()

    do_GET = do_POST = record

    def send_error(self, code, message=None, explain=None):
        self.server.errors.append((code, message))
        super().send_error(code, message, explain)

    def log_message(self, *args):
        pass


class HttpWireTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = http.server.HTTPServer(("127.0.0.1", 0), Recorder)
        cls.port = cls.server.server_address[1]
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        with tempfile.TemporaryDirectory() as tmp:
            out = subprocess.run(
                [DUMP, os.path.join(tmp, "sysconf.db"), "AOI-7", "127.0.0.1", str(cls.port), *FILE_SERVER],
                check=True, stdout=subprocess.PIPE, timeout=60).stdout
        cls.requests = [json.loads(line) for line in out.decode().splitlines() if line.startswith("{")]

    @classmethod
    def tearDownClass(cls):
        cls.server.shutdown()
        cls.server.server_close()

    def exchange(self, data):
        """Sends one request, reads the reply, then closes our side and waits
        for the server to finish the connection."""
        self.server.seen, self.server.errors = [], []
        with socket.create_connection(("127.0.0.1", self.port), timeout=10) as sock:
            sock.sendall(data)
            reply = b""
            while b"\r\n\r\n" not in reply:
                chunk = sock.recv(4096)
                self.assertTrue(chunk, "connection closed before the reply")
                reply += chunk
            sock.shutdown(socket.SHUT_WR)
            while sock.recv(4096):
                pass
        return reply

    def test_builders_cover_every_endpoint(self):
        self.assertEqual(sorted(r["session"] for r in self.requests),
                         [1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20])

    def test_each_request_is_read_whole_and_alone(self):
        hosts = {"127.0.0.1:%d" % self.port, "%s:%s" % FILE_SERVER}
        for r in self.requests:
            with self.subTest(r["name"]):
                data, body = base64.b64decode(r["request"]), base64.b64decode(r["body"])
                method, path, _ = data.split(b"\r\n", 1)[0].decode().split(" ")
                reply = self.exchange(data)
                self.assertTrue(reply.startswith(b"HTTP/1.1 200"), reply)
                self.assertEqual(self.server.errors, [])
                self.assertEqual(len(self.server.seen), 1)
                seen = self.server.seen[0]
                self.assertEqual((seen["method"], seen["path"]), (method, path))
                self.assertEqual(seen["length"], len(body))
                self.assertEqual(seen["body"], body)
                self.assertEqual(seen["headers"]["SessionId"], str(r["session"]))
                self.assertIn(seen["headers"]["Host"], hosts)
                self.assertIn(b"\r\nSessionId: %d\r\n" % r["session"], reply)


if __name__ == "__main__":
    unittest.main()
