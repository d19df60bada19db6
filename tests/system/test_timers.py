"""What the agent's own timers decide: the 20 s heartbeat and its 39 s bound,
the login sent again after every 30 s wait, the give-up after two unanswered
sends and the 30 s failure-history look that keeps a given-up row until it
is delivered. The tests run side by side (about 100 s in all)."""

import time
import unittest

from qeltest import HOST, STATS, AgentTestCase, read_failhistory

LOGIN = "/vmu/device/login"
HEART = "/vmu/device/heartbeat"
HEART_NOTICE = (b"POST /heart/ HTTP/1.1\r\nContent-type: application/json\\r\n"
                b"Connection: keep-alive\r\nSessionId: 4\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n")
SILENT = '{"unanswered":1}'


class Timers(AgentTestCase):

    def test_heartbeat_give_up_and_the_history_look(self):
        srv, app, ag = self.start_all()
        # An application heartbeat goes out as queued and leaves the timer's own alone.
        srv.set_reply(None, path=STATS)
        app.send(4, "from-app")
        self.assertEqual(srv.wait_request(path=HEART)[0]["body"], "from-app")
        app.send(7, SILENT)
        self.wait_until(lambda: [t for _, t in read_failhistory(self.db) if SILENT in t], 2, "stored at once")
        beats = srv.wait_request(path=HEART, predicate=lambda r: r["body"] != "from-app", count=2, timeout=45)
        for beat in beats:
            self.assertEqual((beat["method"], beat["path"], beat["body"], beat["session"]),
                             ("GET", "%s?device_id=%s" % (HEART, HOST), "device_id=" + HOST, 4))
        self.assertAlmostEqual(beats[1]["time"] - beats[0]["time"], 20.0, delta=1.0)
        self.assertEqual(app.wait_notice("heart")[0]["raw_bytes"], HEART_NOTICE)
        # Two sends 30 s apart, then given up; the queue moves on.
        ag.wait_log(r"error:12\(tims out range to send by 7\)", timeout=40)
        self.assertEqual(len(srv.requests(path=STATS)), 2)
        ticks = ag.log_text().count("savefail:(update info_failhistory ok)")
        app.send(12, '{"next":1}')
        ag.wait_log(r"recv:12\(result:-- success --\)")
        # The look keeps the given-up row; it is not sent again in this run.
        ag.wait_log(r"savefail:\(update info_failhistory ok\)", count=ticks + 1, timeout=35)
        self.assertEqual([SILENT in t for _, t in read_failhistory(self.db)], [True])
        self.assertEqual(len(srv.requests(path=STATS)), 2)
        self.assert_clean()
        # The next run delivers it once and empties the history.
        ag.kill9()
        srv.clear_replies()
        ag = self.restart()
        self.assertEqual(srv.wait_request(path=STATS, count=3, timeout=15)[2]["body"], SILENT)
        self.wait_until(lambda: read_failhistory(self.db) == [], 5, "failure history emptied")
        time.sleep(1)
        self.assertEqual(len(srv.requests(path=STATS)), 3)
        self.assert_clean()

    def test_login_unanswered_twice_then_answered(self):
        srv, app, ag = self.start_all(wait_login=False, before_start=lambda s: s.set_reply(None, path=LOGIN, times=2))
        logins = srv.wait_request(path=LOGIN, count=3, timeout=75)
        # Each on a new connection, within the back-off: nothing was answered on the old one.
        for r, due in zip(logins, (0, 30, 60)):
            self.assertTrue(due - 1 <= r["time"] - logins[0]["time"] <= due + 4, (due, r["time"] - logins[0]["time"]))
        self.assertEqual({r["body"] for r in logins}, {"device_id=" + HOST})
        ag.wait_log(r"recv:3\(result:-- success --\)")
        self.assertEqual([r for r in srv.requests(path=HEART) if r["time"] < logins[2]["time"]], [])
        srv.wait_request(path=HEART, timeout=25)
        app.wait_notice("heart")
        self.assert_clean()

    def test_heartbeat_acknowledgement_words_and_the_39_second_bound(self):
        """Side by side, without the application link: answered "ok", "Ok", not at
        all, and a refused login, which is final: no heartbeat at all."""
        runs = {}
        for name, reply in (("ok", {"msg": "ok"}), ("Ok", {"msg": "Ok"}), ("silent", None), ("refused", None)):
            srv = self.server_sim(login_code=1 if name == "refused" else None)
            srv.set_reply(reply, path=HEART)
            db = self.make_db(name=name + ".db", info_port=srv.info_port, file_port=srv.file_port,
                              overrides={"logpath": self.path("log-%s/" % name)})
            runs[name] = (srv, self.agent(db=db, log_dir="log-" + name).start())
        refused_srv, refused = runs.pop("refused")
        for srv, ag in runs.values():    # 20 s and 40 s after the login
            ag.wait_log(r"heart:\(send to service and application ok\)", count=2, timeout=60)
        time.sleep(1)
        log = {name: ag.log_text() for name, (srv, ag) in runs.items()}
        self.assertEqual(log["ok"].count("heart:(recv heartpage back r:1)"), 2)
        self.assertNotIn("heart time out", log["ok"])
        # "Ok" is no acknowledgement: the next tick reconnects and still beats.
        self.assertIn("heart:(recv heartpage back r:0)", log["Ok"])
        self.assertEqual(log["Ok"].count("socket:(the socket INFO connected)"), 2)
        self.assertNotIn("recv heartpage back", log["silent"])     # 20 s is within the bound, 40 s is not
        for name, (srv, ag) in runs.items():
            self.assertEqual(log[name].count("error:13(heart time out)"), 0 if name == "ok" else 1, name)
            self.assertEqual(len(srv.requests(path=HEART)), 2, name)
            self.assertEqual(log[name].count("heart:(send to service and application ok)"), 2, name)
            self.assert_clean(ag)
        self.assertIn("recv:3(result:-- fail --)", refused.log_text())
        self.assertEqual(refused_srv.requests(path=HEART), [])
        self.assert_clean(refused)


PARALLEL = True

if __name__ == "__main__":
    unittest.main()
