"""Undelivered requests survive a restart: kept in the failure history until
answered, read back once at the next start, and their rows gone once delivered."""

import sqlite3
import unittest

from qeltest import read_failhistory
from runtime import HOST, STATS, RuntimeCase, request_text


class FailHistory(RuntimeCase):

    def test_history_is_resent_once_and_emptied(self):
        srv = self.server_sim()
        db = self.make_db(info_port=srv.info_port, file_port=srv.file_port)
        a = request_text(STATS, 7, '{"kept":"甲"}', srv.info_port)
        b = request_text("/vmu/reminder/add", 12, '{"kept":2}', srv.info_port)
        damaged = "not a request at all"
        con = sqlite3.connect(db)
        con.execute("CREATE TABLE info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)")
        for text in (a, a, damaged, a, b):
            con.execute("insert into info_failhistory values (?, ?)", (1700000000000, text))
        con.commit()
        con.close()

        self.srv = srv
        self.app = self.app_sim(port=8890)
        self.db = db
        ag = self.ag = self.agent(db=db)
        ag.start()
        srv.wait_request(path="/vmu/reminder/add", timeout=15)
        srv.wait_request(path=STATS, timeout=15)
        ag.wait_log(r"error:11\(damaged info\)")
        self.assertEqual(len(srv.requests(path=STATS)), 1)
        self.assertEqual(srv.requests(path=STATS)[0]["body"], '{"kept":"甲"}')
        self.assertEqual(len(srv.requests(path="/vmu/reminder/add")), 1)
        # each row goes once its request is answered; the damaged one is dropped
        self.wait_until(lambda: read_failhistory(db) == [], timeout=5, message="history emptied")
        self.assert_clean()

    def test_given_up_request_survives_kill_and_restart(self):
        srv, app, ag = self.start_all()
        srv.set_reply(None, path=STATS)         # this endpoint never answers
        app.send(7, '{"lost":1}')
        # sent, 30 s without an answer, sent again, 30 s more, then given up
        ag.wait_log(r"error:12\(tims out range to send by 7\)", timeout=75)
        self.assertEqual(len(srv.requests(path=STATS)), 2)
        self.wait_until(lambda: any('{"lost":1}' in t for _, t in read_failhistory(self.db)),
                        timeout=5, message="given-up request stored")
        # the queue moved on
        app.send(12, '{"next":1}')
        srv.wait_request(path="/vmu/reminder/add", timeout=10)
        self.assertTrue(ag.is_running())
        self.assert_clean()
        ag.kill9()

        srv.clear_replies()
        ag2 = self.agent(db=self.db)
        ag2.start()
        got = srv.wait_request(path=STATS, count=3, timeout=15)
        self.assertEqual(got[2]["body"], '{"lost":1}')
        self.assertIn("device_id=%s" % HOST, srv.requests(path="/vmu/device/login")[-1]["body"])
        ag2.wait_log(r"recv:7\(result:-- success --\)")
        self.wait_until(lambda: read_failhistory(self.db) == [], timeout=5, message="history emptied")
        ag2.assert_no_qt_thread_warnings()


if __name__ == "__main__":
    unittest.main()
