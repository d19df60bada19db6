"""The message road, from an application message to the server and back, and
what the server and the links can do to it: odd answers, framing, outages,
an application that restarts, a file server that is away. The tests run side
by side, each agent in namespaces of its own."""

import http.server
import json
import os
import re
import socket
import subprocess
import threading
import time
import unittest

from qeltest import ALARM, HOST, STATS, AgentTestCase, read_failhistory

NOTICE = (b"POST /%s/ HTTP/1.1\r\nContent-type: application/json%s\nConnection: keep-alive\r\nSessionId: %d\r\n"
          b"User-Agent: INFO\r\nContent-Length: 0\r\n\r\n")
REMOVE_TEMPLATE = "/videowatch/picture/removeTemplate"
# type, body, path of the request it becomes
SIMPLE_ITEMS = [
    (1, "device_id=%s&operater=op&utc=1&description=上料" % HOST, "/vmu/device/operate/log"),
    (2, '{"exposure":12,"名称":"相机"}', "/vmu/device/sysparam/upload"),
    (7, '{"total":3,"ng":1}', STATS),
    (8, '{"roi":[1,2,3,4]}', "/vmu/area/param/upload"),
    (10, '{"stop":1}', "/vmu/device/stop/statistics/upload"),
    (12, '{"title":"clean"}', "/vmu/reminder/add"),
    (13, '{"id":1}', "/vmu/reminder/delete"),
    (15, "ngorok=1", "/vmu/device/ngorok"),
    (16, "tel=123", "/service/vcode/alarm/send"),
    (18, '{"result":"OK"}', "/vmu/device/detect_result"),
    (20, '{"cancel":1}', "/vmu/device/detect_terminate"),
]


NGINX = """daemon off; user root; worker_processes 1; pid {w}/nginx.pid; error_log {w}/nginx-error.log;
events {{ worker_connections 64; }}
http {{
    access_log {w}/nginx-access.log; client_body_temp_path {w}/nginx-body; proxy_temp_path {w}/nginx-proxy;
    fastcgi_temp_path {w}/nginx-fcgi; uwsgi_temp_path {w}/nginx-uwsgi; scgi_temp_path {w}/nginx-scgi;
    server {{ listen 127.0.0.1:{info}; location / {{
        proxy_pass http://127.0.0.1:{sim_info}; proxy_http_version 1.1; proxy_set_header Connection ""; }} }}
    # its default body limit, 1 MiB, in front of the file port
    server {{ listen 127.0.0.1:{file}; location / {{
        proxy_pass http://127.0.0.1:{sim_file}; proxy_http_version 1.1; proxy_set_header Connection ""; }} }}
}}
"""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class RealInfoServer(http.server.ThreadingHTTPServer):
    """The INFO port served by Python's own HTTP stack, each answer in the
    shape the next entry of `shapes` names (then "plain")."""
    daemon_threads = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), RealInfoHandler)
        self.shapes, self.got, self.lock = [], [], threading.Lock()
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def stop(self):
        self.shutdown()
        self.server_close()


class RealInfoHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    timeout = 3         # an idle connection is closed, as Node's keep-alive time-out does

    def log_message(self, *args):
        pass

    def do_GET(self):
        self.do_POST()

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0)).decode()
        session, path = self.headers["SessionId"], self.path.split("?")[0]
        with self.server.lock:
            shape = self.server.shapes.pop(0) if self.server.shapes and session != "4" else "chunked"
            self.server.got.append((time.monotonic(), path, body, shape))
        answer = json.dumps({"msg": "OK"} if session == "4" else {"code": 0, "data": {}})
        if shape == "pretty":           # an indenting writer on Windows
            answer = json.dumps(json.loads(answer), indent=2).replace("\n", "\r\n")
        if shape == "close":            # HTTP/1.0: the body ends with the connection
            self.wfile.write(b"HTTP/1.0 200 OK\r\nSessionId: %s\r\n\r\n%s" % (session.encode(), answer.encode()))
            self.close_connection = True
            return
        if shape == "continue":
            self.wfile.write(b"HTTP/1.1 100 Continue\r\n\r\n")
        status = {"503": 503, "502": 502}.get(shape, 200)
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        if shape == "503":
            self.send_header("Retry-After", "2")
        if shape != "502":              # a proxy's own page names no item
            self.send_header({"lower": "sessionid", "go": "Sessionid"}.get(shape, "SessionId"), session)
        if shape == "mention":
            self.send_header("Access-Control-Expose-Headers", "SessionId")
        data = answer.encode() if status == 200 else b"<html>busy</html>"
        if shape == "chunked":
            self.send_header("Transfer-Encoding", "chunked")
            self.end_headers()
            for piece in (data[:3], data[3:]):
                self.wfile.write(b"%x;ext=1\r\n%s\r\n" % (len(piece), piece))
            self.wfile.write(b"0\r\nX-Trailer: t\r\n\r\n")
        else:
            self.send_header("Content-Length", str(len(data)))
            self.end_headers()
            self.wfile.write(data)


class Messages(AgentTestCase):

    def delivered(self, bodies, timeout, path=STATS):
        missing = lambda: [b for b in bodies if b not in {r["body"] for r in self.srv.requests(path=path)}]
        self.wait_until(lambda: not missing(), timeout, "every message delivered")

    def test_every_item_end_to_end(self):
        srv, app, ag = self.start_all(db_overrides={"useInlineName": "stored-name"})
        login = srv.requests(path="/vmu/device/login")[0]
        self.assertEqual((login["body"], login["session"]), ("device_id=" + HOST, 3))
        for msg_type, body, _ in SIMPLE_ITEMS:
            app.send(msg_type, body)
        got = srv.wait_request(lambda r: r["session"] not in (3, 4), count=len(SIMPLE_ITEMS), timeout=20)
        for (msg_type, body, path), req in zip(SIMPLE_ITEMS, got):
            self.assertEqual((req["session"], req["method"], req["path"], req["body"]), (msg_type, "POST", path, body))
            self.assertEqual(int(dict(req["headers"])["Content-Length"]), len(body.encode("utf-8")))
            ag.wait_log(r"recv:%d\(result:-- success --\)" % msg_type)
            self.assertIn("Inline:%d(get info from application)" % msg_type, ag.log_text())
        app.wait_notice("back", count=len(SIMPLE_ITEMS))
        self.assertEqual([n["raw_bytes"] for n in app.notices("back")], [NOTICE % (b"back", b"\r", 0)] * len(got))
        # One request in flight: the next goes only after the answer (200 ms) and a 50 ms pause.
        srv.slow(200)
        for i in range(4):
            app.send(7, '{"n":%d}' % i)
        got = srv.wait_request(path=STATS, predicate=lambda r: '"n"' in r["body"], count=4, timeout=20)
        self.assertEqual([r["body"] for r in got], ['{"n":%d}' % i for i in range(4)])
        gaps = [b["time"] - a["time"] for a, b in zip(got, got[1:])]
        self.assertTrue(all(g >= 0.24 for g in gaps), gaps)
        srv.normal()
        # Template removal goes to the file port, which is closed after the answer.
        app.send(11, "name=t1.bmp")
        req = srv.wait_request(path=REMOVE_TEMPLATE)[0]
        self.assertEqual((req["port_name"], req["body"], dict(req["headers"])["Host"]),
                         ("file", "name=t1.bmp", "127.0.0.1:%d" % self.file_port))
        ag.wait_log(r"socket:\(the socket FILE disconnected\)")
        # On a connection of its own: its answer, which closes that connection,
        # never cuts short an archive upload of the FILE thread.
        srv.throttle(256, port="file")
        slow = self.write(ALARM, count=2, size=400 * 1024, prefix="slow")     # about 3 s at 256 KiB/s
        app.send(ALARM, "")
        ag.wait_log(r"send:5\(file write to socket alread\)")
        app.send(11, "name=t2.bmp")
        req = srv.wait_request(path=REMOVE_TEMPLATE, count=2)[1]
        self.wait_uploaded(slow)
        self.assertNotEqual(req["conn"], srv.archives()[-1]["conn"])
        self.assert_uploaded_once(slow)
        srv.throttle(None, port="file")
        # Queries forward the server's answer to the application.
        for msg_type, path in ((14, "/vmu/device/initial"), (17, "/vmu/device/reminder")):
            app.send(msg_type, "q")
            req = srv.wait_request(path=path)[0]
            self.assertEqual((req["method"], req["path"]), ("GET", "%s?device_id=%s" % (path, HOST)))
            fwd = app.wait_notice(path)[0]
            self.assertEqual((fwd["body"], fwd["session"]), (req["reply"], msg_type))
            self.assertEqual(int(dict(fwd["headers"])["Content-Length"]), len(fwd["body"].encode("utf-8")))
        # Run state: the measurements follow the application's members; an invalid body queues nothing.
        app.send(19, '{"state":"running","产线":2}')
        app.send(19, "{not json")
        body = json.loads(srv.wait_request(path="/vmu/device/runstate", timeout=15)[0]["body"])
        self.assertEqual(list(body), ["state", "产线", "cpu", "memory", "nearstart"])
        self.assertTrue(-1 <= body["cpu"] <= 10000 and 0 <= body["memory"] <= 10000 and body["nearstart"] > 0, body)
        app.send(7, '{"after":1}')
        srv.wait_request(path=STATS, predicate=lambda r: r["body"] == '{"after":1}')
        self.assertEqual(len(srv.requests(path="/vmu/device/runstate")), 1)
        self.assert_clean()

    def test_malformed_messages_and_odd_answers(self):
        srv, app, ag = self.start_all()
        junk = ["3:..!p", "3:a:b:..!p", "3:a:..!x:..!y", "21:a:..!p", "-1:a:..!p", ":a:..!x", "0:a:..!x", "garbage"]
        for text in junk:
            app.send_raw(text.encode("utf-8"))
        app.send_raw(b"\x00\xff\xfe binary \x00 zeros")
        app.send_raw(bytes(range(256)) * 256)      # a 64 KiB read
        app.send(9, "shm description")
        # Texts that merely mention an image directory read as the image
        # items' work, which the INFO thread does not do: dropped as damaged,
        # and what follows is not held up.
        app.send(2, '{"note":"/x/qel_alarmimage/y"}')
        app.send(7, '{"note":"qel_tempimage"}')
        app.send(7, '{"last":1}')
        self.assertEqual(srv.wait_request(path=STATS)[0]["body"], '{"last":1}')
        time.sleep(0.5)
        self.assertEqual([r["session"] for r in srv.requests() if r["session"] not in (3, 4)], [7])
        self.assertGreaterEqual(len(app.notices("back")), len(junk) + 6)
        log = ag.log_text()
        self.assertTrue("Inline:0(get info" in log and "Inline:9(sharedMemory get ready)" in log and
                        "Inline:21" not in log, log)
        self.assertEqual(log.count("error:11(damaged info)"), 2)
        # A failed code still removes the request; an answer naming another
        # item removes nothing, so the same request goes again.
        srv.set_reply({"code": 1}, path="/vmu/area/param/upload", times=1)
        app.send(8, '{"roi":1}')
        ag.wait_log(r"recv:8\(result:-- fail --\)")
        srv.set_reply({"code": 0}, path="/vmu/reminder/add", times=1, reply_session=13)
        app.send(12, '{"t":1}')
        got = srv.wait_request(path="/vmu/reminder/add", count=2)
        self.assertEqual(got[0]["body"], got[1]["body"])
        ag.wait_log(r"recv:12\(result:-- success --\)")
        # A string "0" counts as success.
        srv.set_reply('{"code":"0"}', path="/vmu/device/detect_result", times=1)
        app.send(18, "{}")
        ag.wait_log(r"recv:18\(result:-- success --\)")
        self.assertEqual(len(srv.requests(path="/vmu/area/param/upload")), 1)
        # Every answer repeated ten times, the first a second late: each releases only its own request.
        srv.duplicate(10)
        srv.set_reply({"code": 0}, path=STATS, times=1, delay_ms=1000)
        bodies = ['{"dup":%d}' % i for i in range(8)]
        for body in bodies:
            self.send_and_ack(7, body)
        self.delivered(bodies, 15)
        # The server sees the last request before the agent has its answer.
        self.wait_until(lambda: not read_failhistory(self.db), 5, "the failure history emptied")
        self.assert_clean()

    def test_a_real_http_stack_in_every_framing(self):
        """Python's HTTP server on the INFO port: chunked answers (the login
        and the heartbeat too), header names in any case, a body that ends
        with the connection, CR LF pretty JSON, a 100 Continue first, a header
        that only mentions SessionId; 503 with Retry-After and a proxy's 502
        are not answers: nothing is removed, the message goes again after the
        stated time and is delivered once. Idle connections are closed by the
        server: the heartbeat reconnects quietly."""
        real = RealInfoServer()
        self.addCleanup(real.stop)
        srv, app, ag = self.start_all(db_overrides={"serverport_info": str(real.server_address[1])}, wait_login=False)
        ag.wait_log(r"recv:3\(result:-- success --\)")
        rows = ["chunked", "lower", "go", "close", "pretty", "continue", "mention", "503", "502"]
        for shape in rows:
            with real.lock:
                real.shapes += [shape, "plain"]     # the second for a send again
            body = '{"shape":"%s"}' % shape
            self.send_and_ack(7, body)
            self.wait_until(lambda: not read_failhistory(self.db), 10, shape + " answered")
            arrivals = [t for t, p, b, _ in real.got if b == body]
            with real.lock:
                real.shapes.clear()
            self.assertEqual(len(arrivals), 2 if shape in ("503", "502") else 1, shape)
            if shape == "503":
                self.assertGreaterEqual(arrivals[1] - arrivals[0], 2.0)
        self.assertEqual(ag.log_text().count("recv:7(result:-- success --)"), len(rows))
        self.assertEqual(len(re.findall(r"recv:7\(status 50[23] is not an answer", ag.log_text())), 2)
        ag.wait_log(r"heart:\(recv heartpage back r:1\)", timeout=30)
        self.assertNotIn("no answer within", ag.log_text())
        self.assertNotIn("heart time out", ag.log_text())     # the idle connection's close is no time-out
        self.assert_clean()

    def test_behind_nginx(self):
        """nginx (Debian's) in front of the simulator: the message road through
        it; its own 502 while the backend is away is not an answer (the message
        goes again once it is back, even when given up meanwhile, an archive
        too); its 413 for an archive over its 1 MiB limit costs two sends, not
        a storm, the archive waits in the failure directory and the one queued
        behind it goes."""
        srv = self.server_sim()
        ports = {"w": self.work, "info": free_port(), "file": free_port(), "sim_info": srv.info_port,
                 "sim_file": srv.file_port}
        with open(self.path("nginx.conf"), "w") as f:
            f.write(NGINX.format(**ports))
        nginx = subprocess.Popen(["nginx", "-c", self.path("nginx.conf"), "-p", self.work])
        self.addCleanup(nginx.wait, 10)
        self.addCleanup(nginx.terminate)
        self.wait_until(lambda: os.path.exists(self.path("nginx.pid")), 10, "nginx up")
        big = self.write(ALARM, count=10, size=150 * 1024, prefix="big")     # one archive of 1.5 MB
        _, app, ag = self.start_all(server=False, db_overrides={"serverport_info": str(ports["info"]),
                                                               "serverport_file": str(ports["file"])})
        self.srv = srv
        ag.wait_log(r"recv:3\(result:-- success --\)")
        ag.wait_log(r"recv:5\(status 413 is not an answer")
        small = self.write(ALARM, count=1, prefix="small")     # queued behind it
        app.send(ALARM, "")
        self.wait_uploaded(small)
        self.wait_until(lambda: self.archives_in(self.faildir(ALARM)), 20, "the refused archive kept")
        with open(self.path("nginx-access.log")) as f:
            access = f.read()
        self.assertEqual(len(re.findall(r'"POST /videowatch/uploadImg/saveTarGz/[^"]*" 413 ', access)), 2, access)
        ag.wait_log(r"recv:5\(result:-- success --\)")
        self.assertNotIn("given up while the server was away go again", ag.log_text())     # a 413 blames the archive
        self.assertFalse(set(map(self.member, big)) & set(self.uploaded()))
        bodies = ['{"via":"nginx %d"}' % i for i in range(3)]
        for body in bodies:
            self.send_and_ack(7, body)
        self.delivered(bodies, 10)
        # Answered too (the server sees a request before the agent has its answer).
        self.wait_until(lambda: not read_failhistory(self.db), 5, "the failure history emptied")
        # Given up after two 502s, it goes again once the backend is back.
        srv.down(port="info")
        self.send_and_ack(7, '{"via":"502"}')
        ag.wait_log(r"recv:7\(status 502 is not an answer")
        ag.wait_log(r"error:12\(tims out range to send by 7\)", timeout=10)
        srv.up(port="info")
        self.send_and_ack(7, '{"via":"back"}')
        self.delivered(['{"via":"502"}', '{"via":"back"}'], 10)
        self.wait_until(lambda: not read_failhistory(self.db), 5, "the failure history emptied")
        got = [r["body"] for r in srv.requests(path=STATS)]
        self.assertEqual(sorted(got), sorted(bodies + ['{"via":"502"}', '{"via":"back"}']))     # each once
        # An archive given up after two 502s goes again from the failure
        # directory once another is answered.
        refused = self.archives_in(self.faildir(ALARM))       # the 413 one stays
        srv.down(port="file")
        away = self.write(ALARM, count=1, prefix="away")
        app.send(ALARM, "")
        kept = lambda: self.archives_in(self.faildir(ALARM)) != refused
        self.wait_until(kept, 15, "the archive given up kept")
        srv.up(port="file")
        back = self.write(ALARM, count=1, prefix="back")
        app.send(ALARM, "")
        self.wait_uploaded(away + back)
        self.wait_until(lambda: not kept(), 10, "gone from the failure directory")
        # A backend that chunks its answers (Python's stack), nginx passing them on.
        real = RealInfoServer()
        self.addCleanup(real.stop)
        with open(self.path("nginx.conf"), "w") as f:
            f.write(NGINX.format(**dict(ports, sim_info=real.server_address[1])))
        closed = ag.log_text().count("socket:(the socket INFO disconnected)")
        subprocess.run(["nginx", "-c", self.path("nginx.conf"), "-p", self.work, "-s", "reload"], check=True)
        ag.wait_log(r"socket:\(the socket INFO disconnected\)", count=closed + 1)     # the old worker's idle close
        chunked = ['{"via":"nginx, chunked %d"}' % i for i in range(3)]
        for body in chunked:
            self.send_and_ack(7, body)
        self.wait_until(lambda: set(chunked) <= {b for _, _, b, _ in real.got}, 10, "through nginx to the chunking backend")
        self.wait_until(lambda: not read_failhistory(self.db), 5, "answered")
        self.assertEqual(ag.log_text().count("recv:7(result:-- success --)"), len(bodies) + 2 + len(chunked))
        self.assert_clean()

    def test_replies_are_framed_by_their_length(self):
        srv, app, ag = self.start_all()
        big = lambda tag: json.dumps({"code": 0, "data": {"tag": tag, "remark": "检测备注" * 250, "pad": "x" * 2000}},
                                     ensure_ascii=False, separators=(",", ":"))
        paths = {7: STATS, 14: "/vmu/device/initial", 17: "/vmu/device/reminder"}
        for name, behaviour, item, answer in [("split", "split 100", 7, None), ("split query", "split 100", 14, None),
                                              ("large", "normal", 14, big("i")), ("large", "normal", 17, big("r")),
                                              ("large split", "split 100", 14, big("s")),
                                              ("oversize", "oversize 5000", 7, None)]:
            with self.subTest(name, item=item):
                srv.command("info " + behaviour)
                if answer is not None:
                    srv.set_reply(answer, path=paths[item], times=1)
                successes = len(re.findall(r"recv:%d\(result:-- success --\)" % item, ag.log_text()))
                mark = app.mark()
                app.send(item, "q" if item != 7 else '{"case":"%s"}' % name)
                ag.wait_log(r"recv:%d\(result:-- success --\)" % item, count=successes + 1, timeout=5)
                if item != 7:
                    sent = srv.requests(path=paths[item])[-1]["reply"]
                    self.assertEqual(sent, answer or sent)
                    fwd = app.wait_notice(paths[item], since=mark, timeout=5)[0]
                    self.assertEqual((fwd["body"], fwd["flags"], fwd["session"]), (sent, [], item))
                    self.assertEqual(app.raw_bytes().count(sent.encode("utf-8")), 1)
                srv.normal()
        # Two replies in one read (the request's, held, and the 20 s heartbeat's) are both routed.
        srv.hold(port="info")
        app.send(7, '{"held":1}')
        srv.wait_request(path="/vmu/device/heartbeat", timeout=25)
        self.assertEqual(srv.flush(port="info"), 2)
        ag.wait_log(r"heart:\(recv heartpage back r:1\)", timeout=5)
        srv.normal()
        self.assertEqual(ag.log_text().count("recv:7(result:-- success --)"), 3)     # nothing went twice
        self.assert_clean()

    def test_server_lost_and_back(self):
        srv, app, ag = self.start_all()
        srv.down()
        ag.wait_log(r"socket:\(the socket INFO disconnected\)")    # else the first goes into the dying link
        bodies = ['{"during":%d}' % i for i in range(3)]
        for body in bodies:
            app.send(7, body)
        self.assertEqual(app.wait_notice("reline")[0]["raw_bytes"], NOTICE % (b"reline", b"\\r", 4))
        rows = read_failhistory(self.db)
        self.assertTrue(rows and all(t.startswith("POST " + STATS) and ms > 1.6e12 for ms, t in rows), rows)
        srv.up()
        self.assertEqual([r["body"] for r in srv.wait_request(path=STATS, count=3, timeout=40)], bodies)
        # A request in flight goes again once the server is back, cut off or reset, within the 5 s back-off.
        for n, reset in enumerate((False, True)):
            in_flight, queued = '{"in_flight":%d}' % n, '{"while_down":%d}' % n
            srv.silent()
            app.send(7, in_flight)
            srv.wait_request(path=STATS, predicate=lambda r: r["body"] == in_flight)
            srv.down(reset=reset)
            time.sleep(0.5)
            self.assertLess(self.send_and_ack(7, queued), 2.0)     # never waiting for a connect (5 s)
            time.sleep(0.5)
            up = time.time()
            srv.up()
            for body, count in ((in_flight, 2), (queued, 1)):
                got = srv.wait_request(path=STATS, predicate=lambda r, b=body: r["body"] == b, count=count, timeout=10)
                self.assertLessEqual(got[-1]["time"] - up, 8.0, body)
        # A flapping server loses nothing.
        sent = []
        for flap in range(3):
            for i in range(3):
                sent.append('{"flap":%d,"i":%d}' % (flap, i))
                app.send(7, sent[-1])
            time.sleep(0.5)
            srv.down()
            time.sleep(1.0)
            srv.up()
            time.sleep(0.5)
        self.delivered(sent, 30)
        self.wait_until(lambda: read_failhistory(self.db) == [], 5, "failure history emptied")
        self.assert_clean()

    def test_unreachable_server_and_one_that_closes_after_every_answer(self):
        srv, app, ag = self.start_all(server_kw={"mode": "down"}, wait_login=False)
        ag.wait_log(r"send:3\(ERR_NetNoConnect send without connected\)")
        time.sleep(8)
        # Backing off, no storm: each wait is drawn from [0, 1, 2, 4 then 5 s], about 6 in 8 s.
        self.assertLessEqual(ag.log_text().count("ERR_NetNoConnect"), 10)
        srv.up()
        self.assertEqual(srv.wait_request(path="/vmu/device/login", timeout=40)[0]["session"], 3)
        ag.wait_log(r"recv:3\(result:-- success --\)")
        # Blackholed: every message is still acknowledged at once, and all arrive in order later.
        srv.blackhole()
        srv.close_connections()
        bodies, delays = ['{"seq":%d}' % i for i in range(30)], []
        for body in bodies:
            delays.append(self.send_and_ack(7, body))
            time.sleep(max(0.0, 0.2 - delays[-1]))
        self.assertLess(max(delays), 1.0, delays)     # never waiting for a connect (5 s)
        srv.closing()
        self.delivered(bodies, 60)
        seen = [r["body"] for r in srv.requests(path=STATS)]
        self.assertEqual(sorted(set(seen), key=seen.index), bodies)
        self.assertGreaterEqual(ag.log_text().count("socket:(the socket INFO connected)"), 10)
        # Takes every request and drops the connection, answering nothing: each
        # drop counts as an unanswered send and as a failed connect (no storm of
        # connections); what was given up goes again once the server answers.
        srv.normal()
        self.wait_until(lambda: not read_failhistory(self.db), 10, "the failure history emptied")
        srv.silent(port="info", close_ms=50)
        connects = len(srv.connections(port="info"))
        dropped = ['{"dropped":%d}' % i for i in range(10)]     # a storm would take them all in 8 s
        for body in dropped:
            self.send_and_ack(7, body)
        ag.wait_log(r"error:12\(tims out range to send by 7\)", timeout=15)
        time.sleep(8)
        self.assertLessEqual(len(srv.connections(port="info")) - connects, 12)
        sends = lambda b: sum(r["body"] == b for r in srv.requests(path=STATS))
        self.assertLessEqual(max(map(sends, dropped)), 2)
        srv.normal(port="info")
        ag.wait_log(r"given up while the server was away go again", timeout=30)
        self.wait_until(lambda: not read_failhistory(self.db), 20, "every dropped message answered, without a restart")
        self.assertLessEqual(max(map(sends, dropped)), 3)
        self.assert_clean()

    def test_application_restarts_and_file_server_away(self):
        for code in (1, 0):         # logged in or not
            srv = self.server_sim(login_code=code)
            db = self.make_db(name="login%d.db" % code, info_port=srv.info_port, file_port=srv.file_port)
            first = self.app_sim()
            ag = self.agent(db=db).start()
            first.wait_connected(10)
            ag.wait_log(r"recv:3\(result:-- %s --\)" % ("success" if code == 0 else "fail"))
            first.stop()
            time.sleep(3)
            self.app = self.app_sim()
            back = time.monotonic()
            self.app.wait_connected(10)
            self.assertLessEqual(time.monotonic() - back, 9.0)     # back-off capped at 5 s
            self.send_and_ack(7, '{"after_restart":%d}' % code, within=2)
            srv.wait_request(path=STATS, predicate=lambda r: r["body"] == '{"after_restart":%d}' % code)
            self.assert_clean(ag)
            ag.stop()
            self.app.stop()
        # The file server is away: the template removal is kept and does not hold up the INFO queue.
        srv, app, ag = self.start_all()
        srv.down(port="file")
        app.send(11, "name=t1.bmp")
        sent = time.time()
        app.send(7, '{"behind":11}')
        got = srv.wait_request(path=STATS, predicate=lambda r: r["body"] == '{"behind":11}', timeout=14)[0]
        self.assertLessEqual(got["time"] - sent, 12.0)
        kept = lambda: [t for _, t in read_failhistory(self.db) if REMOVE_TEMPLATE in t and "name=t1.bmp" in t]
        self.wait_until(kept, 5, "template removal kept in the failure history")
        ag.stop()
        srv.up(port="file")
        ag = self.restart()
        req = srv.wait_request(path=REMOVE_TEMPLATE, timeout=15)[0]
        self.assertEqual((req["port_name"], req["body"]), ("file", "name=t1.bmp"))
        self.wait_until(lambda: not kept(), 5, "delivered template removal removed from the history")
        time.sleep(1)
        self.assertEqual(len(srv.requests(path=REMOVE_TEMPLATE)), 1)
        self.assert_clean()


PARALLEL = True

if __name__ == "__main__":
    unittest.main()
