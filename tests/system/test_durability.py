"""The failure history is the durable copy of the send queue: an agent killed
at any moment loses nothing it has acknowledged, and the next start sends
each undelivered request once."""

import collections
import os
import random
import sqlite3
import threading
import time
import unittest

from qeltest import read_failhistory
from runtime import STATS, RuntimeCase, request_text, seed_failhistory

# The moment of the kill is drawn at random; QEL_SEED replays a run.
SEED = int(os.environ.get("QEL_SEED", str(int(time.time()))))


class CrashLoop(RuntimeCase):

    def run_until(self, agent, seconds):
        time.sleep(max(0.0, seconds - (time.monotonic() - agent.started_at)))

    def test_crash_loop_with_the_server_away_keeps_the_history(self):
        """Killed a few seconds after every start, before any periodic save,
        with the server refusing or with its host gone (connects hang)."""
        self.app = self.app_sim(port=8890)
        for how in ("down", "blackhole"):
            with self.subTest(server=how):
                srv = self.server_sim()
                self.db = self.make_db(name="%s.db" % how, info_port=srv.info_port, file_port=srv.file_port)
                bodies = ['{"crash":"%s","n":%d}' % (how, i) for i in range(20)]
                texts = {request_text(STATS, 7, b, srv.info_port) for b in bodies}
                seed_failhistory(self.db, sorted(texts))
                srv.set_mode(how)
                for _ in range(3):
                    ag = self.restart()
                    self.run_until(ag, 3.0)
                    ag.kill9()
                    self.assert_quiet(ag)
                    kept = {text for _, text in read_failhistory(self.db)}
                    lost = [b for b in bodies if request_text(STATS, 7, b, srv.info_port) not in kept]
                    self.assertEqual(lost, [], "lost from the failure history")

                srv.up()
                ag = self.restart()
                srv.wait_request(path=STATS, count=len(bodies), timeout=20)
                ag.wait_log(r"recv:7\(result:-- success --\)", count=len(bodies), timeout=10)
                self.wait_until(lambda: read_failhistory(self.db) == [], 10, "failure history emptied")
                time.sleep(0.5)
                delivered = collections.Counter(r["body"] for r in srv.requests(path=STATS))
                self.assertEqual(delivered, collections.Counter(bodies))    # each exactly once
                self.assert_clean(ag)
                ag.stop()


class KillUnderTraffic(RuntimeCase):

    def test_kill_under_steady_traffic_loses_nothing_acknowledged(self):
        """5 messages a second, answers after 200 ms (the queue grows by about
        one a second, so several requests older than 1 s wait at the kill),
        kill -9 at a random moment, restart."""
        srv, app, ag = self.start_all()
        srv.slow(200)
        rng = random.Random(SEED)
        kill_at = rng.uniform(9.0, 14.0)
        acked = {}                    # body -> monotonic time of its "/back/"
        stop = threading.Event()

        def traffic():
            for i in range(1000):
                if stop.is_set():
                    return
                body = '{"steady":%d,"seed":%d}' % (i, SEED)
                started = time.monotonic()
                mark = app.mark()
                try:
                    app.send(7, body, timeout=1)
                    app.wait_notice("back", since=mark, timeout=1)
                except (AssertionError, OSError):
                    return            # the agent is gone
                acked[body] = time.monotonic()
                time.sleep(max(0.0, 0.2 - (time.monotonic() - started)))

        sender = threading.Thread(target=traffic, daemon=True)
        t0 = time.monotonic()
        sender.start()
        time.sleep(kill_at)
        self.assertTrue(ag.is_running())
        killed = time.monotonic()
        ag.kill9()
        stop.set()
        sender.join(5)
        self.assert_quiet(ag)
        protected = [b for b, t in acked.items() if t < killed - 1.0]
        note = "seed %d, kill %.1f s into the traffic, %d acknowledged" % (SEED, killed - t0, len(acked))
        self.assertGreater(len(protected), 35, note)

        ag = self.restart()
        def undelivered():
            seen = {r["body"] for r in srv.requests(path=STATS)}
            return [b for b in protected if b not in seen]
        deadline = time.monotonic() + 30
        while undelivered() and time.monotonic() < deadline:
            time.sleep(0.2)
        self.assertEqual(undelivered(), [], "acknowledged more than 1 s before the kill (%s)" % note)
        self.wait_until(lambda: read_failhistory(self.db) == [], 15, "failure history emptied (%s)" % note)
        delivered = collections.Counter(r["body"] for r in srv.requests(path=STATS))
        twice = {b: n for b, n in delivered.items() if n > 1}
        # only the request in flight at the kill may go twice
        self.assertLessEqual(len(twice), 1, (twice, note))
        self.assertTrue(all(n == 2 for n in twice.values()), (twice, note))
        self.assert_clean(ag)


class AcknowledgedMeansStored(RuntimeCase):

    def test_acknowledgement_waits_for_the_commit_within_its_bound(self):
        """Another process holds the database while the server is silent:
        "/back/" comes once the messages are committed, and a kill -9 right
        after it loses nothing; a hold longer than 2 s gets the
        acknowledgement anyway, said once in the log."""
        srv, app, ag = self.start_all()
        srv.silent()
        kept_bodies = []
        rows = [(0.8, True), (3.0, False)]     # (hold in s, acknowledged only after the release)
        for run, (hold, after_release) in enumerate(rows):
            with self.subTest(hold=hold):
                if run:
                    links = app.connection_count()
                    ag = self.restart()
                    app.wait_connected(10, count=links + 1)
                bodies = ['{"held":%d,"n":%d}' % (run, i) for i in range(3)]
                lock = sqlite3.connect(self.db, timeout=5, isolation_level=None)
                lock.execute("BEGIN EXCLUSIVE")
                held_at = time.time()
                mark = app.mark()
                for body in bodies:
                    app.send(7, body)
                time.sleep(hold)
                released_at = time.time()
                lock.execute("COMMIT")
                lock.close()
                notices = app.wait_notice("back", since=mark, count=len(bodies), timeout=5)
                ag.kill9()
                acked_at = [n["time"] for n in notices]
                unstored = ag.log_text().count("not yet stored")
                if after_release:
                    self.assertEqual(unstored, 0)
                    self.assertGreaterEqual(min(acked_at), released_at - 0.05, "acknowledged before the commit")
                else:
                    self.assertEqual(unstored, 1, "said once per episode")
                    self.assertLess(max(acked_at) - held_at, hold - 0.5, "held up beyond the bound")
                self.assert_quiet(ag)
                if after_release:
                    kept = {t for _, t in read_failhistory(self.db)}
                    lost = [b for b in bodies if request_text(STATS, 7, b, self.info_port) not in kept]
                    self.assertEqual(lost, [], "acknowledged, then lost to kill -9")
                    kept_bodies += bodies
        srv.normal()
        ag = self.restart()
        self.wait_until(lambda: set(kept_bodies) <= {r["body"] for r in srv.requests(path=STATS)}, 20,
                        "the kept messages delivered")
        self.wait_until(lambda: read_failhistory(self.db) == [], 20, "failure history emptied")
        self.assert_clean(ag)


if __name__ == "__main__":
    unittest.main()
