#!/usr/bin/env python3
"""Benchmarks of the running agent against the simulators, in private
namespaces on loopback:

  latency  application -> server latency (p50/p99) of spaced messages, and
           the sustained rate of a burst (one request in flight, 50 ms pause)
  idle     CPU seconds and resident memory of the agent over 60 s idle with a
           live server

    python3 bench/bench_runtime.py AGENT_BINARY [latency|idle|all]

Prints the figures; docs/benchmarks.md keeps the results."""

import os
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tools"))

from qel_app_sim import AppSim                      # noqa: E402
from qel_demo import enter_namespace, make_db       # noqa: E402
from qel_server_sim import ServerSim                # noqa: E402
from benchlib import percentile, proc_kib  # noqa: E402

STATS = "/vmu/device/monitor/statistics/upload"


def start(binary):
    work = tempfile.mkdtemp(prefix="qel_bench_")
    srv = ServerSim(18000, 18080).start()
    app = AppSim(8890).start()
    db = make_db(work)
    agent = subprocess.Popen([binary, db], cwd=work, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
    srv.wait_request(path="/vmu/device/login", timeout=15)
    app.wait_connected(10)
    time.sleep(0.5)
    return srv, app, agent


def stop(srv, app, agent):
    agent.terminate()
    agent.wait(5)
    srv.stop()
    app.stop()


def bench_latency(binary, spaced=200, burst=300):
    srv, app, agent = start(binary)
    try:
        lat = []
        for i in range(spaced):
            body = '{"lat":%d}' % i
            t0 = time.time()
            app.send(7, body)
            req = srv.wait_request(path=STATS, predicate=lambda r, b=body: r["body"] == b, timeout=10)[0]
            lat.append((req["time"] - t0) * 1000.0)
            time.sleep(0.1)
        print("latency of %d spaced messages: p50 %.1f ms, p99 %.1f ms, max %.1f ms "
              "(floor: the 50 ms pause before every send)"
              % (spaced, percentile(lat, 50), percentile(lat, 99), max(lat)))

        app.gap_ms = 20
        before = len(srv.requests(path=STATS))
        t0 = time.time()
        for i in range(burst):
            app.send(7, '{"burst":%d}' % i)
        got = srv.wait_request(path=STATS, count=before + burst, timeout=120)[before:]
        span = got[-1]["time"] - got[0]["time"]
        rate = (len(got) - 1) / span
        gaps = [(b["time"] - a["time"]) * 1000.0 for a, b in zip(got, got[1:])]
        print("burst of %d messages: %.1f requests/s sustained, gap p50 %.1f ms p99 %.1f ms "
              "(ceiling with one in flight: 1000/(50 + round trip) per second); sending took %.1f s"
              % (burst, rate, percentile(gaps, 50), percentile(gaps, 99), time.time() - t0))
    finally:
        stop(srv, app, agent)


def proc_cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    ticks = os.sysconf("SC_CLK_TCK")
    return (int(fields[11]) + int(fields[12])) / ticks


def bench_idle(binary, seconds=60):
    srv, app, agent = start(binary)
    try:
        cpu0 = proc_cpu_seconds(agent.pid)
        time.sleep(seconds)
        cpu1 = proc_cpu_seconds(agent.pid)
        beats = len(srv.requests(path="/vmu/device/heartbeat"))
        print("idle %d s with a live server: %.2f CPU seconds, RSS %.1f MiB, %d heartbeats answered"
              % (seconds, cpu1 - cpu0, proc_kib(agent.pid) / 1024.0, beats))
    finally:
        stop(srv, app, agent)


def main():
    if len(sys.argv) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    binary = os.path.abspath(sys.argv[1])
    what = sys.argv[2] if len(sys.argv) > 2 else "all"
    enter_namespace()
    if what in ("latency", "all"):
        bench_latency(binary)
    if what in ("idle", "all"):
        bench_idle(binary)
    return 0


if __name__ == "__main__":
    sys.exit(main())
