"""Self-check of the two simulators against plain Python clients and a tiny
relay that plays the agent's part. No agent binary is involved."""

import json
import os
import re
import socket
import subprocess
import sys
import time
import unittest

import qeltest
from qel_server_sim import DEFAULT_REPLIES

TOOLS = os.path.join(qeltest.SRC, "tools")

BACK = (b"POST /back/ HTTP/1.1\r\nContent-type: application/json\r\nConnection: keep-alive\r\n"
        b"SessionId: 0\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n")
HEART = (b"POST /heart/ HTTP/1.1\r\nContent-type: application/json\\r\nConnection: keep-alive\r\n"
         b"SessionId: 4\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n")
RELINE = HEART.replace(b"/heart/", b"/reline/")


def request(path, session, body="", method="POST"):
    data = body.encode("utf-8")
    return ("%s %s HTTP/1.1\r\nContent-type: application/json\r\nConnection: keep-alive\r\n"
            "SessionId: %s\r\nUser-Agent: INFO\r\nContent-Length: %d\r\nHost: 127.0.0.1:1\r\n\r\n"
            % (method, path, session, len(data))).encode("utf-8") + data


def read_reply(sock, timeout=2.0):
    """One recv, as the agent does; returns (status line, headers, body, raw)."""
    sock.settimeout(timeout)
    raw = sock.recv(65536)
    head, _, body = raw.partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    headers = dict(line.split(": ", 1) for line in lines[1:])
    return lines[0], headers, body, raw


def connect(port, timeout=2.0):
    return socket.create_connection(("127.0.0.1", port), timeout=timeout)


def read_all(sock, timeout=2.0):
    sock.settimeout(timeout)
    out = b""
    while True:
        data = sock.recv(65536)
        if not data:
            return out
        out += data


class ServerSimTest(qeltest.AgentTestCase):

    def test_scripted_replies_on_one_connection(self):
        srv = self.server_sim()
        cases = [
            # path, session, method, expected body
            ("/vmu/device/login", 3, "POST", {"code": 0}),
            ("/vmu/device/heartbeat?device_id=h", 4, "GET", {"msg": "OK"}),
            ("/vmu/device/initial?device_id=h", 14, "GET", None),
            ("/vmu/device/reminder?device_id=h", 17, "GET", None),
            ("/vmu/device/runstate", 19, "POST", {"code": 0}),
        ]
        with connect(srv.info_port) as c:
            for path, session, method, want in cases:
                with self.subTest(path):
                    c.sendall(request(path, session, '{"k":"值"}', method))
                    status, headers, body, _ = read_reply(c)
                    self.assertEqual(status, "HTTP/1.1 200 OK")
                    self.assertEqual(headers["SessionId"], str(session))
                    self.assertEqual(headers["Content-Type"], "application/json")
                    self.assertEqual(int(headers["Content-Length"]), len(body))
                    self.assertNotIn(b"\r\n", body)
                    obj = json.loads(body)
                    if want is None:
                        self.assertEqual(obj["code"], 0)
                        self.assertIsInstance(obj["data"], dict)
                    else:
                        self.assertEqual(obj, want)
        reqs = srv.requests()
        self.assertEqual([r["session"] for r in reqs], [c[1] for c in cases])
        self.assertEqual(len({r["conn"] for r in reqs}), 1)
        self.assertEqual(reqs[0]["body"], '{"k":"值"}')
        self.assertEqual(srv.requests(path="/vmu/device/heartbeat")[0]["method"], "GET")
        with open(self.path("server-requests-1.jsonl"), encoding="utf-8") as f:
            lines = [json.loads(line) for line in f]
        self.assertEqual([r["path"] for r in lines if r["event"] == "request"],
                         [c[0] for c in cases])

    def test_request_in_pieces_and_back_to_back(self):
        srv = self.server_sim()
        one = request("/vmu/device/login", 3, "device_id=h")
        two = request("/vmu/device/runstate", 19, '{"a":1}')
        with connect(srv.info_port) as c:
            for i in range(0, len(one), 5):
                c.sendall(one[i:i + 5])
                time.sleep(0.002)
            self.assertEqual(read_reply(c)[1]["SessionId"], "3")
            c.sendall(two + two)
            srv.wait_request(path="/vmu/device/runstate", count=2)
        self.assertEqual([r["body"] for r in srv.requests()], ["device_id=h", '{"a":1}', '{"a":1}'])
        self.assertEqual(srv.requests()[0]["head"], one[:-len("device_id=h")].decode())

    def test_reply_overrides(self):
        srv = self.server_sim(heartbeat_msg="ok")
        srv.set_reply({"code": 1}, path="/vmu/device/login", times=1)
        srv.set_reply('{"code":"0"}', session=19)
        srv.set_reply({"code": 0}, path="/vmu/device/initial", reply_session=17)
        srv.set_reply(lambda req: None if "skip" in req["body"] else {"code": 5}, path="/x")
        cases = [
            ("/vmu/device/heartbeat?device_id=h", 4, "", "4", {"msg": "ok"}),
            ("/vmu/device/login", 3, "", "3", {"code": 1}),
            ("/vmu/device/login", 3, "", "3", {"code": 0}),      # the rule was for once
            ("/vmu/device/runstate", 19, "", "19", {"code": "0"}),
            ("/vmu/device/initial", 14, "", "17", {"code": 0}),
            ("/x", 2, "", "2", {"code": 5}),
        ]
        with connect(srv.info_port) as c:
            for path, session, body, echoed, want in cases:
                with self.subTest(path):
                    c.sendall(request(path, session, body))
                    _, headers, got, _ = read_reply(c)
                    self.assertEqual(headers["SessionId"], echoed)
                    self.assertEqual(json.loads(got), want)
            c.sendall(request("/x", 2, "skip"))
            srv.wait_request(path="/x", count=2)
            c.settimeout(0.3)
            self.assertRaises(socket.timeout, c.recv, 100)

    def test_modes(self):
        srv = self.server_sim()
        login = request("/vmu/device/login", 3)

        def answer(c):
            c.sendall(login)
            return read_reply(c, 1.0)

        def check_silent(c):
            c.sendall(login)
            c.settimeout(0.4)
            self.assertRaises(socket.timeout, c.recv, 100)

        def check_slow(c):
            started = time.monotonic()
            self.assertEqual(answer(c)[0], "HTTP/1.1 200 OK")
            self.assertGreaterEqual(time.monotonic() - started, 0.25)

        def check_closing(c):
            c.sendall(login)
            raw = read_all(c)
            self.assertTrue(raw.startswith(b"HTTP/1.1 200 OK"))

        def check_garbage(c):
            c.sendall(login)
            c.settimeout(1.0)
            raw = c.recv(65536)
            self.assertTrue(raw)
            self.assertNotIn(b"HTTP", raw.split(b"\r\n")[0])

        def check_oversize(c):
            c.sendall(login)
            c.settimeout(1.0)
            raw = c.recv(65536)
            while b"\r\n\r\n" not in raw or len(raw) < raw.index(b"\r\n\r\n") + 4 + 4097:
                raw += c.recv(65536)
            head, _, body = raw.partition(b"\r\n\r\n")
            self.assertGreater(len(body), 4096)
            self.assertIn(b"\r\nContent-Length: %d" % len(body), head)
            self.assertNotIn(b"\r\n", body)
            self.assertEqual(json.loads(body)["code"], 0)

        def check_code(c):
            self.assertEqual(json.loads(answer(c)[2]), {"code": 7})

        cases = [
            ("silent", None, check_silent),
            ("slow", 300, check_slow),
            ("closing", None, check_closing),
            ("garbage", None, check_garbage),
            ("oversize", None, check_oversize),
            ("code", 7, check_code),
        ]
        for mode, arg, check in cases:
            with self.subTest(mode):
                srv.set_mode(mode, arg)
                with connect(srv.info_port) as c:
                    check(c)
        srv.normal()
        with connect(srv.info_port) as c:
            self.assertEqual(answer(c)[1]["SessionId"], "3")

    def test_down_refusing_blackhole_and_up(self):
        srv = self.server_sim()
        port = srv.info_port
        held = connect(port)
        srv.wait_connection(port="info")
        srv.down()
        self.assertEqual(read_all(held), b"")             # open connections are closed
        held.close()
        self.assertRaises(ConnectionRefusedError, connect, port)
        srv.up()
        self.assertEqual(srv.info_port, port)
        with connect(port) as c:
            c.sendall(request("/vmu/device/login", 3))
            self.assertEqual(read_reply(c)[1]["SessionId"], "3")
        srv.refusing()
        with connect(port) as c:
            self.assertEqual(read_all(c), b"")
        srv.blackhole()
        started = time.monotonic()
        self.assertRaises(socket.timeout, connect, port, 0.5)
        self.assertGreaterEqual(time.monotonic() - started, 0.45)
        srv.up()
        with connect(port) as c:
            c.sendall(request("/vmu/device/login", 3))
            self.assertEqual(read_reply(c)[1]["SessionId"], "3")

    def test_one_port_only(self):
        srv = self.server_sim()
        srv.down(port="file")
        self.assertRaises(ConnectionRefusedError, connect, srv.file_port)
        with connect(srv.info_port) as c:
            c.sendall(request("/vmu/device/login", 3))
            self.assertEqual(read_reply(c)[1]["SessionId"], "3")
        self.assertIn("file:%d normal" % srv.file_port, srv.command("file up"))
        connect(srv.file_port).close()

    def test_cli_and_control_port(self):
        record = self.path("cli.jsonl")
        proc = subprocess.Popen([sys.executable, os.path.join(TOOLS, "qel_server_sim.py"),
                                 "--info-port", "0", "--file-port", "0", "--control-port", "0",
                                 "--record", record, "--heartbeat-msg", "Ok"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.track(_Proc(proc))
        first = proc.stdout.readline()
        m = re.search(r"info 127\.0\.0\.1:(\d+) file 127\.0\.0\.1:(\d+) control 127\.0\.0\.1:(\d+)", first)
        self.assertTrue(m, first)
        info, _, control = map(int, m.groups())
        with connect(info) as c:
            c.sendall(request("/vmu/device/heartbeat?device_id=h", 4, "device_id=h", "GET"))
            self.assertEqual(json.loads(read_reply(c)[2]), {"msg": "Ok"})
        line = ""
        while " GET " not in line:
            line = proc.stdout.readline()
        self.assertIn("GET /vmu/device/heartbeat?device_id=h SessionId=4", line)
        ctl = subprocess.run([sys.executable, os.path.join(TOOLS, "qel_server_sim.py"),
                              "--ctl", str(control), "info", "code", "9"],
                             stdout=subprocess.PIPE, text=True, timeout=10)
        self.assertEqual(ctl.returncode, 0)
        self.assertIn("info:%d code 9" % info, ctl.stdout)
        with connect(info) as c:
            c.sendall(request("/vmu/device/login", 3))
            self.assertEqual(json.loads(read_reply(c)[2]), {"code": 9})
        with connect(control) as c:
            c.sendall(b"bogus\n")
            self.assertTrue(c.makefile().readline().startswith("error"))
        proc.terminate()
        self.assertEqual(proc.wait(10), 0)
        with open(record, encoding="utf-8") as f:
            events = [json.loads(line)["event"] for line in f]
        self.assertEqual(events.count("request"), 2)

    def test_cli_binds_loopback_only(self):
        r = subprocess.run([sys.executable, os.path.join(TOOLS, "qel_server_sim.py"),
                            "--bind", "0.0.0.0", "--duration", "0"],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=10)
        self.assertEqual(r.returncode, 2)
        self.assertIn("127.0.0.1 only", r.stderr)


class AppSimTest(qeltest.AgentTestCase):

    def test_sends_one_message_per_write(self):
        app = self.app_sim(gap_ms=150)
        sends = [
            (lambda: app.send(7, '{"total":3}'), b'7:x:..!{"total":3}'),
            (lambda: app.send(3, "", field="abc"), b"3:abc:..!"),
            (lambda: app.send_raw(b"21:a:..!x"), b"21:a:..!x"),
        ]
        with connect(app.port) as agent:
            app.wait_connected(2)
            agent.settimeout(2)
            for send, want in sends:
                send()
                self.assertEqual(agent.recv(65536), want)
        stamps = [t for t, _ in app.sent()]
        self.assertGreaterEqual(stamps[1] - stamps[0], 0.14)
        self.assertGreaterEqual(stamps[2] - stamps[1], 0.14)

    def test_notice_stream(self):
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
                self.assertEqual(app.raw_bytes(), stream)
                app.stop()

    def test_new_connection_replaces_old(self):
        app = self.app_sim()
        first = connect(app.port)
        app.wait_connected(2, count=1)
        second = connect(app.port)
        app.wait_connected(2, count=2)
        self.assertEqual(read_all(first), b"")
        first.close()
        app.send(4, "x")
        second.settimeout(2)
        self.assertEqual(second.recv(100), b"4:x:..!x")
        second.close()
        self.wait_until(lambda: not app.connected(), 2, "connection gone")
        app.down()
        self.assertRaises(ConnectionRefusedError, connect, app.port)

    def test_cli_sends_and_prints(self):
        port = qeltest.free_port()
        script = self.path("script.txt")
        with open(script, "w", encoding="utf-8") as f:
            f.write("# comment\n14 \nwait back 5\nraw 9:a:..!\\x00x\n5:y:..!raw text\n")
        proc = subprocess.Popen([sys.executable, os.path.join(TOOLS, "qel_app_sim.py"), "--port",
                                 str(port), "--gap-ms", "50", "--script", script, "--duration", "10",
                                 '7:{"a":1}'],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.track(_Proc(proc))
        self.assertIn("listening on 127.0.0.1:%d" % port, proc.stdout.readline())
        with connect(port) as agent:
            agent.settimeout(5)
            self.assertEqual(agent.recv(100), b'7:x:..!{"a":1}')
            self.assertEqual(agent.recv(100), b"14:x:..!")
            agent.sendall(BACK)
            self.assertEqual(agent.recv(100), b"9:a:..!\x00x")
            self.assertEqual(agent.recv(100), b"5:y:..!raw text")
            out = ""
            while "back POST SessionId=0" not in out:
                out += proc.stdout.readline()
        proc.terminate()
        self.assertEqual(proc.wait(10), 0)


class RelayTest(qeltest.AgentTestCase):
    """Both simulators around a minimal stand-in for the agent."""

    def test_query_round_trip(self):
        srv = self.server_sim()
        app = self.app_sim()
        with connect(app.port) as link, connect(srv.info_port) as info:
            app.wait_connected(2)
            app.send(14, "")
            link.settimeout(2)
            msg = link.recv(65536).decode()
            link.sendall(BACK)
            msg_type = int(msg.split(":..!")[0].split(":")[0])
            info.sendall(request("/vmu/device/initial?device_id=qel-test-host", msg_type, "", "GET"))
            _, headers, reply, _ = read_reply(info)
            self.assertEqual(headers["SessionId"], "14")
            link.sendall(b"GET /vmu/device/initial HTTP/1.1\r\nSessionId: 14\r\nContent-Length: %d\r\n\r\n"
                         % len(reply) + reply)
            got = app.wait_notice("/vmu/device/initial", timeout=5)
        self.assertEqual(app.notices()[0]["kind"], "back")
        self.assertEqual(json.loads(got[0]["body"]), DEFAULT_REPLIES["/vmu/device/initial"])
        self.assertEqual(srv.requests()[0]["path"], "/vmu/device/initial?device_id=qel-test-host")


class _Proc:
    def __init__(self, proc):
        self.proc = proc

    def stop(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.wait()
        for f in (self.proc.stdout, self.proc.stderr):
            if f:
                f.close()


if __name__ == "__main__":
    unittest.main()
