"""Harness for the agent's system tests: the real qel_net binary runs inside the
private namespaces of nsrun.py (loopback only, tmpfs over /root/bin-AOI), and
Agent.start() refuses to run anywhere else."""

import ctypes
import fcntl
import os
import re
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from contextlib import closing

SRC = os.environ.get("QEL_SOURCE_DIR") or os.path.dirname(os.path.dirname(
    os.path.dirname(os.path.abspath(__file__))))
BIN = os.environ.get("QEL_NET_BIN") or (
    os.path.join(os.environ["QEL_BINARY_DIR"], "qel_net") if os.environ.get("QEL_BINARY_DIR") else None)

_TOOLS = os.path.join(SRC, "tools")
if _TOOLS not in sys.path:
    sys.path.insert(0, _TOOLS)

from qel_app_sim import AppSim, Camera  # noqa: E402  (re-exported for tests)
from qel_cdn_sink import CdnSink        # noqa: E402
from qel_server_sim import ServerSim    # noqa: E402
from qel_config import DEFAULT_KEYS, DEFAULT_TREE, SYSCONF_CREATE, make_db  # noqa: E402,F401

TEST_HOST_NAME = "qel-test-host"
BANNER = "version:1.0.2 release"
STATUS_SUCCESS = "config success"
STATUS_OPEN_ERROR = "config.SQL open error"
STATUS_INCOMPLETE = "The data is incomplete"
FALLBACK_LOG_DIR = "./qel_net/qel_log"

# Qt's complaints about objects, timers and sockets touched from a thread
# that does not own them, and sanitizer reports: regular expressions searched in stderr.
QT_THREAD_WARNING_PATTERNS = [
    r"Cannot create children for a parent that is in a different thread",
    r"Cannot set parent, new parent is in a different thread",
    r"Cannot send events to objects owned by a different thread",
    r"Timers cannot be started from another thread", r"Timers cannot be stopped from another thread",
    r"Timers can only be used with threads started with QThread",
    r"QObject::startTimer", r"QObject::killTimer", r"QBasicTimer",
    r"Socket notifiers cannot be enabled or disabled from another thread",
    r"QSocketNotifier", r"moveToThread", r"Cannot queue arguments of type",
    r"QThread: Destroyed while thread is still running", r"QMutex: destroying locked mutex",
]
SANITIZER_PATTERNS = [r"ERROR: AddressSanitizer", r"runtime error:", r"LeakSanitizer", r"ThreadSanitizer"]


def free_port():
    """A TCP port on 127.0.0.1 that was free a moment ago."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _query(db, sql):
    """All rows of `sql` as tuples, read through a read-only connection."""
    if not os.path.exists(db):
        raise FileNotFoundError(db)
    with closing(sqlite3.connect("file:%s?mode=ro" % os.path.abspath(db), uri=True, timeout=5)) as con:
        return [tuple(r) for r in con.execute(sql)]


def table_names(db):
    return sorted(r[0] for r in _query(db, "select name from sqlite_master where type='table'"))


def read_sysconf(db):
    """[(key, value, description)] in row order."""
    return _query(db, "select 信息名称, 值, 描述 from info_sysconf order by rowid")


def read_failhistory(db):
    """[(ms, text)] in row order; [] when the table does not exist."""
    if "info_failhistory" not in table_names(db):
        return []
    return _query(db, "select 发送时间, 内容 from info_failhistory order by rowid")


def sysconf_value(db, key):
    return next((v for k, v, _ in read_sysconf(db) if k == key), None)


def isolation_problems():
    """Reasons why running the agent here would be unsafe ([] when safe)."""
    problems = []
    if os.environ.get("QEL_IN_NS") != "1":
        problems.append("not started through tests/system/nsrun.py (QEL_IN_NS unset)")
    try:
        if os.readlink("/proc/self/ns/net") == os.readlink("/proc/1/ns/net"):
            problems.append("same network namespace as process 1")
    except OSError:
        pass
    try:
        with open("/proc/net/route") as f:
            for fields in (line.split() for line in f.readlines()[1:]):
                if len(fields) > 7 and fields[1] == "00000000" and fields[7] == "00000000":
                    problems.append("default route via %s" % fields[0])
    except OSError as e:
        problems.append("cannot read routes: %s" % e)
    try:
        # /proc/net follows the network namespace; /sys/class/net need not.
        with open("/proc/net/dev") as f:
            names = [line.split(":", 1)[0].strip() for line in f.readlines()[2:] if ":" in line]
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            for name in names:
                req = struct.pack("16sH", name.encode()[:15], 0)
                flags = struct.unpack("16sH", fcntl.ioctl(s.fileno(), 0x8913, req)[:18])[1]  # SIOCGIFFLAGS
                if name != "lo" and flags & 0x1:    # IFF_UP
                    problems.append("interface %s is up" % name)
    except OSError as e:
        problems.append("cannot read interfaces: %s" % e)
    return problems


def default_tree_is_private():
    """True when /root/bin-AOI is the tmpfs that nsrun.py mounted (the topmost mount there)."""
    if isolation_problems():
        return False
    fs = None
    try:
        with open("/proc/self/mountinfo") as f:
            for line in f:
                left, _, right = line.partition(" - ")
                if left.split()[4] == DEFAULT_TREE:
                    fs = right.split()[0]
    except (OSError, IndexError):
        return False
    return fs == "tmpfs"


def clear_default_tree():
    """Empty the private /root/bin-AOI between default-configuration runs."""
    if not default_tree_is_private():
        raise RuntimeError("refusing to touch %s outside the test namespace" % DEFAULT_TREE)
    for name in os.listdir(DEFAULT_TREE):
        p = os.path.join(DEFAULT_TREE, name)
        if os.path.isdir(p) and not os.path.islink(p):
            shutil.rmtree(p)
        else:
            os.remove(p)


_prctl = getattr(ctypes.CDLL(None, use_errno=True), "prctl", None)


def _die_with_parent():
    if _prctl is not None:
        _prctl(1, signal.SIGKILL)   # PR_SET_PDEATHSIG: a killed test run leaves no agent behind


def _tail(text, lines=40):
    return "\n".join(text.splitlines()[-lines:])


class Agent:
    """One run of the agent binary in `workdir` (args default to [db]). Its glog
    files are looked for in log_dir, else in the database's "logpath" and in
    ./qel_net/qel_log. The agent dies with the thread that started it."""

    _count = 0

    def __init__(self, workdir, args=None, db=None, log_dir=None, umask=None):
        self.workdir = os.path.abspath(workdir)
        self.args = list(args) if args is not None else ([db] if db is not None else [])
        self.env = dict(os.environ, QT_FORCE_STDERR_LOGGING="1", QT_LOGGING_TO_CONSOLE="1")
        self._log_dir = log_dir
        self.umask = umask
        self.binary = BIN
        self.proc = None
        self.started_at = None
        Agent._count += 1
        self.name = "agent-%d" % Agent._count
        self.stdout_path = os.path.join(self.workdir, self.name + ".stdout")
        self.stderr_path = os.path.join(self.workdir, self.name + ".stderr")

    def start(self):
        problems = isolation_problems()
        if problems:
            raise RuntimeError("refusing to run the agent: " + "; ".join(problems))
        if not self.binary or not os.access(self.binary, os.X_OK):
            raise RuntimeError("agent binary not found: set QEL_NET_BIN (now %r)" % self.binary)
        os.makedirs(self.workdir, exist_ok=True)
        with open(self.stdout_path, "wb") as out, open(self.stderr_path, "wb") as err:
            kwargs = {} if self.umask is None else {"umask": self.umask}
            self.proc = subprocess.Popen([self.binary] + self.args, cwd=self.workdir, env=self.env,
                                         stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                         preexec_fn=_die_with_parent, **kwargs)
        self.started_at = time.monotonic()
        return self

    @property
    def pid(self):
        return self.proc.pid if self.proc else None

    def is_running(self):
        return self.proc is not None and self.proc.poll() is None

    def wait_exit(self, timeout=10):
        """Exit status (negative: killed by that signal); AssertionError on time-out."""
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("agent still running after %.1fs\n%s" % (timeout, self.diagnostics())) from None

    def kill9(self):
        if self.is_running():
            self.proc.kill()
        return self.proc.wait() if self.proc else None

    def stop(self):
        """SIGTERM, then SIGKILL after 5 s; returns the exit status."""
        if self.proc is None:
            return None
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
        return self.proc.wait()

    def log_dirs(self):
        if self._log_dir is not None:
            return [os.path.join(self.workdir, self._log_dir)]
        # Exactly one argument is the database path, otherwise ./sysconf.db.
        db = os.path.join(self.workdir, self.args[0] if len(self.args) == 1 else "sysconf.db")
        try:
            logpath = sysconf_value(db, "logpath")
        except (OSError, sqlite3.Error):
            logpath = None
        dirs = [os.path.join(self.workdir, d) for d in (logpath, FALLBACK_LOG_DIR) if d]
        return [d for i, d in enumerate(dirs) if os.path.realpath(d) not in map(os.path.realpath, dirs[:i])]

    def log_files(self):
        """This run's glog INFO files (regular files named ...INFO...<pid>log)."""
        files = []
        for d in filter(os.path.isdir, self.log_dirs()):
            files += [os.path.join(d, n) for n in os.listdir(d) if "INFO" in n and n.endswith(".%slog" % self.pid)]
        return sorted(p for p in files if os.path.isfile(p) and not os.path.islink(p))

    @property
    def log_dir(self):
        files = self.log_files()
        return os.path.dirname(files[0]) if files else self.log_dirs()[0]

    def log_text(self):
        parts = []
        for p in self.log_files():
            with open(p, encoding="utf-8", errors="replace") as f:
                parts.append(f.read())
        return "".join(parts)

    def log_lines(self):
        """The message part of each glog line ("I... file:line] message")."""
        return [line.partition("] ")[2] for line in self.log_text().splitlines()
                if "] " in line and re.match(r"[IWEF]\d{8} ", line)]

    def wait_log(self, regex, timeout=10, count=1):
        """Poll the log until `regex` matched `count` times; returns the matches."""
        pattern = re.compile(regex, re.M)
        deadline = time.monotonic() + timeout
        while True:
            exited = not self.is_running()
            found = list(pattern.finditer(self.log_text()))
            if len(found) >= count:
                return found
            if exited or time.monotonic() >= deadline:
                raise AssertionError("log: %d of %d matches of %r %s\n%s" % (
                    len(found), count, regex,
                    "and the agent has exited" if exited else "after %.1fs" % timeout, self.diagnostics()))
            time.sleep(0.05)

    def stderr_text(self):
        try:
            with open(self.stderr_path, encoding="utf-8", errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def diagnostics(self, lines=40):
        state = ("running" if self.is_running() else
                 "exit status %s" % (self.proc.returncode if self.proc else "(never started)"))
        return ("---- %s (%s) %s %s; log dirs %s\n---- log tail:\n%s\n---- stderr tail:\n%s\n----"
                % (self.name, state, self.binary, self.args, self.log_dirs(),
                   _tail(self.log_text(), lines), _tail(self.stderr_text(), lines)))

    def _assert_no_match(self, patterns, what, lines):
        text = self.stderr_text()
        hits = [p for p in patterns if re.search(p, text)]
        if hits:
            raise AssertionError("%s in stderr (%s):\n%s" % (what, ", ".join(hits), _tail(text, lines)))

    def assert_no_qt_thread_warnings(self):
        self._assert_no_match(QT_THREAD_WARNING_PATTERNS, "Qt thread warnings", 40)

    def assert_no_sanitizer_reports(self):
        self._assert_no_match(SANITIZER_PATTERNS, "sanitizer reports", 80)


class AgentTestCase(unittest.TestCase):
    """Fresh work dir per test (self.work); agents and simulators are stopped in tearDown.
    On failure their logs are printed and the work dir kept (also with QEL_KEEP_WORK=1)."""

    def setUp(self):
        super().setUp()
        self.work = tempfile.mkdtemp(prefix="qel_%s_" % self.id().rsplit(".", 1)[-1][:40])
        self._agents, self._sims, self._mounts = [], [], []

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def agent(self, args=None, db=None, workdir=None, **kw):
        a = Agent(workdir or self.work, args=args, db=db, **kw)
        self._agents.append(a)
        return a

    def server_sim(self, info_port=0, file_port=0, **kw):
        """A started ServerSim (free ports by default), recording to the work dir."""
        kw.setdefault("record", self.path("server-requests-%d.jsonl" % (len(self._sims) + 1)))
        self._sims.append(ServerSim(info_port, file_port, **kw).start())
        return self._sims[-1]

    def app_sim(self, port=0, **kw):
        """A started AppSim (pass port=8890 for the agent's fixed link port)."""
        kw.setdefault("record", self.path("app-notices-%d.jsonl" % (len(self._sims) + 1)))
        self._sims.append(AppSim(port, **kw).start())
        return self._sims[-1]

    def cdn_sink(self, port=0, **kw):
        """A started CdnSink (free port by default), saving streams and events to the work dir."""
        n = len(self._sims) + 1
        kw.setdefault("directory", self.path("streams-%d" % n))
        kw.setdefault("record", self.path("cdn-events-%d.jsonl" % n))
        self._sims.append(CdnSink(port, **kw).start())
        return self._sims[-1]

    def camera(self, number, width=640, height=480, fps=20, start=True, **kw):
        """A Camera whose frame buffer is removed in tearDown (writing unless start=False)."""
        cam = Camera(number, width, height, fps=fps, **kw)
        self._sims.append(cam)
        return cam.start() if start else cam

    def make_db(self, name="sysconf.db", **kw):
        return make_db(self.path(name), self.work, **kw)

    def bind_read_only(self, directory):
        """Make `directory` read-only (bind mount in the test namespace)."""
        if isolation_problems():
            raise RuntimeError("refusing to mount outside the test namespace")
        subprocess.run(["mount", "--bind", directory, directory], check=True)
        self._mounts.append(directory)
        subprocess.run(["mount", "-o", "remount,bind,ro", directory], check=True)

    def wait_until(self, predicate, timeout=10, message="condition", interval=0.05):
        deadline = time.monotonic() + timeout
        while True:
            value = predicate()
            if value:
                return value
            if time.monotonic() >= deadline:
                self.fail("%s not met after %.1fs" % (message, timeout))
            time.sleep(interval)

    def _failed(self):
        """Whether the test body or one of its subtests has failed so far."""
        outcome = getattr(self, "_outcome", None)
        if outcome is None:
            return False
        if any(exc for _, exc in getattr(outcome, "errors", None) or []):     # before Python 3.11
            return True
        result = getattr(outcome, "result", None)
        return any(test is self or getattr(test, "test_case", None) is self
                   for test, _ in getattr(result, "failures", []) + getattr(result, "errors", []))

    def tearDown(self):
        failed = self._failed()
        for thing in self._agents + self._sims[::-1]:
            try:
                if isinstance(thing, Camera):
                    thing.close()       # also removes its segment and semaphore
                else:
                    thing.stop()
            except Exception as e:  # keep tearing down
                sys.stderr.write("stopping %r: %s\n" % (thing, e))
        for d in reversed(self._mounts):
            subprocess.run(["umount", d], check=False)
        if failed:
            out = ["\n==== %s: diagnostics (work dir kept: %s)" % (self.id(), self.work)]
            out += [a.diagnostics() for a in self._agents if a.proc is not None]
            for s in self._sims:
                if isinstance(s, ServerSim):
                    out.append("---- server sim: %s; last requests:" % s.status())
                    out += ["  %s %s SessionId=%s body=%r" % (r["method"], r["path"], r["session"], r["body"][:200])
                            for r in s.requests()[-10:]]
                elif isinstance(s, CdnSink):
                    out.append("---- cdn sink: %s; last connections:" % s.status())
                    out += ["  #%d %r %d bytes%s" % (c["conn"], c["head"], c["bytes"],
                                                     "" if c["open"] else " closed by %s" % c["closed_by"])
                            for c in s.connections()[-10:]]
                elif isinstance(s, Camera):
                    out.append("---- camera %d (shmid %d semid %d): %s" % (s.number, s.shmid, s.semid,
                                                                         s.wait_stats()))
                else:
                    out.append("---- app sim: last notices:")
                    out += ["  %s SessionId=%s %r" % (n["kind"], n["session"], n["raw"][:200])
                            for n in s.notices()[-10:]]
            sys.stderr.write("\n".join(out) + "\n")
        elif os.environ.get("QEL_KEEP_WORK") != "1":
            shutil.rmtree(self.work, ignore_errors=True)
        super().tearDown()
