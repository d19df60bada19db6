#!/usr/bin/env python3
"""Durability benchmarks of the running agent against the simulators, in the
private namespaces of tests/system/nsrun.py (loopback only, tmpfs over the
default tree):

  killnine  the application sends 5 messages a second (unique bodies), the
            server answers each after 200 ms, and the agent is killed with
            SIGKILL 10 times at random moments (3-10 s apart, seeded) and
            started again each time. At the end (server up, agent running
            until no request has arrived for a while) it reports what was
            acknowledged, delivered, lost and delivered twice, and the
            acknowledgement latency. With --db-locked S another process holds
            the database locked for 0-S s (seeded) right up to each kill.
  outage    the server is down while the application sends 20 messages a
            second until 100 000 requests are queued (--seed-history K puts K
            rows into the failure history first, to get there quickly): the
            acknowledgement latency, the agent's memory per queued request and
            the rows in the failure history; then the server comes back and
            the delivery rate over a window gives the time to deliver them all.

  scale     for each backlog size (--sizes, default 100 10000 100000 1000000
            3000000) a failure history of that many requests is written and
            the agent started on it with the server away (silent): its time
            to READY=1 and to the first request, its start-up CPU, memory
            (RssAnon, resident) against an idle agent's, the database size,
            and the acknowledgement latency at 5 messages a second; then the
            server answers and, for --drain-seconds, the delivery rate and the
            CPU per delivered request, the acknowledgements still measured.

    python3 bench/bench_durability.py AGENT_BINARY killnine [--kills 10] [--seed S] ...
    python3 bench/bench_durability.py AGENT_BINARY outage [--queued 100000] [--seed-history K] ...
    python3 bench/bench_durability.py AGENT_BINARY scale [--sizes 100 1000000] [--drain-seconds 60] ...

Both are bounded in time (see --help of each). Prints its command line and a
table of results."""

import argparse
import collections
import os
import random
import sqlite3
import sys
import threading
import time
from contextlib import closing

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SYSTEM = os.path.join(ROOT, "tests", "system")
sys.path.insert(0, SYSTEM)
sys.path.insert(0, os.path.join(ROOT, "tools"))

from benchlib import AgentRuns, in_namespaces, percentile, proc_kib, proc_stat, say, table  # noqa: E402

STATS = "/vmu/device/monitor/statistics/upload"
APP_PORT = 8890
ACK_WAIT = 5.0          # longest wait for one acknowledgement in the outage run, s


def history_rows(db):
    """(rows, distinct texts) in info_failhistory."""
    try:
        with closing(sqlite3.connect("file:%s?mode=ro" % db, uri=True, timeout=10)) as con:
            return con.execute("select count(*), count(distinct 内容) from info_failhistory").fetchone()
    except sqlite3.Error:
        return (0, 0)


class Bench(AgentRuns):
    """The simulators, a work directory and one agent run at a time."""

    def __init__(self, binary, keep):
        from qeltest import AppSim, ServerSim
        super().__init__(binary, keep, "durability")
        self.srv = ServerSim(0, 0, record=None).start()
        self.on_close(self.srv.stop)
        self.app = AppSim(APP_PORT, gap_ms=0).start()
        self.on_close(self.app.stop)
        self.db = self.make_db(self.srv.info_port, self.srv.file_port)


class Sender(threading.Thread):
    """Sends unique messages at `rate` a second while the agent is connected
    and notes when each one's "/back/" came (None: never)."""

    def __init__(self, app, rate, tag):
        super().__init__(daemon=True)
        self.app, self.period, self.tag = app, 1.0 / rate, tag
        self.stop = threading.Event()
        self.acked = collections.OrderedDict()     # body -> monotonic time of its ack
        self.latency = []                           # ms from send to "/back/"
        self.sent = 0

    def run(self):
        n = 0
        next_at = time.monotonic()
        while not self.stop.is_set():
            delay = next_at - time.monotonic()
            if delay > 0:
                time.sleep(delay)
            next_at = max(next_at + self.period, time.monotonic() - self.period)
            if not self.app.connected():
                continue
            body = '{"%s":%d}' % (self.tag, n)
            n += 1
            mark = self.app.mark()
            try:
                self.app.send(7, body, timeout=0.5)
                sent_at = time.time()
                self.sent += 1
                back = self.app.wait_notice("back", since=mark, timeout=3.0)[0]
            except (AssertionError, OSError):
                continue                         # the agent went away meanwhile
            self.acked[body] = time.monotonic()
            self.latency.append((back["time"] - sent_at) * 1000.0)


def wait_quiet(srv, db, quiet, limit):
    """Until no request has arrived for `quiet` seconds and the failure
    history is empty, or `limit` seconds; returns the seconds waited."""
    start = time.monotonic()
    count, since = -1, time.monotonic()
    while time.monotonic() - start < limit:
        n = len(srv.requests(path=STATS))
        if n != count:
            count, since = n, time.monotonic()
        elif time.monotonic() - since >= quiet and history_rows(db)[0] == 0:
            break
        time.sleep(0.2)
    return time.monotonic() - start


def bench_killnine(b, a):
    rng = random.Random(a.seed)
    b.srv.slow(a.answer_ms)
    sender = Sender(b.app, a.rate, "kn")
    kills, rows, locks = [], [], []
    b.start_agent()
    sender.start()
    for k in range(a.kills):
        life = rng.uniform(a.min_gap, a.max_gap)
        hold = rng.uniform(0.0, a.db_locked) if a.db_locked > 0 else 0.0
        time.sleep(max(0.0, life - hold - (time.time() - b.started)))
        lock = None
        if hold > 0:
            # another process (an operator's sqlite3, a backup) holds the database
            lock = sqlite3.connect(b.db, timeout=10, isolation_level=None)
            lock.execute("BEGIN EXCLUSIVE")
            locks.append((time.monotonic(), hold))
            time.sleep(hold)
        killed = time.monotonic()
        b.agent.kill9()
        if lock is not None:
            lock.execute("COMMIT")
            lock.close()
        kills.append(killed)
        hist = history_rows(b.db)
        rows.append((k + 1, "%.1f" % life, len(sender.acked), len({r["body"] for r in b.srv.requests(path=STATS)}),
                     "%d/%d" % hist))
        b.start_agent()
    time.sleep(a.final_seconds)          # the last run also takes traffic
    sender.stop.set()
    sender.join(5)
    waited = wait_quiet(b.srv, b.db, a.quiet, a.drain_limit)

    say("kills (rows/distinct: the failure history just after the kill):")
    table(["kill", "lived s", "acked so far", "delivered so far", "rows/distinct"], rows)
    delivered = collections.Counter(r["body"] for r in b.srv.requests(path=STATS))
    lost, unstored = [], []
    for body, t in sender.acked.items():
        if delivered[body]:
            continue
        # Acknowledged at the 2 s bound while the database was held: the
        # agent says so in its log ("not yet stored"); not a loss of a stored request.
        held = any(start + 2.0 - 0.1 <= t <= start + hold + 0.1 for start, hold in locks)
        (unstored if held else lost).append(body)
    dups = {b_: n for b_, n in delivered.items() if n > 1}
    extra = sum(n - 1 for n in dups.values())
    say()
    table(["acknowledged", "delivered", "lost", "acked unstored at the 2 s bound, lost", "duplicated",
           "extra copies", "duplicates per kill", "ack p50 ms", "ack p99 ms", "ack max ms"],
          [(len(sender.acked), len(delivered), len(lost), len(unstored), len(dups), extra,
            "%.2f" % (extra / float(len(kills))), "%.1f" % percentile(sender.latency, 50),
            "%.1f" % percentile(sender.latency, 99), "%.1f" % max(sender.latency or [float("nan")]))])
    say("sent %d, seed %d, %d kills, %.1f msg/s, answers after %d ms, database held 0-%.1f s before "
        "each kill, drained for %.1f s, failure history now %d rows (%d distinct)"
        % ((sender.sent, a.seed, len(kills), a.rate, a.answer_ms, a.db_locked, waited) + tuple(history_rows(b.db))))
    if lost:
        say("lost: %s%s" % (", ".join(lost[:10]), " ..." if len(lost) > 10 else ""))


def seed_history(db, port, count):
    from qeltest import request_text, seed_failhistory
    now = int(time.time() * 1000)
    batch = []
    for i in range(count):
        batch.append(request_text(STATS, 7, '{"seeded":%d}' % i, port))
        if len(batch) == 10000 or i == count - 1:
            seed_failhistory(db, batch, now)
            batch = []


def bench_outage(b, a):
    b.srv.down()
    if a.seed_history:
        t = time.monotonic()
        seed_history(b.db, b.srv.info_port, a.seed_history)
        say("seeded %d rows into the failure history in %.1f s" % (a.seed_history, time.monotonic() - t))
    ag = b.start_agent()
    b.app.wait_connected(30)
    time.sleep(2)
    rss_start = proc_kib(ag.proc.pid)

    # Each message waits for its "/back/" (at most ACK_WAIT) before the next
    # goes: a message written while the agent is still busy with the last read
    # would share a read with it. The schedule stays fixed, so a slow
    # acknowledgement only shows as a lower achieved rate.
    lat, unacked, sent = [], 0, 0
    period = 1.0 / a.rate
    began = time.monotonic()
    next_at = began
    stop_reason = "queued %d" % a.queued
    while a.seed_history + len(lat) < a.queued:
        if time.monotonic() - began >= a.max_send_seconds:
            stop_reason = "--max-send-seconds %d" % a.max_send_seconds
            break
        if not ag.is_running():
            stop_reason = "agent exited"
            break
        delay = next_at - time.monotonic()
        if delay > 0:
            time.sleep(delay)
        next_at = max(next_at + period, time.monotonic() - period)
        mark = b.app.mark()
        try:
            b.app.send(7, '{"outage":%d}' % sent, timeout=1)
            sent_at = time.time()
            sent += 1
        except (AssertionError, OSError):
            stop_reason = "application link lost"
            break
        try:
            back = b.app.wait_notice("back", since=mark, timeout=ACK_WAIT)[0]
            lat.append((back["time"] - sent_at) * 1000.0)
        except AssertionError:
            unacked += 1
        if sent % (a.rate * 30) == 0:
            say("  %d sent, %d acknowledged, RSS %.1f MiB" % (sent, len(lat), proc_kib(ag.proc.pid) / 1024.0))
    sending = time.monotonic() - began
    queued = a.seed_history + len(lat)
    rss_end = proc_kib(ag.proc.pid)
    rows, distinct = history_rows(b.db)

    say("sending phase: %d messages in %.1f s (%.1f/s), stopped by %s" % (sent, sending, sent / max(sending, 1e-9),
                                                                          stop_reason))
    table(["acked", "ack p50 ms", "ack p99 ms", "ack max ms", "RSS start MiB", "RSS end MiB",
           "RSS/added request B", "RSS/queued request B (total)", "history rows", "distinct"],
          [(len(lat), "%.1f" % percentile(lat, 50), "%.1f" % percentile(lat, 99),
            "%.1f" % (max(lat) if lat else float("nan")), "%.1f" % (rss_start / 1024.0),
            "%.1f" % (rss_end / 1024.0),
            "%.0f" % ((rss_end - rss_start) * 1024.0 / max(1, len(lat))),
            "%.0f" % (rss_end * 1024.0 / max(1, queued)), rows, distinct)])
    if unacked:
        say("note: %d messages not acknowledged within %.0f s" % (unacked, ACK_WAIT))

    b.srv.up()
    up = time.time()
    time.sleep(a.deliver_seconds)
    got = b.srv.requests(path=STATS)
    in_window = [r for r in got if r["time"] - up <= a.deliver_seconds]
    first = (in_window[0]["time"] - up) if in_window else float("nan")
    rate = len(in_window) / float(a.deliver_seconds)
    left = max(0, queued - len({r["body"] for r in got}))
    projected = left / rate if rate > 0 else float("inf")
    say("delivery after the server came back:")
    table(["queued", "first after s", "delivered in %d s" % a.deliver_seconds, "rate /s", "left",
           "projected s to deliver all", "projected h"],
          [(queued, "%.1f" % first, len(in_window), "%.1f" % rate, left, "%.0f" % projected,
            "%.2f" % (projected / 3600.0))])


def seed_fast(db, port, count):
    """`count` distinct requests into the failure history, in one transaction."""
    from qeltest import request_text
    now = int(time.time() * 1000)
    with closing(sqlite3.connect(db)) as con:
        con.execute("CREATE TABLE IF NOT EXISTS info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)")
        con.executemany("insert into info_failhistory values (?, ?)",
                        ((now, request_text(STATS, 7, '{"backlog":%d,"t":"2026-11-25 08:00:00"}' % i, port))
                         for i in range(count)))
        con.commit()


def bench_scale(b, a):
    from qeltest import Agent
    rows, baseline = [], {}
    for size in [0] + a.sizes:
        b.srv.silent()
        b.db = b.make_db(b.srv.info_port, b.srv.file_port)
        t = time.monotonic()
        if size:
            seed_fast(b.db, b.srv.info_port, size)
        seeded = time.monotonic() - t
        if b.agent is not None:
            b.agent.stop()
        requests_before = len(b.srv.requests())
        b.agent = Agent(b.work, db=b.db, log_dir="log", notify=True)
        b.agent.binary = b.binary
        ag = b.agent.start()
        ready = first = None
        while time.monotonic() - ag.started_at < 30 and (ready is None or first is None):
            if ready is None and any("READY=1" in m for _, m in ag.notices):
                ready = time.monotonic() - ag.started_at
                cpu_ready = proc_stat(ag.proc.pid)[0]
            if first is None and len(b.srv.requests()) > requests_before:
                first = time.monotonic() - ag.started_at
            time.sleep(0.01)
        b.app.wait_connected(30)
        time.sleep(2)
        _, anon0, rss0 = proc_stat(ag.proc.pid)
        if size == 0:
            baseline = {"anon": anon0, "rss": rss0}
            continue
        sender = Sender(b.app, 5.0, "scale%d" % size)
        sender.start()
        time.sleep(a.away_seconds)
        away = list(sender.latency)
        t = time.monotonic()
        _, anon1, rss1 = proc_stat(ag.proc.pid)
        delivered_before = len(b.srv.requests(path=STATS))
        # The server is back: it answers, and the connection that waited on
        # the silent one is dropped, so the head goes again at once.
        b.srv.normal()
        b.srv.close_connections()
        while len(b.srv.requests(path=STATS)) == delivered_before and time.monotonic() - t < 60:
            time.sleep(0.01)
        cpu0 = proc_stat(ag.proc.pid)[0]
        got0 = len(b.srv.requests(path=STATS))
        t = time.monotonic()
        time.sleep(a.drain_seconds)
        cpu1, anon2, rss2 = proc_stat(ag.proc.pid)
        got = b.srv.requests(path=STATS)[got0 - 1:]
        delivered = len(got) - 1
        # The rate while the backlog lasts (a small one is gone within the window).
        n = min(len(got), size // 2 + 1)
        rate = (n - 1) / (got[n - 1]["time"] - got[0]["time"]) if n > 1 else float("nan")
        sender.stop.set()
        sender.join(5)
        draining = sender.latency[len(away):]
        rows.append((size, "%.2f" % seeded, "%.2f" % (ready if ready is not None else float("nan")),
                     "%.2f" % (first if first is not None else float("nan")), "%.2f" % cpu_ready,
                     "%+.1f" % ((max(anon0, anon1, anon2) - baseline["anon"]) / 1024.0),
                     "%+.1f" % ((max(rss0, rss1, rss2) - baseline["rss"]) / 1024.0),
                     "%.0f" % (os.path.getsize(b.db) / 1048576.0),
                     "%.1f/%.1f" % (percentile(away, 99), max(away or [float("nan")])),
                     "%.1f/%.1f" % (percentile(draining, 99), max(draining or [float("nan")])),
                     "%.2f" % rate, "%.2f" % ((cpu1 - cpu0) * 1000.0 / max(1, delivered))))
        say("  %d queued: done" % size)
    say("idle agent: RssAnon %.1f MiB, resident %.1f MiB" % (baseline["anon"] / 1024.0, baseline["rss"] / 1024.0))
    table(["queued", "seed s", "READY s", "1st request s", "start CPU s", "RssAnon +MiB", "resident +MiB",
           "db MiB", "ack p99/max ms away", "ack p99/max ms draining", "drain /s", "CPU ms/delivered"], rows)


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("binary")
    ap.add_argument("--keep", action="store_true", help="keep the work directory")
    sub = ap.add_subparsers(dest="what", required=True)
    k = sub.add_parser("killnine", help="kill -9 under steady traffic")
    k.add_argument("--kills", type=int, default=10)
    k.add_argument("--seed", type=int, default=None, help="random seed of the kill moments (default: time)")
    k.add_argument("--min-gap", type=float, default=3.0, help="shortest run between kills, s")
    k.add_argument("--max-gap", type=float, default=10.0, help="longest run between kills, s")
    k.add_argument("--rate", type=float, default=5.0, help="application messages per second")
    k.add_argument("--answer-ms", type=int, default=200, help="server answer delay")
    k.add_argument("--final-seconds", type=float, default=5.0, help="traffic into the last run")
    k.add_argument("--quiet", type=float, default=5.0, help="no request for this long ends the run")
    k.add_argument("--drain-limit", type=float, default=180.0, help="longest wait for the end, s")
    k.add_argument("--db-locked", type=float, default=0.0, metavar="S",
                   help="hold the database locked for 0-S s right up to each kill")
    o = sub.add_parser("outage", help="queue while the server is down, then deliver")
    o.add_argument("--rate", type=int, default=20, help="application messages per second")
    o.add_argument("--queued", type=int, default=100000, help="stop sending at this many queued requests")
    o.add_argument("--seed-history", type=int, default=0, metavar="K",
                   help="rows put into the failure history before the start")
    o.add_argument("--max-send-seconds", type=int, default=600, help="longest sending phase, s")
    o.add_argument("--deliver-seconds", type=int, default=60, help="delivery window, s")
    c = sub.add_parser("scale", help="memory, start-up, acknowledgements and drain against the backlog's size")
    c.add_argument("--sizes", type=int, nargs="+", default=[100, 10000, 100000, 1000000, 3000000])
    c.add_argument("--away-seconds", type=float, default=30.0, help="acknowledgements with the server away, s")
    c.add_argument("--drain-seconds", type=float, default=60.0, help="delivery window, s")
    a = ap.parse_args()
    if a.what == "killnine" and a.seed is None:
        a.seed = int(time.time())
    binary = os.path.abspath(a.binary)
    if not os.access(binary, os.X_OK):
        ap.error("not an executable: %s" % binary)

    def run():
        if a.what == "killnine":
            say("seed %d" % a.seed)
        b = Bench(binary, a.keep)
        try:
            started = time.monotonic()
            {"killnine": bench_killnine, "outage": bench_outage, "scale": bench_scale}[a.what](b, a)
            say("took %.0f s" % (time.monotonic() - started))
        finally:
            b.close()
    return in_namespaces(__file__, run)


if __name__ == "__main__":
    sys.exit(main())
