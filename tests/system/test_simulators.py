"""Self-check of the two simulators against plain Python clients; no agent binary."""

import json
import os
import socket
import subprocess
import sys
import time
import unittest

import qeltest

BACK = (b"POST /back/ HTTP/1.1\r\nContent-type: application/json\r\nConnection: keep-alive\r\n"
        b"SessionId: 0\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n")
# The agent's heart and reline notices carry a literal backslash-r in the content-type line.
HEART = (b"POST /heart/ HTTP/1.1\r\nContent-type: application/json\\r\nConnection: keep-alive\r\n"
         b"SessionId: 4\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n")
RELINE = HEART.replace(b"/heart/", b"/reline/")


def request(path, session, body="", method="POST"):
    data = body.encode("utf-8")
    return ("%s %s HTTP/1.1\r\nContent-type: application/json\r\nSessionId: %s\r\nContent-Length: %d\r\n\r\n"
            % (method, path, session, len(data))).encode("utf-8") + data


def read_reply(sock):
    """One recv, as the agent does; returns (status line, headers, body)."""
    head, _, body = sock.recv(65536).partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    return lines[0], dict(line.split(": ", 1) for line in lines[1:]), body


def connect(port, timeout=2.0):
    return socket.create_connection(("127.0.0.1", port), timeout=timeout)


class ServerSimTest(qeltest.AgentTestCase):

    def test_scripted_replies_echo_session(self):
        """Each reply is one write that echoes the request's SessionId."""
        srv = self.server_sim()
        cases = [("/vmu/device/login", 3, "POST", {"code": 0}),
                 ("/vmu/device/heartbeat?device_id=h", 4, "GET", {"msg": "OK"}),
                 ("/vmu/device/initial?device_id=h", 14, "GET", None),
                 ("/vmu/device/runstate", 19, "POST", {"code": 0})]
        with connect(srv.info_port) as c:
            for path, session, method, want in cases:
                with self.subTest(path):
                    c.sendall(request(path, session, '{"k":"值"}', method))
                    status, headers, body = read_reply(c)
                    self.assertEqual((status, headers["SessionId"]), ("HTTP/1.1 200 OK", str(session)))
                    self.assertEqual(int(headers["Content-Length"]), len(body))
                    obj = json.loads(body)
                    self.assertEqual(obj if want else obj["code"], want or 0)   # None: any reply with code 0
            one, two = request("/vmu/device/login", 5), request("/vmu/device/runstate", 6)
            c.sendall(one + two)   # back to back: one reply each
            srv.wait_request(session=6)
            replies = c.recv(65536)
            if replies.count(b"HTTP/1.1 200 OK") < 2:   # the two writes may arrive in two reads
                replies += c.recv(65536)
            self.assertEqual(replies.count(b"HTTP/1.1 200 OK"), 2)
        self.assertEqual([r["session"] for r in srv.requests()], [3, 4, 14, 19, 5, 6])
        self.assertEqual(srv.requests()[0]["body"], '{"k":"值"}')

    def test_down_blackhole_and_up_on_the_same_port(self):
        srv = self.server_sim()
        port = srv.info_port
        held = connect(port)
        srv.wait_connection(port="info")
        srv.down()
        self.assertEqual(held.recv(100), b"")             # open connections are closed
        held.close()
        self.assertRaises(ConnectionRefusedError, connect, port)
        srv.blackhole()
        started = time.monotonic()
        self.assertRaises(socket.timeout, connect, port, 0.5)
        self.assertGreaterEqual(time.monotonic() - started, 0.45)
        srv.up()
        self.assertEqual(srv.info_port, port)
        with connect(port) as c:
            c.sendall(request("/vmu/device/login", 3))
            self.assertEqual(read_reply(c)[1]["SessionId"], "3")

    def test_cli_binds_loopback_only(self):
        r = subprocess.run([sys.executable, os.path.join(qeltest.SRC, "tools", "qel_server_sim.py"),
                            "--bind", "0.0.0.0", "--duration", "0"],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=10)
        self.assertEqual(r.returncode, 2)
        self.assertIn("127.0.0.1 only", r.stderr)


class AppSimTest(qeltest.AgentTestCase):

    def test_sends_one_message_per_write(self):
        app = self.app_sim(gap_ms=150)
        with connect(app.port) as agent:
            app.wait_connected(2)
            app.send(7, '{"total":3}')
            self.assertEqual(agent.recv(65536), b'7:x:..!{"total":3}')
            app.send(3, "", field="abc")
            self.assertEqual(agent.recv(65536), b"3:abc:..!")
        stamps = [t for t, _ in app.sent()]
        self.assertGreaterEqual(stamps[1] - stamps[0], 0.14)

    def test_notice_stream(self):
        """Notices are parsed whether coalesced into one read or split anywhere."""
        body = '{"code":0,"data":{"remark":"模拟"}}'.encode("utf-8")
        forwarded = (b"GET /vmu/device/initial?device_id=h HTTP/1.1\r\nContent-type: multipart/form-data\r\n"
                     b"SessionId: 14\r\nContent-Length: %d\r\n\r\n" % len(body)) + body
        stream = BACK + HEART + forwarded + RELINE + b"/tmp/x/Tar_1.tar.gz" + BACK
        want = [("back", 0, ""), ("heart", 4, ""), ("/vmu/device/initial", 14, body.decode()),
                ("reline", 4, ""), ("raw", None, "/tmp/x/Tar_1.tar.gz"), ("back", 0, "")]
        for chunk in (len(stream), 1, 17):
            with self.subTest(chunk=chunk):
                app = self.app_sim()
                with connect(app.port) as agent:
                    for i in range(0, len(stream), chunk):
                        agent.sendall(stream[i:i + chunk])
                    got = app.wait_notice(count=len(want), timeout=5)
                self.assertEqual([(n["kind"], n["session"], n["body"]) for n in got], want)
                self.assertEqual(got[1]["raw_bytes"], HEART)
                app.stop()


if __name__ == "__main__":
    unittest.main()
