#!/usr/bin/env python3
"""Live-video benchmarks of the running agent: cameras written by the
application simulator into System V shared memory, the agent copying,
encoding and pushing them, the server simulator's video port handing out the
push address and a stream sink taking the MPEG-TS. All in the private
namespaces of tests/system/nsrun.py (loopback only, private IPC).

  encoder   CPU seconds per frame of the agent pushing one 1280x1024 camera
            at 20 fps, next to the ffmpeg command line with the same encoder
            settings fed the same test picture at 20 fps, and their ratio;
            also against the command line at the settings used before
            (library default threading)
  cameras   how many 1280x1024 cameras at 20 fps the agent pushes while every
            camera gets every slot: short runs for 1, 2, 4, 8, 12 ... 32
            cameras until one loses frames, the best confirmed for 60 s (one
            fewer if that fails); --plot writes a PNG (gnuplot) of per-frame
            latency over time for 1 camera and for the most confirmed
  latency   frame written by the application -> its first (and last) byte at
            the sink, p50/p99, from the frame number drawn into each picture
            and the sink's own time stamp of every read; split into the copy
            (written -> the slot it is copied in), the encode (the push
            thread's CPU per frame) and the rest (muxing and sending)
  memory    VmRSS, private memory (RssAnon) and VmHWM with 1 and 4 cameras streaming, after the sink has
            gone down (each camera's frame queue fills to its bound), and after
            it came back
  idle      agent CPU over 60 s with one camera announced and the sink down
            (only the push-address query, once a second)
  all       all of the above, one after the other

    python3 bench/bench_video.py AGENT_BINARY encoder [--seconds 60] [--order auto|together|sequential]
    python3 bench/bench_video.py AGENT_BINARY cameras [--counts 1,2,4,6,8,10] [--seconds 20] [--confirm-seconds 60]
    python3 bench/bench_video.py AGENT_BINARY latency [--seconds 30]
    python3 bench/bench_video.py AGENT_BINARY memory [--counts 1,4]
    python3 bench/bench_video.py AGENT_BINARY idle [--seconds 60]
    python3 bench/bench_video.py AGENT_BINARY all

Every part is bounded in time; `all` takes about 12 minutes. Prints its
command line, the machine's load before each part (other work on the machine
skews CPU figures: the tables say how busy it was) and a table of results."""

import argparse
import bisect
import collections
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SYSTEM = os.path.join(ROOT, "tests", "system")
sys.path.insert(0, SYSTEM)
sys.path.insert(0, os.path.join(ROOT, "tools"))

from benchlib import in_namespaces, percentile, say, table  # noqa: E402
from qel_app_sim import Camera, TestPicture, announcement, frame_number, frame_size   # noqa: E402
from qel_cdn_sink import CdnSink                                 # noqa: E402

APP_PORT = 8890
WIDTH, HEIGHT, FPS = 1280, 1024, 20
TS_CLOCK = 90000
PTS_WRAP = 1 << 33
QUEUE_BOUND = 51                      # frames a camera's queue holds at most
COPY_THREAD = "QEL_ItemVideoTh"       # the agent's frame-copy thread, as the kernel names it
PUSH_THREAD = "MuxThread"
# The agent's encoder settings, on the command line; FFMPEG_BEFORE: the
# settings it had until 2026-11-23 (the library's default threading).
FFMPEG_BEFORE = ["ffmpeg", "-hide_banner", "-loglevel", "error", "-y",
                 "-f", "rawvideo", "-pix_fmt", "yuv420p", "-s", "%dx%d" % (WIDTH, HEIGHT), "-r", str(FPS), "-i", "-",
                 "-c:v", "libx264", "-preset", "ultrafast", "-profile:v", "baseline", "-b:v", "1M", "-g", "12",
                 "-f", "mpegts"]
FFMPEG = FFMPEG_BEFORE[:-2] + ["-threads", "1", "-tune", "zerolatency", "-f", "mpegts"]


# ---- processes and the machine ---------------------------------------------------

TICK = os.sysconf("SC_CLK_TCK")


def proc_cpu(pid="self"):
    """utime + stime of a process (all its threads), in seconds."""
    with open("/proc/%s/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / float(TICK)


def proc_mem(pid):
    """(VmRSS, VmHWM) in KiB."""
    got = proc_status(pid)
    return got.get("VmRSS", 0), got.get("VmHWM", 0)


def proc_status(pid):
    """The KiB figures of /proc/PID/status (VmRSS, VmHWM, RssAnon ...)."""
    got = {}
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            key, _, rest = line.partition(":")
            if rest.strip().endswith("kB"):
                got[key] = int(rest.split()[0])
    return got


def private_kib(pid):
    """Memory that is this process's alone: anonymous pages (heap, stacks, frames)."""
    return proc_status(pid).get("RssAnon", 0)


def thread_cpu(pid):
    """{thread name: CPU seconds} over a process's threads (same names summed)."""
    out = collections.Counter()
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/stat" % (pid, tid)) as f:
                text = f.read()
        except OSError:
            continue
        name = text[text.index("(") + 1:text.rindex(")")]
        fields = text.rsplit(")", 1)[1].split()
        out[name] += (int(fields[11]) + int(fields[12])) / float(TICK)
    return out


def machine_busy():
    """(busy jiffies, all jiffies) of the whole machine, from /proc/stat."""
    with open("/proc/stat") as f:
        values = [int(v) for v in f.readline().split()[1:]]
    idle = values[3] + (values[4] if len(values) > 4 else 0)
    return sum(values[:8]) - idle, sum(values[:8])


class Meter:
    """Machine load over a window: how many cores were busy, and how much of
    that was not this bench (its own process, the agent, ffmpeg)."""

    def __init__(self):
        self.load = os.getloadavg()
        self.busy0, self.all0 = machine_busy()
        self.t0 = time.monotonic()
        self.ours0 = proc_cpu()

    def done(self, ours_elsewhere):
        """`ours_elsewhere`: CPU seconds of the agent and ffmpeg in the window."""
        busy1, all1 = machine_busy()
        wall = time.monotonic() - self.t0
        cores = (busy1 - self.busy0) / float(TICK) / wall
        ours = (proc_cpu() - self.ours0 + ours_elsewhere) / wall
        self.cores, self.others = cores, max(0.0, cores - ours)
        return self


def load_text():
    one, five, fifteen = os.getloadavg()
    return "load average %.2f %.2f %.2f (%d cores)" % (one, five, fifteen, os.cpu_count())


# ---- streams -----------------------------------------------------------------------

def slot_of(t):
    """The agent's 1/20 s slot of a wall-clock time (epoch seconds)."""
    return int((t * 1000.0 + 500.0 / FPS) / (1000.0 / FPS))


def slot_from_pts(pts, near_slot):
    """The slot a 33-bit pts stands for (the agent's pts is the slot since the
    epoch in 1/20 s, rescaled to 1/90000 and cut to 33 bits), near a known one."""
    step = TS_CLOCK // FPS
    d = (pts - near_slot * step) % PTS_WRAP
    if d >= PTS_WRAP // 2:
        d -= PTS_WRAP
    return near_slot + int(round(d / float(step)))


def ffprobe_csv(args):
    r = subprocess.run(["ffprobe", "-v", "error"] + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       universal_newlines=True, timeout=300)
    if r.returncode != 0:
        raise RuntimeError("ffprobe %s: %s" % (" ".join(args), r.stderr[-500:]))
    return [line.split(",") for line in r.stdout.splitlines() if line.strip()]


def count_frames(path):
    """Frames ffprobe decodes from a stream file (-count_frames)."""
    if not path or not os.path.exists(path) or os.path.getsize(path) == 0:
        return 0
    rows = ffprobe_csv(["-count_frames", "-select_streams", "v:0", "-show_entries", "stream=nb_read_frames",
                        "-of", "csv=p=0", path])
    return int(rows[0][0]) if rows and rows[0][0].isdigit() else 0


def video_packets(path):
    """[(pts, pos)] of the video packets of a stream file, in stream order."""
    if not path or not os.path.exists(path) or os.path.getsize(path) == 0:
        return []
    out = []
    for fields in ffprobe_csv(["-select_streams", "v:0", "-show_entries", "packet=pts,pos", "-of", "csv=p=0", path]):
        if len(fields) >= 2 and fields[0].lstrip("-").isdigit() and fields[1].isdigit():
            out.append((int(fields[0]), int(fields[1])))
    return out


class TimedSink(CdnSink):
    """The stream sink, noting for every read when it came and how many stream
    bytes its connection had delivered with it: byte offset -> arrival time."""

    def __init__(self, *args, **kw):
        super().__init__(*args, **kw)
        self.reads = collections.defaultdict(list)     # conn -> [(time, stream bytes so far)]

    def _take(self, c, data, limit):
        now = time.time()
        keep = super()._take(c, data, limit)
        if c.head is not None:
            self.reads[c.n].append((now, c.bytes))
        return keep

    def arrival(self, conn, offset):
        """When stream byte `offset` (from 0) of connection `conn` came (None: never)."""
        reads = self.reads.get(conn, [])
        i = bisect.bisect_right([b for _, b in reads], offset)
        return reads[i][0] if i < len(reads) else None


class HeldBuffer:
    """A camera's frame buffer that notes how long each write held the
    semaphore: the agent's copy pass waits that long for the camera."""

    def __init__(self, buffer):
        self._buffer = buffer
        self._taken = None
        self.holds = []

    def acquire(self, timeout=None):
        got = self._buffer.acquire(timeout)
        if got:
            self._taken = time.perf_counter()
        return got

    def release(self):
        self._buffer.release()
        if self._taken is not None:
            self.holds.append(time.perf_counter() - self._taken)
            self._taken = None

    def __getattr__(self, name):
        return getattr(self._buffer, name)


class StampedCamera(Camera):
    """A camera that notes when each frame number was complete in the buffer,
    and how long each write held the semaphore."""

    def __init__(self, *args, **kw):
        super().__init__(*args, **kw)
        self.buffer = HeldBuffer(self.buffer)
        self.written = {}

    def write_frame(self, n):
        got = super().write_frame(n)
        if got:
            self.written[n] = time.time()
        return got


# ---- one agent with its peers ---------------------------------------------------------

class Rig:
    """Sink, server simulator, application simulator, cameras and one agent
    run, in a work directory of their own."""

    def __init__(self, binary, cameras, keep=False, sink_up=True):
        self.keep = keep
        self.work = tempfile.mkdtemp(prefix="qel_bench_video_")
        self.sink = self.srv = self.app = self.agent = None
        self.cams = []
        try:
            self._start(binary, cameras, sink_up)
        except BaseException:
            self.close()
            raise

    def _start(self, binary, cameras, sink_up):
        from qeltest import Agent, ServerSim, AppSim, make_db
        self.sink = TimedSink(0, directory=os.path.join(self.work, "streams")).start()
        if not sink_up:
            self.sink.down()
        self.srv = ServerSim(0, 0, video_port=0, cdn_port=self.sink.port).start()
        self.app = AppSim(APP_PORT, gap_ms=100).start()
        for n in range(cameras):
            self.cams.append(StampedCamera(n, WIDTH, HEIGHT, fps=FPS).start())
        db = make_db(os.path.join(self.work, "sysconf.db"), self.work, self.srv.info_port, self.srv.file_port,
                     video_port=self.srv.video_port, overrides={"logpath": os.path.join(self.work, "log/")})
        self.agent = Agent(self.work, db=db, log_dir="log")
        self.agent.binary = binary
        self.agent.start()
        self.agent.wait_log(r"config success", timeout=30)
        self.app.wait_connected(30)
        self.srv.wait_request(path="/vmu/device/login", timeout=30)
        time.sleep(0.5)

    @property
    def pid(self):
        return self.agent.proc.pid

    def announce(self):
        """Send the cameras' announcement; returns when it was sent."""
        mark = self.app.mark()
        sent = time.time()
        self.app.send(9, announcement(self.cams))
        self.app.wait_notice("back", since=mark, timeout=10)
        return sent

    def wait_streams(self, timeout=30):
        """Until every camera's stream has delivered bytes."""
        deadline = time.monotonic() + timeout
        for c in self.cams:
            path = "/live/cam%d" % (c.number + 1)
            self.sink.wait_bytes(1, path=path, timeout=max(0.1, deadline - time.monotonic()))

    def drop_lines(self):
        return sum(1 for line in self.agent.log_lines() if "drop it" in line)

    def queries(self, since=0.0, until=None):
        return [r for r in self.srv.requests(port="video")
                if r["time"] >= since and (until is None or r["time"] < until)]

    def stop_agent(self):
        """SIGTERM (SIGKILL after 5 s); then the sink has seen every byte sent."""
        status = self.agent.stop()
        deadline = time.monotonic() + 5
        while time.monotonic() < deadline and any(c["open"] for c in self.sink.connections()):
            time.sleep(0.05)
        return status

    def close(self):
        try:
            if self.agent is not None:
                self.agent.stop()
        finally:
            for c in self.cams:
                c.close()
            for peer in (self.app, self.srv, self.sink):
                if peer is not None:
                    peer.stop()
            if self.keep:
                say("work directory kept: %s" % self.work)
            else:
                shutil.rmtree(self.work, ignore_errors=True)


def camera_frames(rig, cam, s0, s1):
    """What the sink got of one camera in slots [s0, s1): the distinct slots,
    and per slot the lag of the frame's first byte after the slot's time."""
    path = "/live/cam%d" % (cam.number + 1)
    lags, conns = {}, rig.sink.connections(path=path)
    for conn in conns:
        for pts, pos in video_packets(conn["file"]):
            slot = slot_from_pts(pts, s0)
            if s0 <= slot < s1:
                at = rig.sink.arrival(conn["conn"], pos)
                if at is not None and slot not in lags:
                    lags[slot] = at - slot / float(FPS)
    return lags, len(conns)


# ---- encoder cost ---------------------------------------------------------------------

class FfmpegRun(threading.Thread):
    """The ffmpeg command line fed `frames` test-picture frames at 20 fps."""

    def __init__(self, out, frames, command=None):
        super().__init__(daemon=True)
        self.out, self.frames = out, frames
        self.cmd = (command or FFMPEG) + [out]
        self.result = None
        self.error = None

    def run(self):
        try:
            self.result = self._run()
        except Exception as e:     # reported by the caller
            self.error = e

    def _run(self):
        picture = TestPicture(WIDTH, HEIGHT)
        err = open(self.out + ".stderr", "wb")
        p = subprocess.Popen(self.cmd, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=err)
        err.close()
        period = 1.0 / FPS
        start = time.monotonic()
        late = 0
        for n in range(self.frames):
            delay = start + n * period - time.monotonic()
            if delay > 0:
                time.sleep(delay)
            elif delay < -period:
                late += 1
            p.stdin.write(picture.frame(n))
        fed = time.monotonic() - start
        p.stdin.close()
        # Its CPU until it has written the last frame and exited: wait4's rusage.
        _, status, usage = os.wait4(p.pid, 0)
        p.returncode = os.waitstatus_to_exitcode(status)
        if p.returncode != 0:
            raise RuntimeError("ffmpeg exited %d" % p.returncode)
        return {"cpu": usage.ru_utime + usage.ru_stime, "frames": count_frames(self.out), "seconds": fed,
                "late": late}


def agent_encoder_run(a, ffmpeg=None):
    """The agent pushing one camera for a.seconds (with `ffmpeg`, an FfmpegRun,
    started once the stream is flowing)."""
    rig = Rig(a.binary, 1, keep=a.keep)
    try:
        cpu0, threads0 = proc_cpu(rig.pid), thread_cpu(rig.pid)
        meter = Meter()
        sent = rig.announce()
        rig.wait_streams()
        if ffmpeg is not None:
            ffmpeg.start()
        time.sleep(a.seconds)
        cpu1, threads1 = proc_cpu(rig.pid), thread_cpu(rig.pid)
        if ffmpeg is not None:
            ffmpeg.join(a.seconds + 60)
        meter.done(cpu1 - cpu0 + (ffmpeg.result["cpu"] if ffmpeg is not None and ffmpeg.result else 0.0))
        wall = time.time() - sent
        rig.stop_agent()
        conns = rig.sink.connections(path="/live/cam1")
        frames = sum(count_frames(c["file"]) for c in conns)
        stats = rig.cams[0].wait_stats()
        threads = {k: threads1[k] - threads0.get(k, 0.0) for k in threads1}
        return {"cpu": cpu1 - cpu0, "frames": frames, "seconds": wall, "conns": len(conns), "meter": meter,
                "app_skipped": stats["skipped"], "threads": threads}
    finally:
        rig.close()


def ffmpeg_alone(a, work, command=None):
    meter = Meter()
    run = FfmpegRun(os.path.join(work, "ffmpeg-%d.ts" % time.monotonic_ns()), a.seconds * FPS, command)
    run.run()
    if run.error:
        raise run.error
    run.result["meter"] = meter.done(run.result["cpu"])
    return run.result


def bench_encoder(a):
    load1 = os.getloadavg()[0]
    order = a.order
    if order == "auto":
        # Other work on two cores would be shared out unevenly between two
        # encoders running at once: one after the other, twice, instead.
        order = "sequential" if load1 >= a.busy_load else "together"
    repeat = a.repeat if a.repeat else (2 if order == "sequential" else 1)
    say("order: %s (1-minute load %.2f; --busy-load %.2f), %d run(s) of %d s each"
        % (order, load1, a.busy_load, repeat, a.seconds))
    say("ffmpeg: %s OUT.ts" % " ".join(FFMPEG))
    say("ffmpeg at the earlier settings: %s OUT.ts" % " ".join(FFMPEG_BEFORE))
    work = tempfile.mkdtemp(prefix="qel_bench_video_ffmpeg_")
    rows, notes, split, before = [], [], [], []
    try:
        for i in range(repeat):
            if order == "together":
                ff = FfmpegRun(os.path.join(work, "ffmpeg-%d.ts" % i), a.seconds * FPS)
                ag = agent_encoder_run(a, ff)
                if ff.error:
                    raise ff.error
                fr = ff.result
                fr["meter"] = ag["meter"]
            else:
                ag = agent_encoder_run(a)
                fr = ffmpeg_alone(a, work)
            a_ms = ag["cpu"] / max(1, ag["frames"]) * 1000.0
            f_ms = fr["cpu"] / max(1, fr["frames"]) * 1000.0
            old = ffmpeg_alone(a, work, FFMPEG_BEFORE)
            o_ms = old["cpu"] / max(1, old["frames"]) * 1000.0
            before.append((i + 1, "%.2f" % o_ms, "%.2f" % (a_ms / o_ms), "%.2f/%.2f" % (old["meter"].cores,
                                                                                  old["meter"].others)))
            rows.append((i + 1, order, "%.2f" % ag["cpu"], ag["frames"], "%.1f" % (ag["frames"] / ag["seconds"]),
                         "%.2f" % a_ms, "%.2f" % fr["cpu"], fr["frames"], "%.2f" % f_ms, "%.2f" % (a_ms / f_ms),
                         "%.2f/%.2f" % (ag["meter"].cores, ag["meter"].others) if order == "together" else
                         "%.2f/%.2f, %.2f/%.2f" % (ag["meter"].cores, ag["meter"].others,
                                                  fr["meter"].cores, fr["meter"].others)))
            th = ag["threads"]
            rest = ag["cpu"] - th.get(COPY_THREAD, 0.0) - th.get(PUSH_THREAD, 0.0)
            split.append((i + 1, "%.2f" % (th.get(COPY_THREAD, 0.0) / max(1, ag["frames"]) * 1000),
                          "%.2f" % (th.get(PUSH_THREAD, 0.0) / max(1, ag["frames"]) * 1000),
                          "%.2f" % (rest / max(1, ag["frames"]) * 1000)))
            if ag["conns"] != 1:
                notes.append("run %d: the agent's stream came in %d connections" % (i + 1, ag["conns"]))
            if ag["app_skipped"] or fr["late"]:
                notes.append("run %d: camera writer skipped %d frames, ffmpeg feeder %d frames more than a "
                             "period late" % (i + 1, ag["app_skipped"], fr["late"]))
    finally:
        if not a.keep:
            shutil.rmtree(work, ignore_errors=True)
    say()
    table(["run", "order", "agent CPU s", "agent frames", "fps", "agent ms/frame", "ffmpeg CPU s", "ffmpeg frames",
           "ffmpeg ms/frame", "agent/ffmpeg", "busy/others cores"], rows)
    ratios = [float(r[9]) for r in rows]
    say("agent/ffmpeg CPU per frame: %s (goal <= 1.00); agent CPU counted from the announcement, frames "
        "counted at the sink with ffprobe -count_frames; ffmpeg's CPU until it exited (wait4)"
        % ", ".join("%.2f" % r for r in ratios))
    say("against the command line at the earlier settings (run alone, after):")
    table(["run", "ffmpeg ms/frame", "agent/ffmpeg", "busy/others cores"], before)
    say("the agent's CPU per frame by thread:")
    table(["run", "copy thread ms", "push thread ms (mux, send, encoder calls)",
           "encoder workers and main thread ms"], split)
    for n in notes:
        say("note: " + n)


# ---- cameras per machine ---------------------------------------------------------------

def camera_run(a, count, seconds):
    """`count` cameras for `seconds`: per-camera frames and lags, drop lines, CPU."""
    rig = Rig(a.binary, count, keep=a.keep)
    try:
        rig.announce()
        rig.wait_streams(timeout=30)
        time.sleep(2.0)                      # past the first key frames and the first pass
        cpu0, drops0, meter = proc_cpu(rig.pid), rig.drop_lines(), Meter()
        threads0 = thread_cpu(rig.pid)
        holds0 = [len(c.buffer.holds) for c in rig.cams]
        t0 = time.time()
        time.sleep(seconds)
        t1 = time.time()
        cpu1, drops1 = proc_cpu(rig.pid), rig.drop_lines()
        copy_cpu = thread_cpu(rig.pid)[COPY_THREAD] - threads0[COPY_THREAD]
        holds = [h for c, k in zip(rig.cams, holds0) for h in c.buffer.holds[k:]]
        rss, hwm = proc_mem(rig.pid)
        meter.done(cpu1 - cpu0)
        time.sleep(QUEUE_BOUND / float(FPS) + 1.0)   # what was queued by t1 comes in
        rig.stop_agent()
        s0, s1 = slot_of(t0) + 1, slot_of(t1)
        per_cam = []
        for cam in rig.cams:
            lags, conns = camera_frames(rig, cam, s0, s1)
            per_cam.append({"got": len(lags), "lags": lags, "conns": conns,
                            "gaps": gap_runs(sorted(lags), s0, s1),
                            "app_skipped": cam.wait_stats()["skipped"]})
        return {"count": count, "seconds": t1 - t0, "expected": s1 - s0, "cams": per_cam,
                "drops": drops1 - drops0, "cpu": (cpu1 - cpu0) / (t1 - t0), "rss": rss, "meter": meter,
                "copy_cpu": copy_cpu, "holds": holds}
    finally:
        rig.close()


def gap_runs(slots, s0, s1):
    """Lengths of the runs of missing slots in [s0, s1)."""
    runs, prev = [], s0 - 1
    for s in slots + [s1]:
        if s - prev > 1:
            runs.append(s - prev - 1)
        prev = s
    return runs


def lag_trend(lags):
    """Median lag of the last quarter of the slots minus that of the first."""
    order = [lags[s] for s in sorted(lags)]
    q = max(1, len(order) // 4)
    return percentile(order[-q:], 50) - percentile(order[:q], 50) if order else float("nan")


def judge(run, a):
    """(the encoders kept up, reasons, every frame arrived). Kept up: no frame
    reached the sink later than --max-lag after its slot and the lag did not
    grow (the queue trims only at 51 frames, 2.55 s), no "drop it" line, no
    reconnection. Every frame: each camera got at least --min-share of the
    window's slots."""
    why = []
    all_lags = [x for c in run["cams"] for x in c["lags"].values()]
    lag = max(all_lags) if all_lags else float("inf")
    if lag > a.max_lag:
        why.append("a frame %.2f s after its slot" % lag)
    trend = max(lag_trend(c["lags"]) for c in run["cams"])
    if trend > a.max_trend:
        why.append("lag grew %.2f s" % trend)
    if run["drops"]:
        why.append("%d \"drop it\" lines" % run["drops"])
    if any(c["conns"] != 1 for c in run["cams"]):
        why.append("a stream reconnected")
    every = min(c["got"] for c in run["cams"]) >= a.min_share * run["expected"]
    return not why, why, every


def camera_row(run, kind, a):
    cams = run["cams"]
    ok, why, every = judge(run, a)
    lags = [x for c in cams for x in c["lags"].values()]
    gaps = collections.Counter(g for c in cams for g in c["gaps"])
    gap_text = " ".join("%dx%d" % (n, length) for length, n in sorted(gaps.items())) or "-"
    got = [c["got"] for c in cams]
    skipped = sum(c["app_skipped"] for c in cams)
    fps = sum(got) / float(len(got)) / run["seconds"]
    passes = fps * run["seconds"]
    return (run["count"], kind, "%.0f" % run["seconds"], run["expected"], min(got), "%.2f" % fps,
            "%.1f" % (100.0 * min(got) / run["expected"]), gap_text, run["drops"],
            "%.1f" % (1000.0 / fps - 1000.0 / FPS), "%.1f" % (run["copy_cpu"] / passes * 1000.0),
            "%.1f/%.1f" % (percentile(run["holds"], 99) * 1000, max(run["holds"] or [float("nan")]) * 1000),
            "%.0f" % (percentile(lags, 50) * 1000), "%.0f" % (max(lags) * 1000 if lags else float("nan")),
            "%+.0f" % (max(lag_trend(c["lags"]) for c in cams) * 1000),
            "%.2f" % run["cpu"], "%.0f" % (run["rss"] / 1024.0),
            "%.2f/%.2f" % (run["meter"].cores, run["meter"].others), skipped,
            "yes" if every else "no", "yes" if ok else "no: " + "; ".join(why))


CAMERA_HEADERS = ["cameras", "run", "s", "slots", "min got", "fps/cam", "min %", "gaps (n x len)", "drop lines",
                  "pass ms", "copy CPU ms/pass", "app hold p99/max ms", "lag p50 ms", "lag max ms", "lag growth ms", "agent cores", "RSS MiB", "busy/others",
                  "app skipped", "every frame", "kept up"]


def plot_lags(path, runs):
    """A PNG (gnuplot) of each frame's lag over time, one series per run."""
    if shutil.which("gnuplot") is None:
        say("no plot: gnuplot is not installed (apt-get install gnuplot-nox)")
        return
    work = tempfile.mkdtemp(prefix="qel_bench_video_plot_")
    try:
        series = []
        for label, run in runs:
            data = os.path.join(work, "%d.dat" % len(series))
            first = min((s for c in run["cams"] for s in c["lags"]), default=0)
            with open(data, "w") as f:
                for c in run["cams"]:
                    for s in sorted(c["lags"]):
                        f.write("%.3f %.1f\n" % ((s - first) / float(FPS), c["lags"][s] * 1000.0))
            series.append("'%s' using 1:2 with points pointtype 7 pointsize 0.25 title '%s'" % (data, label))
        script = ("set terminal png size 1100,520\nset output '%s'\nset grid\nset key top left\n"
                  "set title 'Live video, 1280x1024 at 20 fps: each frame, its 1/20 s slot -> first byte at the sink'\n"
                  "set xlabel 'time in the measured window (s)'\nset ylabel 'ms'\nset yrange [0:*]\n"
                  "plot %s\n" % (os.path.abspath(path), ", ".join(series)))
        r = subprocess.run(["gnuplot"], input=script, universal_newlines=True, stderr=subprocess.PIPE)
        say("plot: %s%s" % (path, "" if r.returncode == 0 else " FAILED: " + r.stderr[-300:]))
    finally:
        shutil.rmtree(work, ignore_errors=True)


def bench_cameras(a):
    counts = [int(x) for x in a.counts.split(",")]
    say("kept up: no frame's first byte at the sink later than %.1f s after its slot and the lag not growing by "
        "more than %.2f s (the queue trims only at %d frames, %.2f s), no \"drop it\" line, no reconnection; "
        "every frame: each camera got >= %.0f%% of the window's 1/20 s slots"
        % (a.max_lag, a.max_trend, QUEUE_BOUND, QUEUE_BOUND / float(FPS), 100 * a.min_share))
    rows, good, runs = [], [], {}
    for n in counts:
        say("  %d camera(s), %d s ... (%s)" % (n, a.seconds, load_text()))
        run = camera_run(a, n, a.seconds)
        rows.append(camera_row(run, "search", a))
        ok, _, every = judge(run, a)
        if not (ok and every):
            break
        good.append(n)
    # The largest count that keeps every slot of every camera for the whole
    # confirmation; one count lower each time it does not.
    confirmed = None
    for n in reversed(good if a.confirm_seconds > 0 else []):
        say("  confirming %d camera(s), %d s ... (%s)" % (n, a.confirm_seconds, load_text()))
        run = camera_run(a, n, a.confirm_seconds)
        rows.append(camera_row(run, "confirm", a))
        runs[n] = run
        ok, _, every = judge(run, a)
        if ok and every:
            confirmed = n
            break
    if a.plot and confirmed is not None:
        if 1 not in runs:
            say("  1 camera for the plot, %d s ... (%s)" % (a.confirm_seconds, load_text()))
            runs[1] = camera_run(a, 1, a.confirm_seconds)
            rows.append(camera_row(runs[1], "plot", a))
        plot_lags(a.plot, [("1 camera", runs[1])] + ([("%d cameras" % confirmed, runs[confirmed])]
                                                      if confirmed != 1 else []))
    best = good[-1] if good else None
    every_best = confirmed
    say()
    table(CAMERA_HEADERS, rows)
    say("slots: 1/20 s slots in the window; got: distinct slots the sink received per camera; gaps: runs of "
        "missing slots over all cameras (count x length); lag: first byte at the sink after the frame's slot "
        "time (its copy time rounded to 1/20 s, so +-25 ms), growth: last quarter's median minus the first's; "
        "agent cores: agent CPU / wall time; app skipped: frames the camera writers themselves missed; pass: "
        "what a copy pass adds to the 50 ms between passes (1000/fps - 50); copy CPU: the copy thread's own CPU "
        "per pass; app hold: how long a camera writer held its semaphore per frame (the copy waits for it)")
    if best is None:
        say("result: no camera count tried got every slot of every camera")
    else:
        say("result: every camera got every slot with up to %d camera(s) in %d s runs%s; confirmed over %d s: %s"
            % (best, a.seconds, " (the most tried)" if best == counts[-1] else "", a.confirm_seconds,
               "none" if every_best is None else "%d camera(s)" % every_best))


# ---- latency -----------------------------------------------------------------------------

def decoded_numbers(path):
    """[(frame number shown, packet position, pts)] of every decoded frame, in order."""
    frames = ffprobe_csv(["-select_streams", "v:0", "-show_entries", "frame=pts,pkt_pos", "-of", "csv=p=0", path])
    positions = [(int(f[1]) if f[1].isdigit() else None, int(f[0]) if f[0].isdigit() else None)
                 if len(f) >= 2 else (None, None) for f in frames]
    row_at = (max(8, HEIGHT // 16) & ~1) // 2       # the middle row of the number band
    r = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-map", "0:v:0", "-fps_mode", "passthrough",
                        "-vf", "crop=%d:2:0:%d,format=gray" % (WIDTH, row_at), "-f", "rawvideo", "-"],
                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=300)
    if r.returncode != 0:
        raise RuntimeError("ffmpeg decode: %s" % r.stderr[-500:])
    size = 2 * WIDTH
    pad = bytes(row_at * WIDTH)
    numbers = [frame_number(pad + r.stdout[i:i + WIDTH], WIDTH, HEIGHT) for i in range(0, len(r.stdout), size)]
    if len(numbers) != len(positions):
        raise RuntimeError("ffprobe saw %d frames, ffmpeg decoded %d" % (len(positions), len(numbers)))
    return [(n, pos, pts) for n, (pos, pts) in zip(numbers, positions)]


def thread_names(pid):
    """{tid: name} of a process's threads."""
    out = {}
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/comm" % (pid, tid)) as f:
                out[tid] = f.read().strip()
        except OSError:
            pass
    return out


def lat_row(what, values):
    return (what, len(values), "%.1f" % percentile(values, 50), "%.1f" % percentile(values, 99),
            "%.1f" % max(values), "%.1f" % min(values))


def bench_latency(a):
    rig = Rig(a.binary, 1, keep=a.keep)
    try:
        cam = rig.cams[0]
        before = thread_names(rig.pid)
        sent = rig.announce()
        rig.wait_streams()
        push0 = thread_cpu(rig.pid).get(PUSH_THREAD, 0.0)
        time.sleep(a.seconds)
        push_cpu = thread_cpu(rig.pid).get(PUSH_THREAD, 0.0) - push0
        new = collections.Counter(name for tid, name in thread_names(rig.pid).items() if tid not in before)
        stopped = time.time()
        rig.stop_agent()
        conns = rig.sink.connections(path="/live/cam1")
        first_byte = rig.sink.reads[conns[0]["conn"]][0][0]
        first_lat, whole_lat, copy_lat, unread, repeats, seen = [], [], [], 0, 0, set()
        to_copy = []
        for conn in conns:
            frames = decoded_numbers(conn["file"])
            stream_end = conn["bytes"]
            for i, (number, pos, pts) in enumerate(frames):
                if number in seen:
                    repeats += 1          # the same picture copied twice
                    continue
                written = cam.written.get(number)
                if written is None or pos is None:
                    unread += 1
                    continue
                seen.add(number)
                start = rig.sink.arrival(conn["conn"], pos)
                if start is None or start >= stopped:
                    continue              # drained from the encoder by the orderly stop
                nxt = next((p for _, p, _ in frames[i + 1:] if p is not None), stream_end)
                end = rig.sink.arrival(conn["conn"], nxt - 1)
                if start is not None:
                    first_lat.append((start - written) * 1000.0)
                    if pts is not None:
                        slot = slot_from_pts(pts, slot_of(written))
                        copy_lat.append((start - slot / float(FPS)) * 1000.0)
                        to_copy.append((slot / float(FPS) - written) * 1000.0)
                if end is not None:
                    whole_lat.append((end - written) * 1000.0)
        written_in = [n for n, t in cam.written.items() if first_byte <= t <= first_byte + a.seconds - 1]
        missing = sum(1 for n in written_in if n not in seen)
        say()
        table(["what", "frames", "p50 ms", "p99 ms", "max ms", "min ms"],
              [lat_row("written -> first byte at the sink", first_lat),
               lat_row("written -> last byte of the frame", whole_lat),
               lat_row("copy: written -> copied (pts slot)", to_copy),
               lat_row("encode + send: copied -> first byte", copy_lat)])
        say("encode: the push thread (the encoder runs in it) spent %.2f ms CPU per frame over the %d s; "
            "send: what is left of 'copied -> first byte' (muxing, the socket, the sink's read)"
            % (push_cpu / (a.seconds * FPS) * 1000.0, a.seconds))
        say("announcement sent -> first stream byte at the sink: %.0f ms" % ((first_byte - sent) * 1000.0))
        say("frames the application wrote in the measured stretch: %d, never in the stream: %d (%.1f%%); "
            "pictures encoded twice: %d; frames without a readable number: %d; stream connections: %d"
            % (len(written_in), missing, 100.0 * missing / max(1, len(written_in)), repeats, unread, len(conns)))
        say("threads the announcement started in the agent: %s (threads named like the process: made by "
            "the main thread while it opened the encoder)"
            % ", ".join("%s x%d" % (k, v) for k, v in sorted(new.items())))
        say("method: the application stamps each frame when it is complete in shared memory; each decoded "
            "frame's number (read from the picture) and packet position (ffprobe pkt_pos) give the sink's "
            "arrival time of that byte offset (the sink stamps every read with its cumulative offset). The copy "
            "every ~50 ms, not in step with the writer, adds 0-50 ms by itself.")
    finally:
        rig.close()


# ---- memory ---------------------------------------------------------------------------------

def bench_memory(a):
    rows, stale = [], []
    per_frame = frame_size(WIDTH, HEIGHT)
    for n in [int(x) for x in a.counts.split(",")]:
        say("  %d camera(s) ... (%s)" % (n, load_text()))
        rig = Rig(a.binary, n, keep=a.keep)
        try:
            before, private0 = proc_mem(rig.pid), private_kib(rig.pid)
            rows.append((n, "logged in, not announced", "%.1f" % (before[0] / 1024.0), "%.1f" % (private0 / 1024.0),
                         "%.1f" % (before[1] / 1024.0), "-"))
            rig.announce()
            rig.wait_streams()
            time.sleep(a.seconds)
            streaming, private1 = proc_mem(rig.pid), private_kib(rig.pid)
            rows.append((n, "streaming %d s" % a.seconds, "%.1f" % (streaming[0] / 1024.0),
                         "%.1f" % (private1 / 1024.0), "%.1f" % (streaming[1] / 1024.0),
                         "per camera: RSS %.1f, private %.1f" % ((streaming[0] - before[0]) / 1024.0 / n,
                                                                 (private1 - private0) / 1024.0 / n)))
            rig.sink.down()
            time.sleep(a.down_seconds)
            down = proc_mem(rig.pid)
            rows.append((n, "sink down %d s" % a.down_seconds, "%.1f" % (down[0] / 1024.0),
                         "%.1f" % (private_kib(rig.pid) / 1024.0), "%.1f" % (down[1] / 1024.0),
                         "%+.1f (bound %d x %.2f MiB x %d = %.1f)" % ((down[0] - streaming[0]) / 1024.0, QUEUE_BOUND,
                                                                      per_frame / 1048576.0, n,
                                                                      QUEUE_BOUND * per_frame * n / 1048576.0)))
            conns = len(rig.sink.connections())
            rig.sink.up()
            time.sleep(a.down_seconds)
            back = proc_mem(rig.pid)
            fresh = [c for c in rig.sink.connections()[conns:] if c["bytes"] > 0]
            ages = []
            for c in fresh:
                packets = video_packets(c["file"])
                if packets:
                    at = rig.sink.arrival(c["conn"], packets[0][1])
                    ages.append(at - slot_from_pts(packets[0][0], slot_of(at)) / float(FPS))
            stale.append(max(ages) if ages else float("nan"))
            rows.append((n, "sink back %d s (%d/%d streams again)" % (a.down_seconds, len(fresh), n),
                         "%.1f" % (back[0] / 1024.0), "%.1f" % (private_kib(rig.pid) / 1024.0),
                         "%.1f" % (back[1] / 1024.0),
                         "%+.1f" % ((back[0] - streaming[0]) / 1024.0)))
        finally:
            rig.close()
    say()
    table(["cameras", "state", "VmRSS MiB", "private (RssAnon) MiB", "VmHWM MiB",
           "change vs streaming MiB / streaming above not announced"], rows)
    say("first frame on the new connection after the sink came back: %s old when it arrived (its slot time "
        "to its first byte)" % ", ".join("%.2f s" % x for x in stale))


# ---- idle ------------------------------------------------------------------------------------

def bench_idle(a):
    rig = Rig(a.binary, 1, keep=a.keep, sink_up=False)
    try:
        cpu0 = proc_cpu(rig.pid)
        time.sleep(a.before_seconds)
        quiet = proc_cpu(rig.pid) - cpu0
        rig.announce()
        time.sleep(5.0)                           # the queue fills to its bound
        threads0, cpu0, meter, t0 = thread_cpu(rig.pid), proc_cpu(rig.pid), Meter(), time.time()
        time.sleep(a.seconds)
        cpu1, threads1, t1 = proc_cpu(rig.pid), thread_cpu(rig.pid), time.time()
        meter.done(cpu1 - cpu0)
        rss, hwm = proc_mem(rig.pid)
        queries = rig.queries(t0, t1)
        say()
        table(["what", "s", "agent CPU s", "share of a core %", "push-address queries", "VmRSS MiB", "busy/others"],
              [("logged in, nothing announced", "%.0f" % a.before_seconds, "%.2f" % quiet,
                "%.2f" % (100.0 * quiet / a.before_seconds), "-", "-", "-"),
               ("1 camera announced, sink down", "%.0f" % (t1 - t0), "%.2f" % (cpu1 - cpu0),
                "%.2f" % (100.0 * (cpu1 - cpu0) / (t1 - t0)), len(queries), "%.1f" % (rss / 1024.0),
                "%.2f/%.2f" % (meter.cores, meter.others))])
        busy = sorted(((threads1[k] - threads0.get(k, 0.0), k) for k in threads1), reverse=True)
        say("by thread (CPU s in the window): %s" % ", ".join("%s %.2f" % (k, v) for v, k in busy if v > 0) or "-")
    finally:
        rig.close()


# ---- command line ------------------------------------------------------------------------------

def add_encoder(p):
    p.add_argument("--seconds", type=int, default=60, help="streaming time of each encoder, s")
    p.add_argument("--order", choices=("auto", "together", "sequential"), default="auto",
                   help="agent and ffmpeg at the same time or one after the other (auto: by the load)")
    p.add_argument("--busy-load", type=float, default=0.5,
                   help="auto: a 1-minute load average at or above this runs them one after the other")
    p.add_argument("--repeat", type=int, default=0, help="runs (default: 2 one after the other, 1 together)")


def add_cameras(p):
    p.add_argument("--counts", default="1,2,4,8,12,16,20,24,28,32",
                   help="camera counts tried, in order, until one loses frames")
    p.add_argument("--seconds", type=int, default=20, help="window of each search run, s")
    p.add_argument("--confirm-seconds", type=int, default=60, help="window of the confirmation run (0: none)")
    p.add_argument("--plot", default="", metavar="PNG", help="write the latency plot here (gnuplot)")
    p.add_argument("--min-share", type=float, default=1.0,
                   help="share of the slots each camera must get for \"every frame\"")
    p.add_argument("--max-lag", type=float, default=1.0, help="latest first byte after a frame's slot, s")
    p.add_argument("--max-trend", type=float, default=0.25, help="largest growth of the lag over the window, s")


def add_latency(p):
    p.add_argument("--seconds", type=int, default=30, help="streaming time, s")


def add_memory(p):
    p.add_argument("--counts", default="1,4", help="camera counts")
    p.add_argument("--seconds", type=int, default=20, help="streaming time before the sink goes down, s")
    p.add_argument("--down-seconds", type=int, default=15, help="time with the sink down, and back, s")


def add_idle(p):
    p.add_argument("--seconds", type=int, default=60, help="measured window, s")
    p.add_argument("--before-seconds", type=int, default=10, help="window before the announcement, s")


PARTS = [("encoder", add_encoder, bench_encoder, "agent vs ffmpeg CPU per frame"),
         ("cameras", add_cameras, bench_cameras, "cameras pushed without losing frames"),
         ("latency", add_latency, bench_latency, "application write -> bytes at the sink"),
         ("memory", add_memory, bench_memory, "RSS with 1 and 4 cameras, sink down and back"),
         ("idle", add_idle, bench_idle, "CPU with a camera announced and the sink down")]


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("binary")
    ap.add_argument("--keep", action="store_true", help="keep the work directories")
    sub = ap.add_subparsers(dest="what", required=True)
    for name, add, _, text in PARTS:
        add(sub.add_parser(name, help=text))
    sub.add_parser("all", help="every part with its defaults")
    a = ap.parse_args()
    a.binary = os.path.abspath(a.binary)
    if not os.access(a.binary, os.X_OK):
        ap.error("not an executable: %s" % a.binary)

    return in_namespaces(__file__, lambda: run_parts(a))


def run_parts(a):
    say("uptime: %s" % subprocess.run(["uptime"], stdout=subprocess.PIPE, universal_newlines=True).stdout.strip())
    if a.what == "all":
        todo = []
        for name, add, run, _ in PARTS:
            p = argparse.ArgumentParser()
            add(p)
            sub_args = p.parse_args([])
            sub_args.binary, sub_args.keep = a.binary, a.keep
            todo.append((name, run, sub_args))
    else:
        todo = [(name, run, a) for name, _, run, _ in PARTS if name == a.what]
    started = time.monotonic()
    for name, run, args in todo:
        say()
        say("== %s (%s)" % (name, load_text()))
        t = time.monotonic()
        run(args)
        say("%s took %.0f s" % (name, time.monotonic() - t))
    say()
    say("took %.0f s; %s" % (time.monotonic() - started, load_text()))


if __name__ == "__main__":
    sys.exit(main())
