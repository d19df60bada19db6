"""Faults on the server side: an unreachable server, garbage and oversize
answers. The application is always acknowledged at once and nothing is lost."""

import time
import unittest

from runtime import RuntimeCase

STATS = "/vmu/device/monitor/statistics/upload"


class Faults(RuntimeCase):

    def test_unreachable_server_keeps_acknowledging_and_loses_nothing(self):
        srv, app, ag = self.start_all()
        srv.blackhole()
        srv.close_connections()
        ag.wait_log(r"socket:\(the socket INFO disconnected\)")
        bodies, delays = [], []
        for i in range(30):                      # 5 messages a second for 6 s
            body = '{"seq":%d}' % i
            bodies.append(body)
            delays.append(self.send_and_ack(7, body))
            time.sleep(max(0.0, 0.2 - delays[-1]))
        self.assertLess(max(delays), 0.1, delays)

        srv.normal()
        def all_there():
            seen = [r["body"] for r in srv.requests(path=STATS)]
            return all(b in seen for b in bodies)
        self.wait_until(all_there, timeout=60, message="all 30 messages delivered")
        seen = [r["body"] for r in srv.requests(path=STATS)]
        firsts = sorted(set(seen), key=seen.index)
        self.assertEqual(firsts, bodies)          # in the order they were sent
        self.assert_clean()

    def test_server_closing_after_every_answer(self):
        srv, app, ag = self.start_all()
        srv.closing()
        bodies = ['{"close":%d}' % i for i in range(10)]
        for body in bodies:
            app.send(7, body)
        got = srv.wait_request(path=STATS, count=len(bodies), timeout=30)
        self.assertEqual([r["body"] for r in got][:len(bodies)], bodies)
        # each answer closed the connection: the agent reconnected for the next request
        self.assertGreaterEqual(ag.log_text().count("socket:(the socket INFO connected)"), len(bodies))
        self.assert_clean()

    def test_garbage_and_oversize_answers(self):
        srv, app, ag = self.start_all()
        srv.oversize(5000)
        app.send(7, '{"big":1}')
        # read whole by its Content-Length, however many reads it takes
        ag.wait_log(r"recv:7\(result:-- success --\)", timeout=10)
        self.assertEqual(ag.log_text().count("recv:7("), 1)
        srv.garbage()
        app.send(8, '{"g":1}')
        srv.wait_request(path="/vmu/area/param/upload", timeout=10)
        time.sleep(1)
        srv.normal()
        # the garbage answer named nobody: after the bounded wait the request goes again
        ag.wait_log(r"recv:8\(result:-- success --\)", timeout=40)
        self.assertEqual(len(srv.requests(path="/vmu/area/param/upload")), 2)
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
