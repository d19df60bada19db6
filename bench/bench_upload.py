#!/usr/bin/env python3
"""Image-upload benchmarks of the running agent, in the private namespaces of
tests/system/nsrun.py (loopback only, tmpfs over the default tree):

  throughput  one archive of --size-mb MB (incompressible members) uploaded
              --repeat times by the agent (kept in its failure directory, so
              it goes at the next start) and as often by `curl --data-binary`
              and by kernel sendfile(), taking turns, all to the same minimal
              loopback sink (drops the body without copying it, answers
              {"code":0} with the SessionId). MB/s from the request's first
              byte at the sink to its last, and the agent's resident memory
              during its uploads over what it was before them.
  packing     --images images of --image-kb kB there at start: images per
              second from the agent's start to its last archive queued (its
              log) and to the last archive received, against one
              `tar -zcf` of the same directory.
  latency     the same images packed again by a new run while the application
              simulator sends a message every 20 ms: "/back/" latency p50/p99.

    python3 bench/bench_upload.py AGENT_BINARY [throughput|packing|latency|all] [--keep] ...

Bounded in time (a few minutes for all three; see --help). Prints its command
line and a table of results per part."""

import argparse
import datetime
import fcntl
import os
import re
import shutil
import socket
import statistics
import subprocess
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SYSTEM = os.path.join(ROOT, "tests", "system")
sys.path.insert(0, SYSTEM)
sys.path.insert(0, os.path.join(ROOT, "tools"))

import nsrun                                     # noqa: E402
from benchlib import AgentRuns, in_namespaces, percentile, proc_kib, say, table  # noqa: E402

APP_PORT = 8890
HOST = nsrun.HOST_NAME
UPLOAD = "/videowatch/uploadImg/saveTarGz/" + HOST
MB = 1000 * 1000
EDGE = 65536                     # bytes of each body's beginning and end kept to compare
F_SETPIPE_SZ = 1031
_GLOG_LINE = re.compile(r"^[IWEF](\d{8} \d\d:\d\d:\d\d\.\d{6})\s+\d+ \S+\] (.*)$", re.M)


def log_events(agent):
    """[(seconds since the epoch, message)] of the agent's glog lines."""
    out = []
    for stamp, message in _GLOG_LINE.findall(agent.log_text()):
        out.append((datetime.datetime.strptime(stamp, "%Y%m%d %H:%M:%S.%f").timestamp(), message))
    return out


class Sink:
    """The file server at its cheapest, so that a transfer measures the sender:
    each request's head, then Content-Length bytes dropped (the first and last
    EDGE bytes read and kept, the rest spliced through a pipe into /dev/null,
    never copied into the process), then {"code":0} with the request's
    SessionId. It notes when a request's first and last bytes came. With
    `hold`, the agent's uploads (User-Agent FILE) are answered only on
    release(), so that other senders can take turns with it. Listens only
    once open() is called."""

    def __init__(self):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.sock.bind(("127.0.0.1", 0))
        self.port = self.sock.getsockname()[1]
        self.records = []
        self.connections = 0
        self.hold = False
        self._released = threading.Semaphore(0)
        self.cond = threading.Condition()

    def open(self):
        self.sock.listen(16)
        threading.Thread(target=self._accept, daemon=True).start()

    def release(self):
        self._released.release()

    def close(self):
        self.hold = False
        for _ in range(16):
            self._released.release()
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.sock.close()

    def wait(self, count, timeout, who=None):
        """The first `count` records (of sender `who`: its User-Agent, or None for any)."""
        deadline = time.monotonic() + timeout
        with self.cond:
            while True:
                got = [r for r in self.records if who is None or r["agent"] == who]
                if len(got) >= count:
                    return got
                left = deadline - time.monotonic()
                if left <= 0:
                    raise RuntimeError("sink: %d of %d requests after %.0f s" % (len(got), count, timeout))
                self.cond.wait(min(left, 0.5))

    def _accept(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            with self.cond:
                self.connections += 1
            threading.Thread(target=self._serve, args=(conn,), daemon=True).start()

    def _serve(self, conn):
        buf = bytearray(1 << 20)
        view = memoryview(buf)
        pipe_r, pipe_w = os.pipe()
        null = os.open(os.devnull, os.O_WRONLY)
        try:
            fcntl.fcntl(pipe_w, F_SETPIPE_SZ, 1 << 20)
        except OSError:
            pass
        pending = b""
        try:
            while True:
                first = time.time() if pending else None
                while b"\r\n\r\n" not in pending:
                    n = conn.recv_into(buf)
                    if not n:
                        return
                    first = first or time.time()
                    pending += bytes(view[:n])
                head, _, rest = pending.partition(b"\r\n\r\n")
                lines = head.decode("latin-1").split("\r\n")
                fields = {k.strip().lower(): v.strip() for k, _, v in (ln.partition(":") for ln in lines[1:])}
                length = int(fields.get("content-length", "0"))
                start, pending = rest[:length], rest[length:]
                done = len(start)
                while done < min(EDGE, length):
                    n = conn.recv_into(buf, min(EDGE, length) - done)
                    if not n:
                        return
                    start += bytes(view[:n])
                    done += n
                tail = start[max(0, length - EDGE):]
                start = start[:EDGE]
                while done < length - EDGE:
                    n = os.splice(conn.fileno(), pipe_w, min(1 << 20, length - EDGE - done))
                    if not n:
                        return
                    done += n
                    while n:
                        n -= os.splice(pipe_r, null, n)
                while done < length:
                    n = conn.recv_into(buf, length - done)
                    if not n:
                        return
                    tail += bytes(view[:n])
                    done += n
                ended = time.time()
                record = {"line": lines[0], "agent": fields.get("user-agent"), "session": fields.get("sessionid"),
                          "length": length, "first": first, "end": ended, "start": start, "tail": tail[-EDGE:]}
                with self.cond:
                    self.records.append(record)
                    self.cond.notify_all()
                if self.hold and record["agent"] == "FILE":
                    self._released.acquire()
                reply = b'{"code":0}'
                session = record["session"]
                conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                             + (b"SessionId: %s\r\n" % session.encode() if session else b"")
                             + b"Content-Length: %d\r\n\r\n" % len(reply) + reply)
        except OSError:
            return
        finally:
            for fd in (pipe_r, pipe_w, null):
                os.close(fd)
            conn.close()


def rate(record):
    return record["length"] / MB / max(record["end"] - record["first"], 1e-9)


class Bench(AgentRuns):
    """The server simulator (information port), the sink (file port), the
    application simulator and a work directory; one agent run at a time."""

    def __init__(self, binary, keep):
        from qeltest import AppSim, ServerSim
        super().__init__(binary, keep, "upload")
        self.srv = ServerSim(0, 0, record=None, inspect_archives=False, digest_bodies=False).start()
        self.on_close(self.srv.stop)
        self.sink = Sink()
        self.on_close(self.sink.close)
        self.app = AppSim(APP_PORT, gap_ms=20).start()
        self.on_close(self.app.stop)
        self.db = self.make_db(self.srv.info_port, self.sink.port)


def write_random(directory, count, size, prefix):
    os.makedirs(directory, exist_ok=True)
    paths = []
    for i in range(count):
        p = os.path.join(directory, "%s_%06d.bmp" % (prefix, i))
        with open(p, "wb") as f:
            f.write(os.urandom(size))
        paths.append(p)
    return paths


def edges(path):
    with open(path, "rb") as f:
        start = f.read(EDGE)
        f.seek(max(0, os.path.getsize(path) - EDGE))
        return start, f.read()


def curl_version(curl):
    return subprocess.run([curl, "--version"], stdout=subprocess.PIPE, universal_newlines=True).stdout.split()[1]


def sendfile_upload(port, path):
    """What the sink takes from the kernel at its fastest: head, then sendfile()."""
    size = os.path.getsize(path)
    with socket.create_connection(("127.0.0.1", port)) as s, open(path, "rb") as f:
        s.sendall(b"POST %s HTTP/1.1\r\nSessionId: 5\r\nUser-Agent: sendfile\r\nContent-Length: %d\r\n\r\n"
                  % (UPLOAD.encode(), size))
        offset = 0
        while offset < size:
            offset += os.sendfile(s.fileno(), f.fileno(), offset, size - offset)
        s.recv(4096)


def bench_throughput(b, a):
    say("making a %d MB archive of random members ..." % a.size_mb)
    members = b.path("members")
    count = 10
    write_random(members, count, a.size_mb * MB // count, "big")
    archive = b.path("upload.tar.gz")
    subprocess.run("tar -C %s -cf - . | gzip -1 > %s" % (members, archive), shell=True, check=True)
    size = os.path.getsize(archive)
    want = edges(archive)
    # the agent sends what its failure directory holds at start: --repeat names of one file
    faildir = b.path("qel_net", "qel_fail", "qel_alarmimage")
    os.makedirs(faildir, exist_ok=True)
    for i in range(a.repeat):
        os.link(archive, os.path.join(faildir, "Tar_%s_%d.tar.gz" % (time.strftime("%Y%m%d%H%M%S000"), i)))

    # The sink is closed at start: the agent settles while it waits to connect.
    ag = b.start_agent()
    time.sleep(3)
    rss_before, hwm_before = proc_kib(ag.proc.pid, field="VmRSS"), proc_kib(ag.proc.pid, field="VmHWM")
    peak = [rss_before]
    done = threading.Event()

    def sample():
        while not done.is_set():
            peak[0] = max(peak[0], proc_kib(ag.proc.pid, field="VmRSS"))
            time.sleep(0.002)
    sampler = threading.Thread(target=sample, daemon=True)
    sampler.start()
    # Taking turns: each answer to the agent waits until curl and sendfile() have
    # sent the same archive, so that all three see the same machine.
    b.sink.hold = True
    b.sink.open()
    curl = shutil.which("curl")
    curl_runs, kernel_runs = [], []
    for i in range(a.repeat):
        b.sink.wait(i + 1, timeout=120, who="FILE")
        if curl:
            subprocess.run([curl, "-sS", "-o", "/dev/null", "-H", "Expect:", "-H", "SessionId: 5",
                            "-H", "Content-Type: application/octet-stream", "--data-binary", "@" + archive,
                            "http://127.0.0.1:%d%s" % (b.sink.port, UPLOAD)], check=True)
            curl_runs = b.sink.wait(i + 1, 60, who=os.path.basename(curl) + "/" + curl_version(curl))
        sendfile_upload(b.sink.port, archive)
        kernel_runs = b.sink.wait(i + 1, 60, who="sendfile")
        b.sink.release()
    agent_runs = b.sink.wait(a.repeat, 60, who="FILE")
    time.sleep(0.5)
    done.set()
    sampler.join()
    hwm_after = proc_kib(ag.proc.pid, field="VmHWM")
    peak_kib = max(peak[0], hwm_after if hwm_after > hwm_before else 0)

    for who, runs in (("agent", agent_runs), ("curl", curl_runs), ("sendfile", kernel_runs)):
        bad = [r for r in runs if r["length"] != size or (r["start"], r["tail"]) != want]
        if bad:
            say("note: %d %s upload(s) differ from the archive" % (len(bad), who))
    agent_mbs = statistics.median(rate(r) for r in agent_runs)
    rows = [("agent", "%.0f" % agent_mbs, " ".join("%.0f" % rate(r) for r in agent_runs), "")]
    if curl_runs:
        curl_mbs = statistics.median(rate(r) for r in curl_runs)
        rows.append(("curl --data-binary", "%.0f" % curl_mbs, " ".join("%.0f" % rate(r) for r in curl_runs),
                     "agent/curl %.2f" % (agent_mbs / curl_mbs)))
    else:
        rows.append(("curl --data-binary", "-", "-", "curl not installed (script/setup installs it)"))
    rows.append(("sendfile()", "%.0f" % statistics.median(rate(r) for r in kernel_runs),
                 " ".join("%.0f" % rate(r) for r in kernel_runs), "zero-copy sender, for scale"))
    say("upload of one %.1f MB archive to the loopback sink, %d times each, taking turns:" % (size / MB, a.repeat))
    table(["sender", "median MB/s", "runs MB/s", ""], rows)
    say("the sink took up to %.0f MB/s (fastest single run)"
        % max(rate(r) for r in agent_runs + curl_runs + kernel_runs))
    say("agent resident memory: %.1f MiB before its uploads, peak %.1f MiB during them (+%.2f MiB)"
        % (rss_before / 1024.0, peak_kib / 1024.0, (peak_kib - rss_before) / 1024.0))


def first_file_connect(agent):
    """When the agent opened its file connection (its archives all queued), or None."""
    return next((t for t, m in log_events(agent) if m == "socket:(the socket FILE connected)"), None)


def bench_packing(b, a):
    images_dir = b.path("alarmimage", "camera1", "detect1", "NG")
    say("writing %d images of %d kB ..." % (a.images, a.image_kb))
    paths = write_random(images_dir, a.images, a.image_kb * 1000, "img")
    aged = time.time() - 10
    for p in paths:
        os.utime(p, (aged, aged))
    archives = (a.images + 9) // 10
    b.sink.open()
    ag = b.start_agent()
    started = b.started
    got = b.sink.wait(archives, timeout=300)
    queued = first_file_connect(ag)
    received = max(r["end"] for r in got)
    uploads_ok = all(r["line"].startswith("POST " + UPLOAD) and r["session"] == "5" for r in got)

    out = b.path("plain.tar.gz")
    t = time.monotonic()
    subprocess.run("tar -C %s -zcf %s ./alarmimage/camera1/detect1/NG" % (b.work, out), shell=True, check=True)
    plain = time.monotonic() - t
    os.remove(out)

    say("packing %d images of %d kB (%.0f MB), there at start:" % (a.images, a.image_kb,
                                                                    a.images * a.image_kb * 1000 / MB))
    table(["what", "seconds", "images/s", "vs one tar -zcf"],
          [("agent: start -> last archive queued (%d archives)" % archives, "%.2f" % (queued - started),
            "%.0f" % (a.images / (queued - started)), "%.2f" % (plain / (queued - started))),
           ("agent: start -> last archive received", "%.2f" % (received - started),
            "%.0f" % (a.images / (received - started)), "%.2f" % (plain / (received - started))),
           ("tar -zcf of the directory, one command", "%.2f" % plain, "%.0f" % (a.images / plain), "1.00")])
    if not uploads_ok:
        say("note: some requests were not alarm-image uploads")
    return len(got)


def bench_latency(b, a, before):
    from qeltest import child_pids
    # a new run finds every image new again without its time file and the
    # list of what was packed above it
    b.agent.stop()
    b.agent = None
    for name in ("time.txt", "time.packed"):
        os.remove(b.path("qel_net", "qel_alarmimage", name))
    links, file_links = b.app.connection_count(), b.sink.connections
    ag = b.start_agent()
    b.app.wait_connected(15, count=links + 1)
    deadline = time.monotonic() + 60
    while not child_pids(ag.proc.pid) and time.monotonic() < deadline:
        time.sleep(0.005)
    lat = []
    next_at = time.monotonic()
    # until the archives are queued: the file connection opens
    while b.sink.connections == file_links and time.monotonic() < deadline:
        delay = next_at - time.monotonic()
        if delay > 0:
            time.sleep(delay)
        next_at += 0.02
        mark = b.app.mark()
        b.app.send(7, '{"while_packing":%d}' % len(lat))
        sent = b.app.sent()[-1][0]
        lat.append((b.app.wait_notice("back", since=mark, timeout=5)[0]["time"] - sent) * 1000.0)
    b.sink.wait(before * 2, timeout=300)
    if not lat:
        say("note: packing was over before the first message")
        return
    say("application messages every 20 ms while %d images are packed:" % a.images)
    table(["messages", "ack p50 ms", "ack p99 ms", "ack max ms"],
          [(len(lat), "%.1f" % percentile(lat, 50), "%.1f" % percentile(lat, 99), "%.1f" % max(lat))])


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("binary")
    ap.add_argument("what", nargs="?", default="all", choices=("throughput", "packing", "latency", "all"))
    ap.add_argument("--size-mb", type=int, default=200, help="archive size for throughput, MB")
    ap.add_argument("--repeat", type=int, default=9, help="uploads of the archive per sender")
    ap.add_argument("--images", type=int, default=1000, help="images for packing and latency")
    ap.add_argument("--image-kb", type=int, default=200, help="size of each image, kB")
    ap.add_argument("--keep", action="store_true", help="keep the work directories")
    a = ap.parse_args()
    binary = os.path.abspath(a.binary)
    if not os.access(binary, os.X_OK):
        ap.error("not an executable: %s" % binary)

    def run():
        benches = []
        try:
            started = time.monotonic()
            if a.what in ("throughput", "all"):
                benches.append(Bench(binary, a.keep))
                bench_throughput(benches[-1], a)
                benches.pop().close()
                say()
            if a.what in ("packing", "latency", "all"):
                benches.append(Bench(binary, a.keep))
                if a.what == "latency":
                    say("(packing once first, so that the images are there and read before)")
                uploads = bench_packing(benches[-1], a)
                say()
                if a.what in ("latency", "all"):
                    bench_latency(benches[-1], a, uploads)
                benches.pop().close()
            say("took %.0f s" % (time.monotonic() - started))
        finally:
            for b in benches:
                b.close()
    return in_namespaces(__file__, run)


if __name__ == "__main__":
    sys.exit(main())
