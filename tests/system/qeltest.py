"""Harness of the system tests: the real qel_net binary inside the private
namespaces of nsrun.py (Agent.start() refuses to run anywhere else), between
the simulators of tools/: the server on free loopback ports, the application
on the fixed port 8890, cameras in System V shared memory, a CDN sink."""

import collections
import ctypes
import io
import json
import os
import re
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tarfile
import tempfile
import threading
import time
import unittest
from contextlib import closing

SRC = os.environ.get("QEL_SOURCE_DIR") or os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BIN = os.environ.get("QEL_NET_BIN") or os.path.join(os.environ.get("QEL_BINARY_DIR", SRC + "/build/qt6"), "qel_net")
sys.path.insert(0, os.path.join(SRC, "tools"))

from qel_app_sim import AppSim, Camera, announcement, shm_key, write_images, _sysv  # noqa: E402
from qel_cdn_sink import CdnSink  # noqa: E402
from qel_config import DEFAULT_KEYS, DEFAULT_TREE, make_db  # noqa: E402,F401
from qel_server_sim import ServerSim  # noqa: E402

APP_PORT = 8890
HOST = "qel-test-host"
STATS = "/vmu/device/monitor/statistics/upload"
ALARM, TEMPLATE = 5, 6
ITEM_DIR = {ALARM: "qel_alarmimage", TEMPLATE: "qel_tempimage"}
IMAGE_UPLOAD = "/videowatch/uploadImg/saveTarGz/" + HOST
ARCHIVE_NAME = re.compile(r"^Tar_(\d{17})_(\d+)\.tar\.gz$")
_SENT_ARCHIVE = re.compile(r'^"(/[^"\n]*\.tar\.gz)"$', re.M)   # the console's line before an upload
# Qt's complaints about objects used from a thread that does not own them, and sanitizer reports.
BAD_STDERR = re.compile(r"different thread|another thread|QObject::(start|kill)Timer|QBasicTimer|QSocketNotifier|"
                        r"moveToThread|Cannot queue arguments|Destroyed while thread|destroying locked mutex|"
                        r"AddressSanitizer|runtime error:|LeakSanitizer")


def query(db, sql):
    with closing(sqlite3.connect("file:%s?mode=ro" % os.path.abspath(db), uri=True, timeout=5)) as con:
        return [tuple(r) for r in con.execute(sql)]


def read_sysconf(db):
    return query(db, "select 信息名称, 值, 描述 from info_sysconf order by rowid")


def read_failhistory(db):
    """[(ms, text)] in row order; [] without the table."""
    return query(db, "select 发送时间, 内容 from info_failhistory order by rowid") if query(
        db, "select 1 from sqlite_master where name='info_failhistory'") else []


def seed_failhistory(db, texts, ms=1700000000000):
    with closing(sqlite3.connect(db)) as con:
        con.execute("CREATE TABLE IF NOT EXISTS info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)")
        con.executemany("insert into info_failhistory values (?, ?)", [(ms, t) for t in texts])
        con.commit()


def request_text(path, session, body, port):
    """A request exactly as the agent writes it to the information port."""
    return ("POST %s HTTP/1.1\r\nContent-type: application/json\r\nConnection: keep-alive\r\n"
            "SessionId: %d\r\nUser-Agent: INFO\r\nContent-Length: %d\r\nHost: 127.0.0.1:%d\r\n\r\n%s"
            % (path, session, len(body.encode("utf-8")), port, body))


def isolated():
    return os.environ.get("QEL_IN_NS") == "1" and os.readlink("/proc/self/ns/net") != os.environ.get("QEL_HOST_NETNS")


def clear_default_tree():
    """Empties /root/bin-AOI, only when it is the tmpfs that nsrun.py mounted."""
    with open("/proc/self/mountinfo") as f:
        fs = [l.partition(" - ")[2].split()[0] for l in f if l.split()[4] == DEFAULT_TREE]
    if not isolated() or fs[-1:] != ["tmpfs"]:
        raise RuntimeError("refusing to touch %s outside the test namespace" % DEFAULT_TREE)
    for name in os.listdir(DEFAULT_TREE):
        p = os.path.join(DEFAULT_TREE, name)
        shutil.rmtree(p) if os.path.isdir(p) and not os.path.islink(p) else os.remove(p)


def members_of(data):
    with tarfile.open(fileobj=io.BytesIO(data), mode="r:gz") as tf:
        return {m.name: tf.extractfile(m).read() for m in tf if m.isfile()}


def make_archive(path, members, mtime=None):
    """A tar.gz of (name, bytes) members as an earlier run would have left it."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with tarfile.open(path, "w:gz") as tf:
        for name, data in members:
            info = tarfile.TarInfo(name)
            info.size = len(data)
            tf.addfile(info, io.BytesIO(data))
    if mtime is not None:
        os.utime(path, (mtime, mtime))
    return path


def child_pids(pid):
    """Children of `pid`: for the agent, the shells of its tar, mv, rm and top."""
    found = []
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/stat" % entry) as f:
                if int(f.read().rsplit(")", 1)[1].split()[1]) == pid:
                    found.append(int(entry))
        except (OSError, IndexError):
            pass
    return found


def decoded_frames(path):
    """The video frames ffprobe decodes from a stream file (pts, key_frame, size)."""
    r = subprocess.run(["ffprobe", "-v", "error", "-of", "json", "-select_streams", "v:0", "-show_streams",
                        "-show_frames", "-show_entries", "frame=pts,key_frame,width,height:stream=codec_name",
                        path], stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True, timeout=60)
    if r.returncode != 0:
        raise AssertionError("ffprobe %s: %s" % (path, r.stderr[-2000:]))
    out = json.loads(r.stdout)
    return [dict(f, codec=out["streams"][0]["codec_name"]) for f in out.get("frames", [])]


def decode_errors(path):
    r = subprocess.run(["ffmpeg", "-hide_banner", "-v", "error", "-i", path, "-f", "null", "-"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, universal_newlines=True, timeout=120)
    return r.stderr.strip() or ("" if r.returncode == 0 else "exit status %d" % r.returncode)


def segment_exists(camera):
    return _sysv().shmget(shm_key(camera), 0, 0) != -1


_prctl = ctypes.CDLL(None, use_errno=True).prctl


class Agent:
    """One run of the binary in `workdir`; it dies with the test (PR_SET_PDEATHSIG)."""
    _count = 0

    def __init__(self, workdir, args=None, db=None, log_dir=None, notify=False, prefix=()):
        self.workdir, self.prefix = os.path.abspath(workdir), list(prefix)     # prefix: e.g. setpriv, which execs
        self.notices = [] if notify else None     # (monotonic time, text) from NOTIFY_SOCKET
        self.args = list(args) if args is not None else ([db] if db is not None else [])
        self._log_dir, self.proc, self.binary = log_dir, None, BIN
        Agent._count += 1
        self.name = "agent-%d" % Agent._count
        self.stderr_path = os.path.join(self.workdir, self.name + ".stderr")

    def start(self):
        if not isolated():
            raise RuntimeError("refusing to run the agent outside the namespaces of tests/system/nsrun.py")
        os.makedirs(self.workdir, exist_ok=True)
        env = dict(os.environ, QT_FORCE_STDERR_LOGGING="1", QT_LOGGING_TO_CONSOLE="1")
        if self.notices is not None:        # systemd's side of Type=notify
            env["NOTIFY_SOCKET"] = os.path.join(self.workdir, self.name + ".notify")
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            sock.bind(env["NOTIFY_SOCKET"])
            threading.Thread(target=lambda: [self.notices.append((time.monotonic(), sock.recv(4096).decode()))
                                             for _ in iter(int, 1)], daemon=True).start()
        self.started_at = time.monotonic()
        with open(self.stderr_path, "wb") as err:
            self.proc = subprocess.Popen(self.prefix + [self.binary] + self.args, cwd=self.workdir, stdin=subprocess.DEVNULL,
                                         stdout=subprocess.DEVNULL, stderr=err,
                                         env=env,
                                         preexec_fn=lambda: _prctl(1, signal.SIGKILL))
        return self

    def is_running(self):
        return self.proc is not None and self.proc.poll() is None

    def wait_exit(self, timeout=10):
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("agent still running after %.1fs\n%s" % (timeout, self.diagnostics())) from None

    def kill9(self):
        self.proc.kill()
        self.proc.wait()

    def stop(self):
        """SIGTERM, SIGKILL after 5 s; the exit status."""
        if self.proc is not None and self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
        return self.proc.wait() if self.proc else None

    def log_dirs(self):
        """Its own, else the database's "logpath", else ./qel_net/qel_log."""
        db = os.path.join(self.workdir, self.args[0] if len(self.args) == 1 else "sysconf.db")
        try:
            dirs = [self._log_dir] if self._log_dir else [v for k, v, _ in read_sysconf(db) if k == "logpath"]
        except (OSError, sqlite3.Error):
            dirs = []
        dirs = [os.path.realpath(os.path.join(self.workdir, d)) for d in dirs + ["./qel_net/qel_log"]]
        return sorted(set(dirs), key=dirs.index)

    def log_text(self):
        text = ""
        for d in filter(os.path.isdir, self.log_dirs()):
            for n in sorted(os.listdir(d)):
                p = os.path.join(d, n)
                if "INFO" in n and n.endswith(".%dlog" % self.proc.pid) and not os.path.islink(p):
                    with open(p, encoding="utf-8", errors="replace") as f:
                        text += f.read()
        return text

    def log_lines(self):
        """The message part of each glog line."""
        return [l.partition("] ")[2] for l in self.log_text().splitlines() if re.match(r"[IWEF]\d{8} .*\] ", l)]

    def wait_log(self, regex, timeout=10, count=1):
        pattern, deadline = re.compile(regex, re.M), time.monotonic() + timeout
        while True:
            exited = not self.is_running()
            found = list(pattern.finditer(self.log_text()))
            if len(found) >= count:
                return found
            if exited or time.monotonic() >= deadline:
                raise AssertionError("log: %d of %d matches of %r%s\n%s" % (
                    len(found), count, regex, " (agent exited)" if exited else "", self.diagnostics()))
            time.sleep(0.05)

    def stderr_text(self):
        with open(self.stderr_path, encoding="utf-8", errors="replace") as f:
            return f.read()

    def diagnostics(self, lines=40):
        tail = lambda t: "\n".join(t.splitlines()[-lines:])
        return "---- %s %s (%s)\n-- log:\n%s\n-- stderr:\n%s" % (
            self.name, self.args, "running" if self.is_running() else self.proc and self.proc.returncode,
            tail(self.log_text()), tail(self.stderr_text()) if self.proc else "")

    def assert_quiet(self):
        hit = BAD_STDERR.search(self.stderr_text())
        assert not hit, "thread warning or sanitizer report: %r\n%s" % (hit.group(0), self.diagnostics(80))


class AgentTestCase(unittest.TestCase):
    """A fresh work dir per test; agents and simulators stop in tearDown; on a
    failure their logs are printed and the work dir is kept."""

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="qel_%s_" % self.id().rsplit(".", 1)[-1][:40])
        self._agents, self._sims, self._mounts, self._fences = [], [], [], 0
        self.alarm_root, self.apppath = self.path("alarmimage"), self.work

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def agent(self, args=None, db=None, **kw):
        self._agents.append(Agent(kw.pop("workdir", None) or self.work, args=args, db=db, **kw))
        return self._agents[-1]

    def _sim(self, sim):
        self._sims.append(sim)
        return sim.start()

    def server_sim(self, **kw):
        return self._sim(ServerSim(**kw))

    def app_sim(self, **kw):
        return self._sim(AppSim(APP_PORT, **kw))

    def cdn_sink(self, **kw):
        return self._sim(CdnSink(0, directory=self.path("streams-%d" % len(self._sims)), **kw))

    def camera(self, number, width=640, height=480):
        return self._sim(Camera(number, width, height, fps=20))

    def make_db(self, name="sysconf.db", **kw):
        return make_db(self.path(name), self.work, **kw)

    def wait_until(self, predicate, timeout=10, message="condition"):
        deadline = time.monotonic() + timeout
        while True:
            value = predicate()
            if value:
                return value
            if time.monotonic() >= deadline:
                self.fail("%s not met after %.1fs" % (message, timeout))
            time.sleep(0.05)

    def start_all(self, server=True, app=True, wait_login=True, server_kw=None, db_overrides=None,
                  before_start=None, agent_kw=None):
        self.srv = self.server_sim(**(server_kw or {})) if server else None
        if before_start:
            before_start(self.srv)
        self.info_port, self.file_port = (self.srv.info_port, self.srv.file_port) if server else (1, 1)
        self.app = self.app_sim() if app else None
        self.db = self.make_db(info_port=self.info_port, file_port=self.file_port,
                               video_port=self.srv.video_port if server else None, overrides=db_overrides)
        self.ag = self.agent(db=self.db, **(agent_kw or {})).start()
        self.ag.wait_log(r"config success")
        if app:
            self.app.wait_connected(10)
        if server and wait_login:
            self.ag.wait_log(r"recv:3\(result:-- success --\)")
        return self.srv, self.app, self.ag

    def restart(self, db=None):
        self.ag = self.agent(db=db or self.db).start()
        self.ag.wait_log(r"config success")
        return self.ag

    def restart_linked(self):
        """A new run on the same database, once the application link and the login are back."""
        links, logins = self.app.connection_count(), len(self.srv.requests(path="/vmu/device/login"))
        self.restart()
        self.app.wait_connected(15, count=links + 1)
        self.srv.wait_request(path="/vmu/device/login", count=logins + 1, timeout=15)
        return self.ag

    def send_and_ack(self, msg_type, body, within=1.0):
        """Send one message; the time its "/back/" took."""
        mark, t0 = self.app.mark(), time.monotonic()
        self.app.send(msg_type, body)
        self.app.wait_notice("back", since=mark, timeout=within + 5)
        return time.monotonic() - t0

    def assert_clean(self, agent=None):
        self.assertTrue((agent or self.ag).is_running(), "agent is not running any more")
        (agent or self.ag).assert_quiet()

    def workdir(self, item):
        return self.path("qel_net", ITEM_DIR[item])

    def faildir(self, item):
        return self.path("qel_net", "qel_fail", ITEM_DIR[item])

    def write(self, item=ALARM, camera=1, detect=1, kind=None, age=None, **kw):
        """Images written the way the application does; `age` s old if given."""
        paths = write_images(self.alarm_root if item == ALARM else self.work, camera, detect,
                             kind or ("NG" if item == ALARM else "template"), **kw)
        for p in paths if age is not None else []:
            os.utime(p, (time.time() - age, time.time() - age))
        return paths

    def member(self, path):
        return "./" + os.path.relpath(path, self.apppath)

    def uploaded(self):
        """Counter of member names over every archive the server received."""
        return collections.Counter(n for r in self.srv.archives() for n, _ in r["archive"])

    def wait_uploaded(self, paths, timeout=30):
        want = {self.member(p) for p in paths}
        self.wait_until(lambda: not want - set(self.uploaded()), timeout, "uploads of %d image(s)" % len(want))

    def assert_uploaded_once(self, paths):
        counts = self.uploaded()
        self.assertEqual({self.member(p): counts[self.member(p)] for p in paths if counts[self.member(p)] != 1}, {},
                         "images not uploaded exactly once (name: times)")

    def fence(self, item=ALARM):
        """One more image and a look; once its archive is in, everything packed
        before it is too (the packer and the FILE queue keep their order)."""
        self._fences += 1
        name = self.member(self.write(item, prefix="fence%d" % self._fences)[0])
        self.app.send(item, "")
        return self.srv.wait_request(lambda r: name in [m for m, _ in r.get("archive") or []], port="file",
                                     timeout=30)[0]

    def archives_in(self, directory):
        return sorted(n for n in os.listdir(directory) if n.endswith(".tar.gz")) if os.path.isdir(directory) else []

    def sent_archive_paths(self, agent=None):
        return _SENT_ARCHIVE.findall((agent or self.ag).stderr_text())

    def start_video(self, cameras=((0, 320, 240),), announce=True, sink_kw=None, server_kw=None):
        self.sink = self.cdn_sink(**(sink_kw or {}))
        self.cams = [self.camera(n, w, h) for n, w, h in cameras]
        self.start_all(server_kw=dict(server_kw or {}, cdn_port=self.sink.port))
        if announce:
            self.announce(self.cams)
        return self.cams

    def announce(self, cameras_or_body):
        body = cameras_or_body if isinstance(cameras_or_body, str) else announcement(cameras_or_body)
        self.send_and_ack(9, body, within=5)

    def queries(self, camera_id=None):
        return [r for r in self.srv.requests(port="video")
                if camera_id is None or r["query"].get("camera_id") == str(camera_id)]

    def assert_decodes(self, conn, width, height, min_frames=10):
        """Sink connection `conn` decodes as H.264 of that size; its frames."""
        frames = decoded_frames(self.sink.connection(conn)["file"])
        self.assertGreaterEqual(len(frames), min_frames, "decoded frames of connection %d" % conn)
        self.assertEqual({(f["codec"], f["width"], f["height"]) for f in frames}, {("h264", width, height)})
        return frames

    def tearDown(self):
        failed = any(t is self or getattr(t, "test_case", None) is self for t, _ in
                     self._outcome.result.failures + self._outcome.result.errors)
        for thing in self._agents + self._sims[::-1]:
            try:
                thing.close() if isinstance(thing, Camera) else thing.stop()     # a camera removes its buffer
            except Exception as e:  # keep tearing down
                sys.stderr.write("stopping %r: %s\n" % (thing, e))
        for d in reversed(self._mounts):
            subprocess.run(["umount", d], check=False)
        if failed:
            sys.stderr.write("\n==== %s (work dir kept: %s)\n%s\n%s\n" % (
                self.id(), self.work, "\n".join(a.diagnostics() for a in self._agents if a.proc),
                "\n".join("-- %s: %s" % (type(s).__name__, s.status()) for s in self._sims
                          if hasattr(s, "status"))))
        else:
            shutil.rmtree(self.work, ignore_errors=True)
