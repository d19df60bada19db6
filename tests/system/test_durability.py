"""The failure history is the durable copy of the send queue: an agent killed
at any moment, or stopped by SIGTERM or SIGINT, loses nothing it has
acknowledged to the application, and the next start sends each undelivered
request once. The tests run side by side. The moments of kills and stops are
drawn at random; QEL_SEED replays a run."""

import collections
import json
import os
import random
import re
import signal
import sqlite3
import subprocess
import threading
import time
import unittest

from qeltest import STATS, AgentTestCase, read_failhistory, request_text, seed_failhistory

SEED = int(os.environ.get("QEL_SEED", str(int(time.time()))))
RUN_STATE = "/vmu/device/runstate"


class Durability(AgentTestCase):

    def stats_text(self, body):
        return request_text(STATS, 7, body, self.info_port)

    def stored(self, path=STATS):
        return [t for _, t in read_failhistory(self.db) if path in t.split("\r\n", 1)[0]]

    def stop_with(self, signo):
        """`signo` must end the agent with status 0 within 5 s, saying so."""
        self.ag.proc.send_signal(signo)
        self.assertEqual(self.ag.wait_exit(5), 0)
        for line in ("stop:(signal %d, stopping in order)" % signo,
                     "stop:(every request not yet answered is kept for the next start)"):
            self.assertIn(line, self.ag.log_lines())
        self.ag.assert_quiet()

    def deliver_after_restart(self, bodies, path=STATS):
        """Against an answering server every body arrives once and the history empties."""
        mark = len(self.srv.requests(path=path))
        self.srv.normal()
        ag = self.restart()
        received = lambda: [r["body"] for r in self.srv.requests(path=path)[mark:]]
        self.wait_until(lambda: set(bodies) <= set(received()), 30, "delivery after the restart")
        self.wait_until(lambda: read_failhistory(self.db) == [], 10, "failure history emptied")
        time.sleep(0.5)             # a second copy would have arrived by now
        self.assertEqual({b: n for b, n in collections.Counter(received()).items() if n > 1}, {})
        self.assert_clean(ag)
        return received()

    def test_crash_loop_with_the_server_away_keeps_the_history(self):
        """Killed 3 s after every start, the server refusing or its host gone;
        duplicate rows go once and a damaged row is dropped."""
        self.app = self.app_sim()
        for how in ("down", "blackhole"):
            with self.subTest(server=how):
                self.srv = srv = self.server_sim()
                self.info_port = srv.info_port
                self.db = self.make_db(name=how + ".db", info_port=srv.info_port, file_port=srv.file_port)
                bodies = ['{"crash":"%s","n":%d,"t":"甲"}' % (how, i) for i in range(20)]
                seed_failhistory(self.db, [self.stats_text(b) for b in bodies] + [self.stats_text(bodies[0])] * 2
                                 + ["not a request at all"])
                srv.set_mode(how)
                for _ in range(3):
                    ag = self.restart()
                    time.sleep(3)
                    ag.kill9()
                    ag.assert_quiet()
                    kept = set(self.stored())
                    self.assertEqual([b for b in bodies if self.stats_text(b) not in kept], [], "lost")
                srv.up()
                received = self.deliver_after_restart(bodies)
                self.assertEqual(collections.Counter(received), collections.Counter(bodies))
                self.assertIn("error:11(damaged info)", self.ag.log_text())
                self.ag.stop()

    def test_acknowledgement_waits_for_the_commit_within_its_bound(self):
        """Another process holds the database: "/back/" comes once the messages
        are committed; held longer than 2 s, it comes anyway, said once."""
        srv, app, ag = self.start_all()
        srv.silent()
        kept_bodies = []
        for run, (hold, after_release) in enumerate([(0.8, True), (3.0, False)]):
            if run:
                self.restart_linked()
            bodies = ['{"held":%d,"n":%d}' % (run, i) for i in range(3)]
            lock = sqlite3.connect(self.db, timeout=5, isolation_level=None)
            lock.execute("BEGIN EXCLUSIVE")
            held_at, mark = time.time(), app.mark()
            for body in bodies:
                app.send(7, body)
            time.sleep(hold)
            released_at = time.time()
            lock.execute("COMMIT")
            lock.close()
            acked_at = [n["time"] for n in app.wait_notice("back", since=mark, count=len(bodies), timeout=5)]
            self.ag.kill9()
            self.assertEqual(self.ag.log_text().count("not yet stored"), 0 if after_release else 1)
            if after_release:
                self.assertGreaterEqual(min(acked_at), released_at - 0.05, "acknowledged before the commit")
                self.assertEqual([b for b in bodies if self.stats_text(b) not in set(self.stored())], [], "lost")
                kept_bodies += bodies
            else:
                self.assertLess(max(acked_at) - held_at, hold - 0.5, "held up beyond the bound")
            self.ag.assert_quiet()
        self.deliver_after_restart(kept_bodies)

    def test_a_database_that_cannot_take_a_write_is_reported_not_waited_out(self):
        """Full, locked by another process, or read-only from the start: the agent is ready at
        once, says the trouble once in the log and in the status line, acknowledges
        within the 2 s bound, and stores everything within 5 s of the cure."""
        self.srv, self.app = self.server_sim(), self.app_sim()
        self.srv.silent()       # nothing is answered: everything stays queued
        for n, cause in enumerate(["disk full", "locked by another process", "read-only"]):
            with self.subTest(cause=cause):
                self.info_port, where = self.srv.info_port, self.path(str(n))
                os.makedirs(where)
                if cause != "locked by another process":   # above the free-space floor once cured
                    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1g", "qel-db", where], check=True)
                    self._mounts.append(where)
                self.db = self.make_db(os.path.join(str(n), "sysconf.db"), info_port=self.srv.info_port,
                                       file_port=self.srv.file_port)
                if cause == "disk full":
                    fd = os.open(os.path.join(where, "filler"), os.O_WRONLY | os.O_CREAT)
                    try:
                        os.posix_fallocate(fd, 0, os.statvfs(where).f_bavail * 4096 - 65536)
                        while os.write(fd, bytes(4096)):
                            pass
                    except OSError:
                        os.close(fd)
                    cure = lambda: os.remove(os.path.join(where, "filler"))
                elif cause == "read-only":     # as after an error; opened so, the database is opened afresh
                    subprocess.run(["mount", "-o", "remount,ro", where], check=True)
                    cure = lambda: subprocess.run(["mount", "-o", "remount,rw", where], check=True)
                else:
                    lock = sqlite3.connect(self.db, isolation_level=None)
                    lock.execute("BEGIN IMMEDIATE")
                    cure = lock.close
                minutes = {time.strftime("%H:%M")}
                for earlier in self._agents:    # one that failed a row still holds the application link
                    earlier.stop()
                ag = self.agent(db=self.db, notify=True).start()
                ready = self.wait_until(lambda: [t for t, m in ag.notices if "READY=1" in m], 5, "READY=1")[0]
                self.assertLess(ready - ag.started_at, 2.0)
                minutes.add(time.strftime("%H:%M"))
                bodies = ['{"trouble":"%s","n":%d}' % (cause, i) for i in range(3)]
                self.app.wait_connected(10, count=n + 1)
                mark = self.app.mark()
                for body in bodies:
                    self.app.send(7, body)
                self.app.wait_notice("back", since=mark, count=3, timeout=4)
                status = lambda: [m for _, m in ag.notices if m.startswith("STATUS=")][-1:]
                self.wait_until(lambda: any("database: cannot store since %s (%s)" % (t, cause) in status()[0]
                                            for t in minutes), 3, "the trouble in the status line")
                time.sleep(1)
                self.assertEqual(ag.log_text().count("savefail:(database: cannot store since"), 1)
                cure()
                cured = time.monotonic()
                self.wait_until(lambda: set(map(self.stats_text, bodies)) <= set(self.stored()), 5, "stored")
                self.assertLess(time.monotonic() - cured, 5)
                self.wait_until(lambda: "database:" not in status()[0], 3, "the status line cleared")
                ag.stop()
                ag.assert_quiet()

    def test_a_backlog_costs_no_memory_and_the_disk_only_its_budget(self):
        """200 000 requests kept from an outage cost the agent no memory beyond an
        idle one's; past a 1 MiB budget the oldest go, counted, said once, while
        every message is still acknowledged at once."""
        self.srv, self.app = self.server_sim(), self.app_sim()
        self.srv.silent()
        self.info_port = self.srv.info_port
        anon = []
        for n, rows in enumerate([0, 200000]):
            self.db = self.make_db("mem%d.db" % n, info_port=self.info_port, file_port=self.srv.file_port)
            for first in range(0, rows, 20000):
                seed_failhistory(self.db, [self.stats_text('{"backlog":%d}' % i) for i in range(first, first + 20000)])
            ag = self.agent(db=self.db, notify=True).start()
            self.wait_until(lambda: any("READY=1" in m for _, m in ag.notices), 5, "READY=1")
            time.sleep(2)
            with open("/proc/%d/status" % ag.proc.pid) as f, open("/proc/%d/maps" % ag.proc.pid) as maps:
                anon.append(int(re.search(r"RssAnon:\s+(\d+)", f.read()).group(1)))
                sanitized = "libasan" in maps.read()     # its quarantine keeps what was freed
            self.assertIn("queued %d" % (rows + 1), [m for _, m in ag.notices if m.startswith("STATUS=")][-1])
            ag.stop()
        if not sanitized:
            self.assertLess(anon[1] - anon[0], 8 * 1024, "KiB of private memory beyond an idle agent's")
        self.db = self.make_db(info_port=self.info_port, file_port=self.srv.file_port,
                               overrides={"queue_limit_mb": "1"})
        ag = self.agent(db=self.db, notify=True).start()
        self.app.wait_connected(10, count=3)
        bodies = ['{"budget":%d,"pad":"%s"}' % (i, "x" * 1000) for i in range(1200)]
        for body in bodies:     # never the 2 s bound of a store that is held up (speed is the benchmark's)
            self.assertLess(self.send_and_ack(7, body), 1.5)
        self.assertLess(os.path.getsize(self.db), 1.1 * 1024 * 1024)
        kept = [b for b in bodies if self.stats_text(b) in set(self.stored())]
        self.assertEqual(kept, bodies[-len(kept):], "the newest are kept")
        self.assertGreater(len(kept), 500)
        dropped = len(bodies) - len(kept)
        self.wait_until(lambda: any("dropped %s oldest since start" % format(dropped, ",").replace(",", " ") in m
                                    for _, m in ag.notices), 3, "the count in the status line")
        self.assertEqual(len(re.findall(r"E\d{8} .*savefail:\(the queue is over its budget", ag.log_text())), 1)
        ag.stop()
        ag.assert_quiet()

    def test_orderly_stop_with_a_silent_server_and_while_connecting(self):
        srv, app, ag = self.start_all()
        srv.silent()
        bodies = ['{"orderly":%d,"text":"停机前 %d"}' % (i, i) for i in range(50)]
        mark = app.mark()
        for body in bodies:
            app.send(7, body)
        app.wait_notice("back", since=mark, count=len(bodies), timeout=30)
        srv.wait_request(path=STATS)     # the head is on its way, unanswered
        self.stop_with(signal.SIGTERM)
        self.assertEqual(self.stored(), [self.stats_text(b) for b in bodies])     # in order, each once
        self.assertEqual(self.deliver_after_restart(bodies), bodies)
        # The server's host vanishes: the stop does not wait for the hanging connect.
        srv.blackhole()
        srv.close_connections()
        self.ag.wait_log(r"socket:\(the socket INFO disconnected\)")
        bodies = ['{"vanished":%d}' % i for i in range(5)]
        mark = app.mark()
        for body in bodies:
            app.send(7, body)
        app.wait_notice("back", since=mark, count=len(bodies))
        self.stop_with(signal.SIGINT)
        self.assertEqual(self.stored(), [self.stats_text(b) for b in bodies])
        srv.up()
        self.deliver_after_restart(bodies)

    def test_messages_acknowledged_while_stopping_are_delivered_after_restart(self):
        """Each message sent as soon as the previous was acknowledged, through three stops."""
        srv, app, ag = self.start_all()
        srv.silent()
        app.gap_ms = 5
        rng = random.Random(SEED)
        sent_all, acked_all = [], []
        for run in range(3):
            note = "run %d, seed %d" % (run, SEED)
            if run:
                self.restart_linked()
            acks_before, sent, ended = len(app.notices("back")), [], threading.Event()

            def burst():
                try:
                    for i in range(100000):
                        body, mark = '{"run":%d,"burst":%d}' % (run, i), app.mark()
                        app.send(7, body, timeout=0.5)
                        sent.append(body)
                        app.wait_notice("back", since=mark, timeout=1.0)
                except (AssertionError, OSError):
                    pass            # the link is gone: the agent is stopping
                finally:
                    ended.set()
            threading.Thread(target=burst, daemon=True).start()
            at = 20 + rng.randrange(30)
            self.wait_until(lambda: len(sent) >= at, 10, "%d messages sent (%s)" % (at, note))
            time.sleep(rng.uniform(0.0, 0.01))
            self.stop_with(signal.SIGTERM)
            self.assertTrue(ended.wait(5), "the application kept sending after the agent exited")
            time.sleep(0.4)         # the last notices are read
            # One "/back/" per message, in order: the first n sent are the acknowledged ones.
            acked = sent[:len(app.notices("back")) - acks_before]
            self.assertGreaterEqual(len(acked), at - 1, note)
            acked_all += acked
            sent_all += sent
            stored = self.stored()
            self.assertEqual(len(stored), len(set(stored)), "a request stored twice (%s)" % note)
            self.assertEqual([b for b in acked_all if self.stats_text(b) not in set(stored)], [], note)
        self.assertEqual(set(self.deliver_after_restart(acked_all)) - set(sent_all), set())

    def test_run_state_reports_told_to_the_application_survive_the_stop(self):
        """Reports acknowledged just before the stop, and one whose measurement
        (top) the stop cuts short, are kept and sent after the restart."""
        srv, app, ag = self.start_all()
        srv.silent()
        sent = []
        for run, (what, count) in enumerate([("acknowledged", 3), ("being measured", 1)]):
            if run:
                self.restart_linked()
            bodies = ['{"state":"%s","n":%d}' % (what, i) for i in range(count)]
            mark = app.mark()
            for body in bodies:
                app.send(19, body)
            if run == 0:
                app.wait_notice("back", since=mark, count=count)
            else:
                self.ag.wait_log(r"Inline:19\(get info from application\)")
            self.stop_with(signal.SIGTERM)
            states = [json.loads(t.split("\r\n\r\n", 1)[1]) for t in self.stored(RUN_STATE)]
            self.assertEqual(sorted(s["n"] for s in states if s["state"] == what), list(range(count)))
            sent += bodies
        key = lambda text: (json.loads(text)["state"], json.loads(text)["n"])
        srv.normal()
        ag = self.restart()
        self.wait_until(lambda: {key(r["body"]) for r in srv.requests(path=RUN_STATE)} == set(map(key, sent)), 20,
                        "reports delivered")
        self.assert_clean(ag)


PARALLEL = True

if __name__ == "__main__":
    unittest.main()
