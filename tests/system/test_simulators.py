"""Self-check of the two simulators against plain Python clients; no agent binary."""

import gzip
import hashlib
import io
import json
import os
import socket
import tarfile
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


def reads(sock, quiet=0.4, limit=5.0):
    """[(seconds since the call, bytes)] for each recv until `quiet` seconds
    pass without data; on loopback, writes this far apart arrive as reads of their own."""
    start = time.monotonic()
    out = []
    sock.settimeout(quiet)
    while time.monotonic() - start < limit:
        try:
            data = sock.recv(65536)
        except socket.timeout:
            break
        if not data:
            break
        out.append((time.monotonic() - start, data))
    return out


def sessions(data):
    """SessionId of each reply in `data`, in order."""
    return [int(line.split(b":")[1]) for line in data.split(b"\r\n") if line.startswith(b"SessionId:")]


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

class ServerSimAnswerShapesTest(qeltest.AgentTestCase):
    """Answers that come twice, late, held back and released together, or cut in two."""

    def test_duplicate_answer_comes_again_in_a_write_of_its_own(self):
        srv = self.server_sim()
        srv.duplicate(300, port="info")
        with connect(srv.info_port) as c:
            c.sendall(request("/vmu/device/runstate", 19))
            got = reads(c)
        self.assertEqual(len(got), 2, got)
        self.assertEqual(got[0][1], got[1][1])
        self.assertEqual(sessions(got[0][1]), [19])
        self.assertGreaterEqual(got[1][0] - got[0][0], 0.25)
        self.assertEqual(len(srv.requests()), 1)

    def test_delayed_answer_leaves_later_requests_answered_at_once(self):
        srv = self.server_sim()
        srv.set_reply({"code": 5}, path="/vmu/reminder/add", delay_ms=800, times=1)
        with connect(srv.info_port) as c:
            c.sendall(request("/vmu/reminder/add", 12) + request("/vmu/device/runstate", 19))
            got = reads(c, quiet=1.2)
            # the rule was used up: the next request to the path is answered at once
            c.sendall(request("/vmu/reminder/add", 12))
            again = reads(c)
        self.assertEqual([sessions(d) for _, d in got], [[19], [12]])
        self.assertLess(got[0][0], 0.3)
        self.assertGreaterEqual(got[1][0], 0.75)
        self.assertIn(b'{"code":5}', got[1][1])
        self.assertEqual([sessions(d) for _, d in again], [[12]])
        self.assertLess(again[0][0], 0.3)
        self.assertEqual(srv.requests(session=12)[0]["delay_ms"], 800)

    def test_hold_and_flush_send_each_connections_answers_in_one_write(self):
        srv = self.server_sim()
        srv.hold(port="info")
        one, two = connect(srv.info_port), connect(srv.info_port)
        with one, two:
            one.sendall(request("/vmu/device/login", 3))
            srv.wait_request(session=3)
            one.sendall(request("/vmu/device/heartbeat", 4, method="GET"))
            two.sendall(request("/vmu/device/runstate", 19))
            srv.wait_request(count=3)
            self.assertEqual((reads(one, 0.3), reads(two, 0.1)), ([], []))
            self.assertEqual(srv.held(), 3)
            self.assertIn("held=3", srv.status())
            self.assertEqual(srv.flush(), 3)
            first, second = reads(one), reads(two)
            self.assertEqual([sessions(d) for _, d in first], [[3, 4]])    # one read holds both
            self.assertEqual([sessions(d) for _, d in second], [[19]])
            self.assertEqual(srv.mode("info"), ("hold", None))            # still holding
            # leaving "hold" sends what is held; for "silent" it is dropped
            for leave, want in (("normal", [[7]]), ("silent", [])):
                with self.subTest(leave):
                    srv.hold(port="info")
                    one.sendall(request("/vmu/device/monitor/statistics/upload", 7))
                    self.wait_until(lambda: srv.held() == 1, 2, "answer held")
                    srv.set_mode(leave, port="info")
                    self.assertEqual([sessions(d) for _, d in reads(one)], want)
                    self.assertEqual(srv.held(), 0)
        self.assertEqual(srv.mode("file"), ("normal", None))

    def test_split_answer_head_then_body(self):
        srv = self.server_sim()
        srv.split(300)
        srv.set_reply({"code": 0, "data": "值" * 10}, path="/vmu/device/initial")
        with connect(srv.info_port) as c:
            for _ in range(2):
                c.sendall(request("/vmu/device/initial", 14, method="GET"))
                got = reads(c)
                self.assertEqual(len(got), 2, got)
                head, body = got[0][1], got[1][1]
                self.assertTrue(head.endswith(b"\r\n\r\n") and head.count(b"\r\n\r\n") == 1, head)
                self.assertEqual(sessions(head), [14])
                self.assertEqual(int(head.split(b"Content-Length: ")[1].split(b"\r\n")[0]), len(body))
                self.assertEqual(json.loads(body.decode()), {"code": 0, "data": "值" * 10})
                self.assertGreaterEqual(got[1][0] - got[0][0], 0.25)

    def test_control_commands(self):
        srv = self.server_sim()
        cases = [("duplicate", "ok", {"info": ("duplicate", 10), "file": ("duplicate", 10)}),
                 ("info duplicate 50", "ok", {"info": ("duplicate", 50), "file": ("duplicate", 10)}),
                 ("split", "ok", {"info": ("split", 100), "file": ("split", 100)}),
                 ("file split 20", "ok", {"info": ("split", 100), "file": ("split", 20)}),
                 ("info hold", "ok", {"info": ("hold", None), "file": ("split", 20)}),
                 ("flush", "ok flushed 0", {"info": ("hold", None)}),
                 ("info flush", "ok flushed 0", {"info": ("hold", None)}),
                 ("duplicate soon", "error:", {"info": ("hold", None)}),
                 ("reply delay=x /a {}", "error:", {}),
                 ("normal", "ok", {"info": ("normal", None), "file": ("normal", None)}),
                 ('reply-once delay=400 /vmu/reminder/add {"code":7}', "ok", {}),
                 ('reply-session delay=400 13 {"code":8}', "ok", {})]
        for command, reply, modes in cases:
            with self.subTest(command):
                self.assertTrue(srv.command(command).startswith(reply), srv.command("status"))
                for port, mode in modes.items():
                    self.assertEqual(srv.mode(port), mode)
        with connect(srv.info_port) as c:
            for path, session, body in (("/vmu/reminder/add", 12, b'{"code":7}'),
                                        ("/vmu/reminder/delete", 13, b'{"code":8}')):
                c.sendall(request(path, session))
                got = reads(c, quiet=0.8)
                self.assertEqual(len(got), 1)
                self.assertGreaterEqual(got[0][0], 0.35)
                self.assertTrue(got[0][1].endswith(body), got)

    def test_ctl_reaches_a_running_simulator(self):
        script = os.path.join(qeltest.SRC, "tools", "qel_server_sim.py")
        proc = subprocess.Popen([sys.executable, script, "--info-port", "0", "--file-port", "0",
                                 "--control-port", "0", "--quiet"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            first = proc.stdout.readline().split()
            info, ctl = int(first[2].rsplit(":", 1)[1]), int(first[-1].rsplit(":", 1)[1])

            def ctl_cmd(*words):
                return subprocess.run([sys.executable, script, "--ctl", str(ctl)] + list(words),
                                      stdout=subprocess.PIPE, text=True, timeout=10).stdout.strip()
            self.assertTrue(ctl_cmd("info", "hold").startswith("ok "))
            with connect(info) as c:
                c.sendall(request("/vmu/device/login", 3) + request("/vmu/device/runstate", 19))
                self.wait_until(lambda: "held=2" in ctl_cmd("status"), 5, "two answers held")
                self.assertEqual(ctl_cmd("info", "flush"), "ok flushed 2")
                self.assertEqual([sessions(d) for _, d in reads(c)], [[3, 19]])
                self.assertTrue(ctl_cmd("split", "150").startswith("ok "))
                c.sendall(request("/vmu/device/login", 3))
                self.assertEqual(len(reads(c)), 2)
        finally:
            proc.terminate()
            proc.wait(5)
            proc.stdout.close()
            proc.stderr.close()


def tar_gz(members, level=6):
    """A gzip-compressed tar archive of (name, bytes) members."""
    out = io.BytesIO()
    with gzip.GzipFile(fileobj=out, mode="wb", compresslevel=level) as g, \
            tarfile.open(fileobj=g, mode="w|") as tf:
        for name, data in members:
            info = tarfile.TarInfo(name)
            info.size = len(data)
            tf.addfile(info, io.BytesIO(data))
    return out.getvalue()


def upload(path="/videowatch/uploadImg/saveTarGz/h", session=5, length=None):
    return ("POST %s HTTP/1.1\r\nContent-type: application/octet-stream\r\nSessionId: %d\r\n"
            "User-Agent: FILE\r\nContent-Length: %d\r\n\r\n" % (path, session, length)).encode()


class ServerSimUploadTest(qeltest.AgentTestCase):
    """The file port reads archives as they stream in and lists their members."""

    def test_bodies_are_opened_as_archives_on_the_file_port(self):
        members = [("./alarmimage/camera1/detect1/NG/a b.bmp", os.urandom(3000)),
                   ("./alarmimage/camera1/detect1/NG/it's\n$(x).bmp", b""),
                   ("./cammer11/图像.bmp", b"x" * 70000)]
        archive = tar_gz(members)
        cases = [("archive", "file", archive, [[n, len(d)] for n, d in members]),
                 ("text body", "file", b"name=t1.bmp", None),
                 ("gzip of no tar", "file", gzip.compress(b"not a tar" * 100), None),
                 ("cut archive", "file", archive[:len(archive) // 2], None),
                 ("info port", "info", archive, "absent")]
        save = self.path("bodies")
        srv = self.server_sim(save_bodies=save)
        for name, port, body, want in cases:
            with self.subTest(name), connect(srv.port_of(port)) as c:
                c.sendall(upload(length=len(body)) + body)
                self.assertEqual(read_reply(c)[1]["SessionId"], "5")
                r = srv.requests(port=port)[-1]
                self.assertEqual(r.get("archive", "absent"), want)
                self.assertEqual((r["body_len"], r["body_bytes"]), (len(body), body))
                self.assertEqual(r["body_sha256"], hashlib.sha256(body).hexdigest())
                self.assertTrue(r["body_file"].endswith(".tar.gz" if isinstance(want, list) else ".body"))
                with open(r["body_file"], "rb") as f:
                    self.assertEqual(f.read(), body)
        self.assertEqual(len(srv.archives()), 1)
        with open(self.path("server-requests-1.jsonl"), encoding="utf-8") as f:
            recorded = [json.loads(line) for line in f if '"request"' in line]
        self.assertEqual(recorded[0]["archive"], cases[0][3])

    def test_large_body_is_streamed_not_kept(self):
        """Over the keep limit: no body in memory, the archive still listed,
        requests after it on the same connection still read."""
        big = os.urandom(3 << 20)
        archive = tar_gz([("./big.bin", big), ("./small.bin", b"s")], level=0)
        srv = self.server_sim(keep_bodies_below=1 << 20)
        with connect(srv.file_port, timeout=10) as c:
            c.sendall(upload(length=len(archive)) + archive + request("/videowatch/picture/removeTemplate", 11, "n=1"))
            srv.wait_request(count=2, timeout=10)
        big_r, small_r = srv.requests()
        self.assertIsNone(big_r["body_bytes"])
        self.assertTrue(big_r["body_truncated"])
        self.assertEqual(big_r["archive"], [["./big.bin", len(big)], ["./small.bin", 1]])
        self.assertEqual(big_r["body_sha256"], hashlib.sha256(archive).hexdigest())
        self.assertLessEqual(big_r["started"], big_r["time"])
        self.assertEqual((small_r["session"], small_r["body"], small_r["archive"]), (11, "n=1", None))

    def test_refusal_silence_and_outage_per_port(self):
        srv = self.server_sim()
        archive = tar_gz([("./a.bmp", b"a")])
        cases = [("file code 1", {"file": b'{"code":1}', "info": b'{"code":0}'}),
                 ("file silent", {"file": None, "info": b'{"code":0}'}),
                 ("normal", {"file": b'{"code":0}', "info": b'{"code":0}'}),
                 ("info code 2", {"file": b'{"code":0}', "info": b'{"code":2}'})]
        for command, want in cases:
            with self.subTest(command):
                self.assertTrue(srv.command(command).startswith("ok"))
                for port, body in want.items():
                    with connect(srv.port_of(port)) as c:
                        c.sendall(upload(path="/vmu/device/runstate", length=len(archive)) + archive)
                        got = b"".join(d for _, d in reads(c, quiet=0.3))
                        if body is None:
                            self.assertEqual(got, b"")
                        else:
                            self.assertTrue(got.endswith(body), got)
        srv.command("file down")
        self.assertRaises(ConnectionRefusedError, connect, srv.file_port)
        with connect(srv.info_port):
            pass

    def test_upload_cut_short_and_throttled_reading(self):
        srv = self.server_sim()
        body = os.urandom(96 * 1024)
        with connect(srv.file_port) as c:
            c.sendall(upload(length=len(body) * 2) + body)
            self.wait_until(lambda: srv.status().count("conns=1") == 1, 2, "connection open")
            time.sleep(0.3)
        close = self.wait_until(lambda: [e for e in srv.events() if e["event"] == "close"], 3, "close event")[0]
        self.assertEqual(close["unfinished"], {"method": "POST", "path": "/videowatch/uploadImg/saveTarGz/h",
                                               "session": 5, "length": len(body) * 2, "received": len(body)})
        self.assertEqual(srv.requests(), [])
        self.assertTrue(srv.command("file throttle 64").startswith("ok"))
        self.assertIn("throttle=64KiB/s", srv.status())
        with connect(srv.file_port, timeout=10) as c:
            started = time.monotonic()
            c.sendall(upload(length=len(body)) + body)
            self.assertEqual(read_reply(c)[1]["SessionId"], "5")
            self.assertGreaterEqual(time.monotonic() - started, 1.0)     # 96 KiB at 64 KiB/s
        srv.throttle(0, port="file")
        self.assertNotIn("throttle", srv.status())


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

    def test_images_are_written_whole_where_the_agent_looks(self):
        from qel_app_sim import AWKWARD_NAMES, parse_script_line, write_images
        root = self.path("alarmimage")
        cases = [(dict(camera=2, detect=1, kind="NG", count=3, size=100), "camera2/detect1/NG",
                  ["img_000000.bmp", "img_000001.bmp", "img_000002.bmp"]),
                 (dict(camera=1, detect=2, kind="OK", count=1, prefix="p", start=7), "camera1/detect2/OK",
                  ["p_000007.bmp"]),
                 (dict(camera=3, detect=2, kind="template", count=1), "cammer32", ["img_000000.bmp"]),
                 (dict(awkward=True), "camera1/detect1/NG", AWKWARD_NAMES)]
        for kw, where, names in cases:
            with self.subTest(**kw):
                paths = write_images(root, **kw)
                self.assertEqual(paths, [os.path.join(root, where, n) for n in names])
                self.assertEqual(sorted(os.listdir(os.path.join(root, where))), sorted(names))
                self.assertEqual({os.path.getsize(p) for p in paths}, {kw.get("size", 4096)})
        contents = []
        for p in paths[:2]:
            with open(p, "rb") as f:
                contents.append(f.read())
        self.assertNotEqual(*contents)
        self.assertEqual(parse_script_line("images /r kind=template count=2 camera=3 awkward=1"),
                         ("images", "/r", {"kind": "template", "count": 2, "camera": 3, "awkward": True}))
        self.assertRaises(ValueError, write_images, root, kind="ng")

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
