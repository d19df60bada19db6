"""Coming back after a lost link: the request in flight goes again as soon as
the server is back, the application link is re-established by itself, and a
file server that cannot be reached does not hold up the information queue."""

import time
import unittest

from qeltest import read_failhistory
from runtime import APP_PORT, STATS, RuntimeCase

REMOVE_TEMPLATE = "/videowatch/picture/removeTemplate"
BACK_WITHIN = 6.0      # reconnect back-off is capped at 5 s


class ServerComesBack(RuntimeCase):

    def test_request_in_flight_goes_again_when_the_server_is_back(self):
        srv, app, ag = self.start_all()
        for n, reset in enumerate((False, True)):
            with self.subTest(reset=reset):
                in_flight, queued = '{"in_flight":%d}' % n, '{"while_down":%d}' % n
                srv.silent()
                app.send(7, in_flight)
                srv.wait_request(path=STATS, predicate=lambda r: r["body"] == in_flight, timeout=5)
                srv.down(reset=reset)
                time.sleep(0.5)
                self.assertLess(self.send_and_ack(7, queued), 0.5)
                time.sleep(0.5)
                up = time.time()
                srv.up()
                for body, count in ((in_flight, 2), (queued, 1)):
                    got = srv.wait_request(path=STATS, predicate=lambda r, b=body: r["body"] == b,
                                           count=count, timeout=BACK_WITHIN + 4)
                    self.assertLessEqual(got[-1]["time"] - up, BACK_WITHIN, body)
                self.wait_until(lambda: read_failhistory(self.db) == [], 5, "failure history emptied")
        self.assert_clean()


class ApplicationComesBack(RuntimeCase):

    def test_restarted_application_is_reconnected(self):
        """Logged in or not (a refused login starts no heartbeat)."""
        for code in (1, 0):
            with self.subTest(login_code=code):
                srv = self.server_sim(login_code=code)
                db = self.make_db(name="login%d.db" % code, info_port=srv.info_port, file_port=srv.file_port)
                apps = [self.app_sim(port=APP_PORT)]
                ag = self.agent(db=db).start()
                try:
                    self.restart_application(srv, apps, ag, code)
                finally:     # the next round needs the port and the link to itself
                    ag.stop()
                    for app in apps:
                        app.stop()

    def restart_application(self, srv, apps, ag, code):
        apps[0].wait_connected(10)
        ag.wait_log(r"recv:3\(result:-- %s --\)" % ("success" if code == 0 else "fail"))
        apps[0].stop()
        time.sleep(3)
        app = self.app_sim(port=APP_PORT)
        apps.append(app)
        back = time.monotonic()
        app.wait_connected(10)
        self.assertLessEqual(time.monotonic() - back, 7.0)
        mark = app.mark()
        body = '{"after_restart":%d}' % code
        app.send(7, body)
        app.wait_notice("back", since=mark, timeout=2)
        srv.wait_request(path=STATS, predicate=lambda r: r["body"] == body, timeout=5)
        self.assertTrue(ag.is_running())
        self.assert_quiet(ag)


class FileServerAway(RuntimeCase):

    def test_template_removal_does_not_block_the_queue(self):
        srv, app, ag = self.start_all()
        srv.down(port="file")
        app.send(11, "name=t1.bmp")
        sent = time.time()
        app.send(7, '{"behind":11}')
        got = srv.wait_request(path=STATS, predicate=lambda r: r["body"] == '{"behind":11}', timeout=14)[0]
        self.assertLessEqual(got["time"] - sent, 12.0)
        kept = lambda: [t for _, t in read_failhistory(self.db) if REMOVE_TEMPLATE in t and "name=t1.bmp" in t]
        self.wait_until(kept, 5, "template removal kept in the failure history")
        self.assertEqual(srv.requests(path=REMOVE_TEMPLATE), [])
        self.assert_clean()
        ag.stop()

        srv.up(port="file")
        ag = self.restart()
        req = srv.wait_request(path=REMOVE_TEMPLATE, timeout=15)[0]
        self.assertEqual((req["port_name"], req["body"]), ("file", "name=t1.bmp"))
        ag.wait_log(r"recv:11\(result:-- success --\)")
        self.wait_until(lambda: not kept(), 5, "delivered template removal removed from the history")
        time.sleep(1)
        self.assertEqual(len(srv.requests(path=REMOVE_TEMPLATE)), 1)
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
