#!/usr/bin/env python3
"""A fleet of agents against one server, by simulation on this machine.

    python3 bench/bench_fleet.py AGENT_BINARY [N] [--steady 60] [--down 10] [--rate 0.5] [--plot FILE]

Each of the N agents runs in namespaces of its own (network, IPC, UTS, mount:
only lo up, its own application simulator on 127.0.0.1:8890, its own host
name, so its own device identifier). Its servers are 127.0.0.1:8000/8080/8888
inside its namespace, served by a relay to Unix sockets that the server side
listens on; the server side (the server simulator) is in the bench's own
namespace. No routable address anywhere: namespaces meet only through Unix
sockets in the file system.

The fleet runs steadily (each agent's application sends a message every
1/--rate s) for --steady s, then the server goes away for --down s (its
sockets close and the relays refuse, as a restarted server does) and comes
back. Reported:
  - connection attempts reaching the server per 100 ms, before and after it
    is back: the peak against the mean over the reconnection window (from the
    server's return until every agent is back), beside the peak/mean that the
    same number of attempts thrown uniformly at random over the same window
    gives (the floor for agents that each draw their waits on their own),
    and the same as a plot file for gnuplot (--plot);
  - the time until every agent is back (a request of its own reached the
    server again);
  - messages acknowledged by the agents: delivered, kept in an agent's
    failure history at the stop (sent at its next start), lost;
  - memory: PSS per idle agent (smaps_rollup), and idle CPU per agent.

Bounded: N <= 200, every phase has a time limit, the agents are stopped at
the end whatever happened."""

import argparse
import random
import json
import os
import signal
import socket
import sqlite3
import subprocess
import sys
import threading
import time
from contextlib import closing

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SYSTEM = os.path.join(ROOT, "tests", "system")
sys.path.insert(0, SYSTEM)
sys.path.insert(0, os.path.join(ROOT, "tools"))

from qel_simnet import bind_listener, close_listening  # noqa: E402
from benchlib import in_namespaces, percentile, proc_kib, proc_stat, say, table  # noqa: E402

PORTS = {"info": 8000, "file": 8080, "video": 8888}
STATS = "/vmu/device/monitor/statistics/upload"


def pipe(a, b):
    """Copies a -> b until either end closes, then closes both."""
    try:
        while True:
            data = a.recv(65536)
            if not data:
                break
            b.sendall(data)
    except OSError:
        pass
    for s in (a, b):
        try:
            s.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        s.close()


def splice(a, b):
    threading.Thread(target=pipe, args=(a, b), daemon=True).start()
    threading.Thread(target=pipe, args=(b, a), daemon=True).start()


# ---- the server side ------------------------------------------------------------

class ServerFront:
    """The server's doors: a Unix socket per port in front of the simulator,
    noting when each connection arrives."""

    def __init__(self, sockdir, sim):
        self.sockdir, self.sim, self.lock = sockdir, sim, threading.Lock()
        self.arrivals = {name: [] for name in PORTS}
        self.listeners, self.conns = {}, []

    def up(self):
        for name in PORTS:
            path = os.path.join(self.sockdir, name + ".sock")
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            s.bind(path + ".new")
            s.listen(512)
            os.rename(path + ".new", path)      # the relays see it once it listens
            self.listeners[name] = s
            threading.Thread(target=self.accept, args=(name, s), daemon=True).start()

    def down(self):
        for name, s in self.listeners.items():
            os.unlink(os.path.join(self.sockdir, name + ".sock"))
            close_listening(s)
        self.listeners = {}
        with self.lock:
            conns, self.conns = self.conns, []
        for c in conns:
            try:
                c.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def accept(self, name, listener):
        port = {"info": self.sim.info_port, "file": self.sim.file_port, "video": self.sim.video_port}[name]
        while True:
            try:
                c, _ = listener.accept()
            except OSError:
                return
            with self.lock:
                self.arrivals[name].append(time.monotonic())
            try:
                upstream = socket.create_connection(("127.0.0.1", port))
            except OSError:
                c.close()
                continue
            with self.lock:
                self.conns += [c, upstream]
            splice(c, upstream)


# ---- one agent's namespace ---------------------------------------------------------

def child(a):
    """Inside the agent's namespaces: lo up, its relays, its application, the agent."""
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    subprocess.run(["hostname", "qel-fleet-%03d" % a.index], check=True)
    from qel_app_sim import AppSim
    from qel_config import make_db
    work = os.path.join(a.workdir, "agent-%03d" % a.index)
    os.makedirs(work, exist_ok=True)
    relays = [ChildRelay(name, os.path.join(a.sockdir, name + ".sock")) for name in PORTS]
    app = AppSim(8890, gap_ms=0).start()
    db = make_db(os.path.join(work, "sysconf.db"), work, PORTS["info"], PORTS["file"], video_port=PORTS["video"])
    with open(os.path.join(work, "agent.stderr"), "wb") as err:
        agent = subprocess.Popen([a.binary, db], cwd=work, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=err)
    print(json.dumps({"index": a.index, "pid": agent.pid, "runner": os.getpid()}), flush=True)
    stop = []       # a plain list: the handler must take no lock the main thread may hold
    signal.signal(signal.SIGTERM, lambda *_: stop.append(1))
    acked, sent, n, errors = [], 0, 0, []
    app.wait_connected(30)
    next_at = time.monotonic()
    while not stop:
        time.sleep(min(0.1, max(0.0, next_at - time.monotonic())))
        if time.monotonic() < next_at:
            continue
        next_at += a.period
        if stop or not app.connected():
            continue
        body = '{"fleet":%d,"n":%d}' % (a.index, n)
        n += 1
        mark = app.mark()
        try:
            app.send(7, body, timeout=2)
            sent += 1
            app.wait_notice("back", since=mark, timeout=5)
            acked.append(body)
        except Exception as e:   # not acknowledged: not counted as acknowledged
            errors.append("%.1f %s %r" % (time.monotonic(), body, e))
    agent.send_signal(signal.SIGTERM)
    try:
        agent.wait(10)
    except subprocess.TimeoutExpired:
        agent.kill()
    for r in relays:
        r.close()
    app.stop()
    with open(os.path.join(work, "report.json"), "w") as f:
        json.dump({"index": a.index, "sent": sent, "acked": acked, "errors": errors[:5]}, f)


class ChildRelay:
    """127.0.0.1:PORT inside the agent's namespace, open only while the
    server's Unix socket is there: a server that is away refuses, as it does."""

    def __init__(self, name, path):
        self.port, self.path, self.listener, self.conns = PORTS[name], path, None, []
        self.closed = False
        threading.Thread(target=self.watch, daemon=True).start()

    def watch(self):
        while not self.closed:
            there = os.path.exists(self.path)
            if there and self.listener is None:
                s = self.listener = bind_listener(self.port, 16)
                threading.Thread(target=self.accept, args=(s,), daemon=True).start()
            elif not there and self.listener is not None:
                close_listening(self.listener)
                self.listener = None
                for c in self.conns:
                    try:
                        c.shutdown(socket.SHUT_RDWR)
                    except OSError:
                        pass
                self.conns = []
            time.sleep(0.02)

    def accept(self, listener):
        while True:
            try:
                c, _ = listener.accept()
            except OSError:
                return
            u = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                u.connect(self.path)
            except OSError:
                c.close()
                continue
            self.conns += [c, u]
            splice(c, u)

    def close(self):
        self.closed = True


# ---- the fleet ----------------------------------------------------------------------

def killpg(pgid, signo):
    try:
        os.killpg(pgid, signo)
    except OSError:
        pass


def fleet(a):
    from qel_server_sim import ServerSim
    import tempfile
    work = tempfile.mkdtemp(prefix="qel_bench_fleet_")
    sockdir = os.path.join(work, "server")
    os.makedirs(sockdir)
    sim = ServerSim(0, 0, record=None, inspect_archives=False).start()
    front = ServerFront(sockdir, sim)
    front.up()
    children, pids, reports, runners = [], {}, {}, []
    me = os.path.abspath(__file__)
    try:
        for i in range(a.n):
            children.append(subprocess.Popen(
                ["unshare", "--net", "--ipc", "--uts", "--mount", "--fork", "--kill-child=SIGTERM", sys.executable, me,
                 a.binary, "--child", str(i), "--workdir", work, "--sockdir", sockdir, "--period", str(1.0 / a.rate)],
                stdout=subprocess.PIPE, universal_newlines=True, start_new_session=True))
        for c in children:
            line = json.loads(c.stdout.readline())
            pids[line["index"]] = line["pid"]
            runners.append(line["runner"])
        say("%d agents started; steady for %d s" % (a.n, a.steady))
        time.sleep(a.steady / 3.0)        # every agent up and logged in
        cpu0 = {i: proc_stat(p)[0] for i, p in pids.items()}
        t0 = time.monotonic()
        time.sleep(a.steady * 2 / 3.0)
        idle_cpu = [(proc_stat(p)[0] - cpu0[i]) / (time.monotonic() - t0) * 100 for i, p in pids.items()]
        pss = [proc_kib(p, "smaps_rollup", "Pss") / 1024.0 for p in pids.values()]
        say("server away for %d s" % a.down)
        front.down()
        sim.down()
        down_at = time.monotonic()
        time.sleep(a.down)
        sim.up()
        front.up()
        up_at = time.monotonic()
        up_wall = time.time()

        def back():
            seen = set()
            for r in sim.requests(port="info"):
                if r["time"] >= up_wall:
                    body, query = r.get("body") or "", r.get("query") or ""
                    for part in (body, query):
                        if "qel-fleet-" in part:
                            seen.add(part.split("qel-fleet-")[1][:3])
                        elif '"fleet":' in part:
                            seen.add("%03d" % json.loads(part)["fleet"])
            return seen
        while len(back()) < a.n and time.monotonic() - up_at < 120:
            time.sleep(0.1)
        all_back = time.monotonic() - up_at if len(back()) == a.n else float("nan")
        time.sleep(5)
    finally:
        # The runners first: each waits for the "/back/" of the message it
        # has just sent before it stops its agent, so a stop in the middle of
        # an acknowledgement is not counted as a message without one.
        for pid in runners:
            try:
                os.kill(pid, signal.SIGTERM)
            except OSError:
                pass
        reported = lambda: sum(os.path.exists(os.path.join(work, "agent-%03d" % i, "report.json")) for i in range(a.n))
        deadline = time.monotonic() + 40
        while reported() < len(children) and time.monotonic() < deadline:
            time.sleep(0.2)
        for c in children:      # its namespace's processes: unshare, the runner, the agent
            killpg(c.pid, signal.SIGKILL)
            c.stdout.close()
            c.wait()
        for i in range(a.n):
            try:
                with open(os.path.join(work, "agent-%03d" % i, "report.json")) as f:
                    reports[i] = json.load(f)
            except (OSError, ValueError):
                say("agent %d: no report" % i)
        front.down()
    delivered = {r["body"] for r in sim.requests(path=STATS)}
    acked = [b for r in reports.values() for b in r["acked"]]
    # Acknowledged and still in an agent's failure history at the stop: kept for
    # its next start, not lost.
    kept = set()
    for i in range(a.n):
        db = os.path.join(work, "agent-%03d" % i, "sysconf.db")
        try:
            with closing(sqlite3.connect("file:%s?mode=ro" % db, uri=True, timeout=10)) as con:
                kept |= {t.split("\r\n\r\n", 1)[-1] for (t,) in con.execute("select 内容 from info_failhistory")}
        except sqlite3.Error:
            pass
    lost = [b for b in acked if b not in delivered and b not in kept]
    still_kept = [b for b in acked if b not in delivered and b in kept]
    sim.stop()

    arrivals = front.arrivals["info"]
    end = up_at + (all_back if all_back == all_back else 30)
    window = [t for t in arrivals if up_at <= t <= end]
    buckets = {}
    for t in window:
        buckets[int((t - up_at) * 10)] = buckets.get(int((t - up_at) * 10), 0) + 1
    n_buckets = max(1, int((end - up_at) * 10) + 1)
    peak, mean = max(buckets.values() or [0]), len(window) / float(n_buckets)
    floor = uniform_peak(len(window), n_buckets) / mean if mean else float("nan")
    if a.plot:
        with open(a.plot, "w") as f:
            f.write("# s since the server went away, connection attempts in that 100 ms\n")
            counts = {}
            for t in arrivals:
                if t >= down_at - 5:
                    counts[int((t - down_at) * 10)] = counts.get(int((t - down_at) * 10), 0) + 1
            for k in range(-50, int((end - down_at) * 10) + 20):
                f.write("%.1f %d\n" % (k / 10.0, counts.get(k, 0)))
    table(["agents", "acked", "delivered", "kept", "lost", "all back s", "attempts/100 ms peak", "mean", "peak/mean",
           "uniform peak/mean",
           "PSS/agent MiB median", "max", "idle CPU %/agent median"],
          [(a.n, len(acked), len(acked) - len(lost) - len(still_kept), len(still_kept), len(lost), "%.1f" % all_back, peak, "%.2f" % mean,
            "%.1f" % (peak / mean if mean else float("nan")), "%.1f" % floor, "%.1f" % percentile(pss, 50), "%.1f" % max(pss or [0]),
            "%.2f" % percentile(idle_cpu, 50))])
    if lost:
        say("lost: %s" % lost[:10])
    errors = [e for r in reports.values() for e in r["errors"]]
    if errors:      # when, in s since the server went away (CLOCK_MONOTONIC is the machine's)
        when = lambda e: "%+.1f s %s" % (float(e.split(" ", 1)[0]) - down_at, e.split(" ", 1)[1])
        say("not acknowledged: %d, e.g. %s" % (len(errors), [when(e) for e in errors[:3]]))
    if not a.keep:
        subprocess.run(["rm", "-rf", work])
    else:
        say("work directory kept: %s" % work)


def uniform_peak(count, slots, trials=2000):
    """The busiest slot, on average, when `count` attempts fall uniformly at
    random into `slots` slots: what independent full jitter cannot beat."""
    rng, total = random.Random(1), 0
    for _ in range(trials):
        hits = [0] * slots
        for _ in range(count):
            hits[rng.randrange(slots)] += 1
        total += max(hits)
    return total / float(trials)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("binary")
    ap.add_argument("n", type=int, nargs="?", default=100)
    ap.add_argument("--steady", type=int, default=60, help="steady running before the restart, s")
    ap.add_argument("--down", type=int, default=10, help="how long the server is away, s")
    ap.add_argument("--rate", type=float, default=0.5, help="messages per second from each application")
    ap.add_argument("--plot", help="write connection attempts per 100 ms to this file (gnuplot data)")
    ap.add_argument("--keep", action="store_true")
    ap.add_argument("--child", type=int, dest="index", help=argparse.SUPPRESS)
    ap.add_argument("--workdir", help=argparse.SUPPRESS)
    ap.add_argument("--sockdir", help=argparse.SUPPRESS)
    ap.add_argument("--period", type=float, help=argparse.SUPPRESS)
    a = ap.parse_args()
    a.binary = os.path.abspath(a.binary)
    if a.index is not None:
        return child(a)
    if not 1 <= a.n <= 200:
        ap.error("N from 1 to 200")
    return in_namespaces(__file__, lambda: fleet(a))


if __name__ == "__main__":
    sys.exit(main())
