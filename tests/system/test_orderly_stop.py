"""SIGTERM and SIGINT stop the agent in order: it exits 0 within seconds, and
every request it has acknowledged to the application and the server has not
answered is in the failure history, sent exactly once by the next start."""

import collections
import json
import os
import random
import signal
import threading
import time
import unittest

from qeltest import read_failhistory
from runtime import STATS, RuntimeCase, request_text

STOP_BOUND_S = 5.0
# The moments of the stops are drawn at random; QEL_SEED replays a run.
SEED = int(os.environ.get("QEL_SEED", str(int(time.time()))))


class OrderlyStop(RuntimeCase):

    def stop_with(self, signo):
        """Send `signo`; the agent must exit 0 within the bound. Returns the seconds it took."""
        ag = self.ag
        t0 = time.monotonic()
        ag.proc.send_signal(signo)
        status = ag.wait_exit(STOP_BOUND_S)
        took = time.monotonic() - t0
        self.assertEqual(status, 0, ag.diagnostics())
        lines = ag.log_lines()
        self.assertIn("stop:(signal %d, stopping in order)" % signo, lines)
        self.assertIn("stop:(every request not yet answered is kept for the next start)", lines)
        self.assert_quiet(ag)
        return took

    def stored_texts(self):
        return [text for _, text in read_failhistory(self.db)]

    def stats_text(self, body):
        return request_text(STATS, 7, body, self.info_port)

    def deliver_after_restart(self, bodies):
        """Restart against an answering server; every body in `bodies` must
        arrive, none twice, and the failure history must empty. Returns the
        statistics bodies received after the restart, in order."""
        mark = len(self.srv.requests(path=STATS))
        self.srv.normal()
        ag = self.restart()

        def received():
            return [r["body"] for r in self.srv.requests(path=STATS)[mark:]]
        missing = lambda: [b for b in bodies if b not in set(received())]    # noqa: E731
        self.wait_until(lambda: not missing(), 30,
                        "delivery after the restart (still missing %d)" % len(missing()))
        self.wait_until(lambda: read_failhistory(self.db) == [], 10, "failure history emptied")
        time.sleep(0.5)             # a second copy would have arrived by now
        twice = {b: n for b, n in collections.Counter(received()).items() if n > 1}
        self.assertEqual(twice, {}, "delivered more than once after the restart")
        self.assert_clean(ag)
        return received()

    def test_stop_with_the_server_silent_keeps_all_queued_requests(self):
        srv, app, ag = self.start_all()
        srv.silent()
        app.gap_ms = 20
        bodies = ['{"orderly":%d,"text":"停机前 %d"}' % (i, i) for i in range(50)]
        mark = app.mark()
        for body in bodies:
            app.send(7, body)
        app.wait_notice("back", since=mark, count=len(bodies), timeout=10)
        srv.wait_request(path=STATS, timeout=5)     # the head is on its way, unanswered

        took = self.stop_with(signal.SIGTERM)
        # in queue order, each once: the in-flight head and the last batch included
        self.assertEqual(self.stored_texts(), [self.stats_text(b) for b in bodies])

        received = self.deliver_after_restart(bodies)
        self.assertEqual(received, bodies)
        print("orderly stop with %d requests queued took %.3f s" % (len(bodies), took))

    def test_messages_acknowledged_while_stopping_are_delivered_after_restart(self):
        """The application sends one message after another, each as soon as the
        previous one was acknowledged, before and during the stop; three runs
        are stopped so, the later ones with the rows of the earlier ones read
        back, before a run against an answering server."""
        srv, app, ag = self.start_all()
        srv.silent()
        app.gap_ms = 5
        rng = random.Random(SEED)
        sent_all, acked_all = [], []
        for run in range(3):
            note = "run %d, seed %d" % (run, SEED)
            if run:
                connections = app.connection_count()
                self.restart()
                app.wait_connected(10, count=connections + 1)
            acks_before = len(app.notices("back"))
            sent = []
            ended = threading.Event()

            def burst():
                try:
                    for i in range(100000):
                        body = '{"run":%d,"burst":%d}' % (run, i)
                        mark = app.mark()
                        app.send(7, body, timeout=0.5)
                        sent.append(body)
                        app.wait_notice("back", since=mark, timeout=1.0)
                except (AssertionError, OSError):
                    pass            # the link is gone: the agent is stopping
                finally:
                    ended.set()

            sender = threading.Thread(target=burst, daemon=True)
            sender.start()
            at = 20 + rng.randrange(30)
            self.wait_until(lambda: len(sent) >= at, 10, "%d messages sent (%s)" % (at, note))
            time.sleep(rng.uniform(0.0, 0.01))
            self.assertFalse(ended.is_set(), "the application stopped sending before the stop (%s)" % note)
            self.stop_with(signal.SIGTERM)
            self.assertTrue(ended.wait(5), "the application kept sending after the agent exited")
            time.sleep(0.4)         # the last notices are read and parsed

            # One "/back/" per message, in order, and the next message only
            # after the previous one's: the first n messages are the acknowledged ones.
            acks = len(app.notices("back")) - acks_before
            self.assertLessEqual(acks, len(sent), note)
            acked = sent[:acks]
            self.assertGreaterEqual(len(acked), at - 1, note)
            acked_all += acked
            sent_all += sent
            stored = [t for t in self.stored_texts() if STATS in t.split("\r\n", 1)[0]]
            self.assertEqual(len(stored), len(set(stored)), "a request stored twice (%s)" % note)
            lost = [b for b in acked_all if self.stats_text(b) not in set(stored)]
            self.assertEqual(lost, [], "acknowledged, then not kept by the stop (%s)" % note)
            print("%s: %d sent during the burst, %d acknowledged, %d kept"
                  % (note, len(sent), len(acked), len(stored)))

        received = self.deliver_after_restart(acked_all)
        self.assertEqual(set(received) - set(sent_all), set(), "delivered but never sent")

    def test_run_state_reports_told_to_the_application_survive_the_stop(self):
        """A run-state report is queued only once the machine is measured
        (top): reports acknowledged just before the stop, and one whose
        measurement the stop cuts short, are kept and sent after the restart."""
        srv, app, ag = self.start_all()
        srv.silent()
        run_state = "/vmu/device/runstate"
        rows = [("acknowledged", 3, True), ("being measured", 1, False)]
        sent = []
        for run, (what, count, wait_ack) in enumerate(rows):
            with self.subTest(what=what):
                if run:
                    connections = app.connection_count()
                    ag = self.restart()
                    app.wait_connected(10, count=connections + 1)
                bodies = ['{"state":"%s","n":%d}' % (what, i) for i in range(count)]
                mark = app.mark()
                for body in bodies:
                    app.send(19, body)
                if wait_ack:
                    app.wait_notice("back", since=mark, count=count, timeout=10)
                else:
                    ag.wait_log(r"Inline:19\(get info from application\)", count=1)
                self.stop_with(signal.SIGTERM)
                stored = [t for t in self.stored_texts() if run_state in t.split("\r\n", 1)[0]]
                states = [json.loads(t.split("\r\n\r\n", 1)[1]) for t in stored]
                self.assertEqual(sorted(s["n"] for s in states if s["state"] == what), list(range(count)))
                sent += bodies
        srv.normal()
        ag = self.restart()
        def got():
            return {(json.loads(r["body"])["state"], json.loads(r["body"])["n"]) for r in srv.requests(path=run_state)}
        want = {(json.loads(b)["state"], json.loads(b)["n"]) for b in sent}
        self.wait_until(lambda: got() == want, 20, "reports delivered")
        self.assert_clean(ag)

    def test_sigint_while_connecting_to_a_vanished_server(self):
        """The server's host vanishes (connects hang up to their 5 s bound) and
        the link drops: the stop does not wait for the connect attempt."""
        srv, app, ag = self.start_all()
        srv.blackhole()
        srv.close_connections()
        ag.wait_log(r"socket:\(the socket INFO disconnected\)")
        bodies = ['{"vanished":%d}' % i for i in range(5)]
        mark = app.mark()
        for body in bodies:
            app.send(7, body)
        app.wait_notice("back", since=mark, count=len(bodies), timeout=10)

        took = self.stop_with(signal.SIGINT)
        stored = self.stored_texts()
        self.assertEqual([t for t in stored if t in map(self.stats_text, bodies)],
                         [self.stats_text(b) for b in bodies])
        print("orderly stop during a hanging connect took %.3f s" % took)

        srv.up()
        self.deliver_after_restart(bodies)


if __name__ == "__main__":
    unittest.main()
