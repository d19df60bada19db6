"""Login, the 20 s heartbeat with its notices, and the 30 s failure-history rewrite."""

import time
import unittest

from qeltest import read_failhistory
from runtime import HOST, RuntimeCase

HEART_NOTICE = (b"POST /heart/ HTTP/1.1\r\nContent-type: application/json\\r\n"
                b"Connection: keep-alive\r\nSessionId: 4\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n")
HEART_PATH = "/vmu/device/heartbeat"


class Heartbeat(RuntimeCase):

    def test_heartbeat_after_login_and_application_heartbeats_leave_it_alone(self):
        srv, app, ag = self.start_all()
        # a heartbeat text from the application goes out as queued, and is released by its answer
        app.send(4, "from-app")
        queued = srv.wait_request(path=HEART_PATH, timeout=10)[0]
        self.assertEqual(queued["body"], "from-app")
        app.send(7, '{"after":1}')
        srv.wait_request(path="/vmu/device/monitor/statistics/upload", timeout=10)

        beats = srv.wait_request(path=HEART_PATH, predicate=lambda r: r["body"] != "from-app",
                                 count=1, timeout=25)
        beat = beats[0]
        self.assertEqual(beat["method"], "GET")
        self.assertEqual(beat["path"], "%s?device_id=%s" % (HEART_PATH, HOST))
        self.assertEqual(beat["body"], "device_id=%s" % HOST)
        self.assertEqual(beat["session"], 4)
        heart = app.wait_notice("heart", timeout=5)[0]
        self.assertEqual(heart["raw_bytes"], HEART_NOTICE)
        ag.wait_log(r"heart:\(send to service and application ok\)")
        ag.wait_log(r"heart:\(recv heartpage back r:1\)")

        # the 30 s rewrite of the failure history: nothing queued, nothing kept
        ag.wait_log(r"savefail:\(update info_failhistory ok\)", timeout=15)
        self.assertEqual(read_failhistory(self.db), [])

        # the second timer heartbeat is still the agent's own
        beats = srv.wait_request(path=HEART_PATH, predicate=lambda r: r["body"] != "from-app",
                                 count=2, timeout=15)
        self.assertEqual(beats[1]["body"], "device_id=%s" % HOST)
        gap = beats[1]["time"] - beats[0]["time"]
        self.assertAlmostEqual(gap, 20.0, delta=1.0)
        self.assertNotIn("heart time out", ag.log_text())
        self.assert_clean()

    def test_no_heartbeat_before_a_successful_login(self):
        srv, app, ag = self.start_all(server_kw={"login_code": 1}, wait_login=False)
        srv.wait_request(path="/vmu/device/login", timeout=10)
        ag.wait_log(r"recv:3\(result:-- fail --\)")
        ag.wait_log(r"savefail:\(update info_failhistory ok\)", timeout=35)
        self.assertEqual(srv.requests(path=HEART_PATH), [])
        self.assertEqual(app.notices("heart"), [])
        self.assert_clean()


class HeartbeatAnswers(RuntimeCase):
    """Three agents side by side (no application link): answered "ok",
    answered "Ok", and not answered at all."""

    def test_acknowledgement_words_and_the_39_second_bound(self):
        runs = {}
        for name, reply in (("ok", {"msg": "ok"}), ("Ok", {"msg": "Ok"}), ("silent", None)):
            srv = self.server_sim()
            srv.set_reply(reply, path=HEART_PATH)
            db = self.make_db(name="%s.db" % name, info_port=srv.info_port, file_port=srv.file_port,
                              overrides={"logpath": self.path("log-%s/" % name)})
            ag = self.agent(db=db, log_dir=self.path("log-%s" % name))
            ag.start()
            runs[name] = (srv, ag)
        for srv, ag in runs.values():
            srv.wait_request(path="/vmu/device/login", timeout=10)

        time.sleep(43)
        for name, (srv, ag) in runs.items():
            log = ag.log_text()
            beats = srv.requests(path=HEART_PATH)
            if name == "ok":
                self.assertEqual(log.count("heart:(recv heartpage back r:1)"), 2, log)
                self.assertNotIn("error:13(heart time out)", log)
            elif name == "Ok":
                # not an acknowledgement: the next tick reconnects and still beats
                self.assertIn("heart:(recv heartpage back r:0)", log)
                self.assertEqual(log.count("error:13(heart time out)"), 1, log)
                self.assertEqual(log.count("socket:(the socket INFO connected)"), 2, log)
            else:
                # no answer since start: 20 s is within the bound, 40 s is not
                self.assertNotIn("recv heartpage back", log)
                self.assertEqual(log.count("error:13(heart time out)"), 1, log)
            self.assertEqual(len(beats), 2, (name, beats))
            self.assertEqual(log.count("heart:(send to service and application ok)"), 2, log)
            self.assertTrue(ag.is_running())
            ag.assert_no_qt_thread_warnings()
            ag.assert_no_sanitizer_reports()


if __name__ == "__main__":
    unittest.main()
