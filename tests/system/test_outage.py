"""Losing the server: the "/reline/" notice, the failure history, reconnecting
without storms, and delivery once the server is back."""

import time
import unittest

from qeltest import read_failhistory
from runtime import RuntimeCase

RELINE_NOTICE = (b"POST /reline/ HTTP/1.1\r\nContent-type: application/json\\r\n"
                 b"Connection: keep-alive\r\nSessionId: 4\r\nUser-Agent: INFO\r\nContent-Length: 0\r\n\r\n")
STATS = "/vmu/device/monitor/statistics/upload"


class Outage(RuntimeCase):

    def test_outage_reline_history_and_recovery(self):
        srv, app, ag = self.start_all()
        srv.down()
        ag.wait_log(r"socket:\(the socket INFO disconnected\)")
        bodies = ['{"during":%d}' % i for i in range(3)]
        for body in bodies:
            app.send(7, body)
        reline = app.wait_notice("reline", timeout=10)[0]
        self.assertEqual(reline["raw_bytes"], RELINE_NOTICE)
        rows = read_failhistory(self.db)
        self.assertTrue(rows, "queued requests kept in the failure history")
        self.assertTrue(all(STATS in text and text.startswith("POST ") for _, text in rows), rows)
        self.assertTrue(all(ms > 1.6e12 for ms, _ in rows))

        srv.up()
        got = srv.wait_request(path=STATS, count=3, timeout=40)
        self.assertEqual([r["body"] for r in got], bodies)
        self.assertGreaterEqual(ag.log_text().count("socket:(the socket INFO connected)"), 2)
        self.assert_clean()

    def test_server_down_at_start_then_up_logs_in_by_itself(self):
        srv, app, ag = self.start_all(server_kw={"mode": "down"}, wait_login=False)
        ag.wait_log(r"send:3\(ERR_NetNoConnect send without connected\)", timeout=10)
        time.sleep(8)
        # backing off: a handful of attempts, not one per event-loop turn
        self.assertLessEqual(ag.log_text().count("ERR_NetNoConnect"), 6)
        srv.up()
        req = srv.wait_request(path="/vmu/device/login", timeout=40)[0]
        self.assertEqual(req["session"], 3)
        ag.wait_log(r"recv:3\(result:-- success --\)")
        self.assert_clean()

    def test_flapping_server_loses_nothing(self):
        srv, app, ag = self.start_all()
        sent = []
        for flap in range(3):
            for i in range(3):
                body = '{"flap":%d,"i":%d}' % (flap, i)
                app.send(7, body)
                sent.append(body)
            time.sleep(0.5)
            srv.down()
            time.sleep(1.0)
            srv.up()
            time.sleep(0.5)
        # every message reaches the server in this run: a request cut off in
        # flight goes again as soon as the link is back
        def undelivered():
            seen = {r["body"] for r in srv.requests(path=STATS)}
            return [b for b in sent if b not in seen]
        try:
            self.wait_until(lambda: not undelivered(), timeout=30, message="every message delivered")
        except AssertionError:
            self.fail("never delivered: %s" % undelivered())
        self.wait_until(lambda: read_failhistory(self.db) == [], 5, "failure history emptied")
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
