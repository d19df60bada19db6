"""Harness for the agent's system tests.

Tests run the real qel_net binary inside the private namespaces set up by
nsrun.py (loopback only, tmpfs over /root/bin-AOI). Agent.start() refuses to
run anywhere else.

    class MyTest(qeltest.AgentTestCase):
        def test_x(self):
            srv = self.server_sim()
            db = qeltest.make_db(self.path("sysconf.db"), self.work,
                                 info_port=srv.info_port, file_port=srv.file_port)
            agent = self.agent(db=db).start()
            agent.wait_log(r"config success")
"""

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

SRC = os.environ.get("QEL_SOURCE_DIR") or os.path.dirname(os.path.dirname(
    os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get("QEL_BINARY_DIR")
BIN = os.environ.get("QEL_NET_BIN") or (os.path.join(BUILD, "qel_net") if BUILD else None)

_TOOLS = os.path.join(SRC, "tools")
if _TOOLS not in sys.path:
    sys.path.insert(0, _TOOLS)

from qel_app_sim import AppSim          # noqa: E402  (re-exported for tests)
from qel_server_sim import ServerSim    # noqa: E402

DEFAULT_TREE = "/root/bin-AOI"
TEST_HOST_NAME = "qel-test-host"
BANNER = "version:1.0.2 release"
STATUS_SUCCESS = "config success"
STATUS_OPEN_ERROR = "config.SQL open error"
STATUS_INCOMPLETE = "The data is incomplete"
FALLBACK_LOG_DIR = "./qel_net/qel_log"

SYSCONF_CREATE = ("CREATE TABLE info_sysconf(信息名称 CHAR(100) PRIMARY KEY NOT NULL,"
                  "值 CHAR(100) NOT NULL,描述 CHAR(100) NOT NULL)")
FAILHISTORY_CREATE = "CREATE TABLE info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)"

# The configuration keys in load order: (key, default value, description).
DEFAULT_KEYS = [
    ("alarmimage", "/root/bin-AOI/alarmimage/", "报警图片存放的根目录"),
    ("template", "/root/bin-AOI/", "模板图片存放的根目录"),
    ("apppath", "/root/bin-AOI/", "编码进程存放的目录"),
    ("failpath", "/root/bin-AOI/qel_net/qel_fail/", "保存失败文件或信息的路径"),
    ("logpath", "/root/bin-AOI/qel_net/qel_log/", "日志保存路径"),
    ("qelpath", "/root/bin-AOI/qel_net/", "qel_net执行工作路径"),
    ("tdata", "/root/bin-AOI/qel_net/data/", "存放临时文件的路径"),
    ("serverip_info", "192.168.1.1", "信息的ip地址"),
    ("serverip_file", "192.168.1.1", "文件的ip地址"),
    ("serverip_video", "192.168.1.1", "视频流的ip地址"),
    ("serverport_info", "8000", "信息的端口"),
    ("serverport_file", "8080", "文件的端口"),
    ("serverport_video", "8888", "视频流的端口"),
    ("camera", "4", "使用的最大相机数"),
    ("detect", "2", "使用的检测序号数目"),
    ("useInlineName", "_dmrkpf_", "在调试中使用指定的设备号"),
    ("apppath_send", "/root/bin-AOI/qel_net/Quillon2", "发送app所在的路径"),
    ("thispath", "/root/bin-AOI/qel_net/sysconf.db", "本db文件所在的绝对路径"),
]
KEYS = [k for k, _, _ in DEFAULT_KEYS]

# Qt's complaints about objects, timers and sockets touched from a thread
# that does not own them. Each is a regular expression searched in stderr.
QT_THREAD_WARNING_PATTERNS = [
    r"Cannot create children for a parent that is in a different thread",
    r"Cannot set parent, new parent is in a different thread",
    r"Cannot send events to objects owned by a different thread",
    r"Timers cannot be started from another thread",
    r"Timers cannot be stopped from another thread",
    r"Timers can only be used with threads started with QThread",
    r"QObject::startTimer",
    r"QObject::killTimer",
    r"QBasicTimer",
    r"Socket notifiers cannot be enabled or disabled from another thread",
    r"QSocketNotifier",
    r"moveToThread",
    r"Cannot queue arguments of type",
    r"QThread: Destroyed while thread is still running",
    r"QMutex: destroying locked mutex",
]
SANITIZER_PATTERNS = [
    r"ERROR: AddressSanitizer",
    r"runtime error:",
    r"LeakSanitizer",
    r"ThreadSanitizer",
]

_LOG_NAME_PID = re.compile(r"\.(\d+)log$")


def free_port():
    """A TCP port on 127.0.0.1 that was free a moment ago."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _under(workdir, default):
    """A default path with /root/bin-AOI/ replaced by `workdir`."""
    prefix = DEFAULT_TREE + "/"
    return os.path.join(workdir, default[len(prefix):]) if default.startswith(prefix) else default


def config_rows(workdir, info_port=None, file_port=None, video_port=8888):
    """The 18 (key, value, description) rows make_db writes, before overrides."""
    workdir = os.path.abspath(workdir)
    values = {
        "serverip_info": "127.0.0.1", "serverip_file": "127.0.0.1", "serverip_video": "127.0.0.1",
        "serverport_info": str(8000 if info_port is None else info_port),
        "serverport_file": str(8080 if file_port is None else file_port),
        "serverport_video": str(video_port),
    }
    rows = []
    for key, default, desc in DEFAULT_KEYS:
        value = values.get(key, _under(workdir, default))
        if value == workdir:
            value += "/"
        rows.append((key, value, desc))
    return rows


def make_db(path, workdir, info_port=None, file_port=None, video_port=8888, overrides=None,
            failhistory=None):
    """Write a configuration database for a loopback run and return `path`.

    Paths point under `workdir`, servers at 127.0.0.1. `overrides` maps a key
    to a new value, or to None to leave that row out (unknown keys are added).
    `failhistory` (texts or (ms, text) pairs) also creates that table.
    """
    overrides = dict(overrides or {})
    rows = []
    for key, value, desc in config_rows(workdir, info_port, file_port, video_port):
        if key in overrides:
            value = overrides.pop(key)
            if value is None:
                continue
        rows.append((key, value, desc))
    rows += [(k, v, "") for k, v in overrides.items() if v is not None]
    if os.path.dirname(path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
    if os.path.exists(path):
        os.remove(path)
    con = sqlite3.connect(path)
    try:
        con.execute(SYSCONF_CREATE)
        con.executemany("insert into info_sysconf (信息名称,值,描述) values (?, ?, ?)", rows)
        if failhistory is not None:
            con.execute(FAILHISTORY_CREATE)
            now = int(time.time() * 1000)
            con.executemany("insert into info_failhistory (发送时间,内容) values (?, ?)",
                            [t if isinstance(t, tuple) else (now, t) for t in failhistory])
        con.commit()
    finally:
        con.close()
    return path


def _connect_ro(db):
    if not os.path.exists(db):
        raise FileNotFoundError(db)
    return sqlite3.connect("file:%s?mode=ro" % os.path.abspath(db), uri=True, timeout=5)


def table_names(db):
    con = _connect_ro(db)
    try:
        return sorted(r[0] for r in con.execute("select name from sqlite_master where type='table'"))
    finally:
        con.close()


def read_sysconf(db):
    """[(key, value, description)] in row order."""
    con = _connect_ro(db)
    try:
        return [tuple(r) for r in con.execute(
            "select 信息名称, 值, 描述 from info_sysconf order by rowid")]
    finally:
        con.close()


def read_failhistory(db):
    """[(ms, text)] in row order; [] when the table does not exist."""
    con = _connect_ro(db)
    try:
        if not con.execute("select name from sqlite_master where name='info_failhistory'").fetchone():
            return []
        return [tuple(r) for r in con.execute(
            "select 发送时间, 内容 from info_failhistory order by rowid")]
    finally:
        con.close()


def sysconf_value(db, key):
    for k, v, _ in read_sysconf(db):
        if k == key:
            return v
    return None


# ---- isolation ------------------------------------------------------------

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
            for line in f.readlines()[1:]:
                fields = line.split()
                if len(fields) > 2 and fields[1] == "00000000" and fields[7] == "00000000":
                    problems.append("default route via %s" % fields[0])
    except OSError as e:
        problems.append("cannot read routes: %s" % e)
    try:
        for name in _interfaces():
            if name != "lo" and _interface_flags(name) & 0x1:    # IFF_UP
                problems.append("interface %s is up" % name)
    except OSError as e:
        problems.append("cannot read interfaces: %s" % e)
    return problems


def _interfaces():
    # /proc/net follows the network namespace; /sys/class/net need not.
    with open("/proc/net/dev") as f:
        return [line.split(":", 1)[0].strip() for line in f.readlines()[2:] if ":" in line]


def _interface_flags(name):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        req = struct.pack("16sH", name.encode()[:15], 0)
        return struct.unpack("16sH", fcntl.ioctl(s.fileno(), 0x8913, req)[:18])[1]  # SIOCGIFFLAGS


def default_tree_is_private():
    """True when /root/bin-AOI is the tmpfs that nsrun.py mounted."""
    return not isolation_problems() and _fs_type(DEFAULT_TREE) == "tmpfs"


def _fs_type(mount_point):
    """File system type of the topmost mount at `mount_point`, or None."""
    fs = None
    try:
        with open("/proc/self/mountinfo") as f:
            for line in f:
                left, _, right = line.partition(" - ")
                if left.split()[4] == mount_point:
                    fs = right.split()[0]
    except (OSError, IndexError):
        return None
    return fs


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


try:
    _prctl = ctypes.CDLL(None, use_errno=True).prctl
except (OSError, AttributeError):
    _prctl = None


def _die_with_parent():
    # The agent goes down with the thread that started it, so a killed test
    # run leaves no agent behind.
    if _prctl is not None:
        _prctl(1, signal.SIGKILL)   # PR_SET_PDEATHSIG


def _tail(text, lines=40):
    return "\n".join(text.splitlines()[-lines:])


# ---- the agent ----------------------------------------------------------

class Agent:
    """One run of the agent binary with its own work directory.

    args: command-line arguments (default: [db] when db is given, else none).
    log_dir: where its glog files are expected; by default the "logpath" of
    the database it uses, or ./qel_net/qel_log under workdir (failure path);
    both are searched by log_text(), which reads only this run's files (the
    pid in the file name). umask: for the agent process.
    The agent is killed when the thread that started it ends (a killed test
    run leaves no agent behind), so start agents from the test's own thread.
    """

    _count = 0

    def __init__(self, workdir, args=None, db=None, env=None, log_dir=None, umask=None, binary=None):
        self.workdir = os.path.abspath(workdir)
        self.db = db
        self.args = list(args) if args is not None else ([db] if db is not None else [])
        self.env = dict(os.environ)
        self.env.update({"QT_FORCE_STDERR_LOGGING": "1", "QT_LOGGING_TO_CONSOLE": "1"})
        self.env.update(env or {})
        self._log_dir = log_dir
        self.umask = umask
        self.binary = binary or BIN
        self.proc = None
        Agent._count += 1
        self.name = "agent-%d" % Agent._count
        self.stdout_path = os.path.join(self.workdir, self.name + ".stdout")
        self.stderr_path = os.path.join(self.workdir, self.name + ".stderr")
        self.started_at = None

    # ---- running ----

    def start(self):
        problems = isolation_problems()
        if problems:
            raise RuntimeError("refusing to run the agent: " + "; ".join(problems))
        if not self.binary or not os.access(self.binary, os.X_OK):
            raise RuntimeError("agent binary not found: set QEL_NET_BIN (now %r)" % self.binary)
        os.makedirs(self.workdir, exist_ok=True)
        with open(self.stdout_path, "wb") as out, open(self.stderr_path, "wb") as err:
            kwargs = {}
            if self.umask is not None:
                kwargs["umask"] = self.umask
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
            raise AssertionError("agent still running after %.1fs\n%s"
                                 % (timeout, self.diagnostics())) from None

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

    # ---- output ----

    def used_db(self):
        """The database path this run uses, resolved against the work dir."""
        path = self.args[0] if len(self.args) == 1 else "./sysconf.db"
        return os.path.normpath(os.path.join(self.workdir, path))

    def log_dirs(self):
        if self._log_dir is not None:
            return [os.path.join(self.workdir, self._log_dir)]
        dirs = []
        try:
            logpath = sysconf_value(self.used_db(), "logpath")
            if logpath:
                dirs.append(os.path.join(self.workdir, logpath))
        except (OSError, sqlite3.Error):
            pass
        dirs.append(os.path.join(self.workdir, FALLBACK_LOG_DIR))
        seen, out = set(), []
        for d in dirs:
            key = os.path.realpath(d)
            if key not in seen:
                seen.add(key)
                out.append(d)
        return out

    def log_files(self):
        """This run's glog INFO files (regular files named ...INFO...<pid>log)."""
        files = []
        for d in self.log_dirs():
            try:
                names = os.listdir(d)
            except OSError:
                continue
            for name in names:
                p = os.path.join(d, name)
                m = _LOG_NAME_PID.search(name)
                if ("INFO" in name and not os.path.islink(p) and os.path.isfile(p)
                        and m and int(m.group(1)) == self.pid):
                    files.append(p)
        return sorted(files)

    @property
    def log_dir(self):
        files = self.log_files()
        if files:
            return os.path.dirname(files[0])
        return self.log_dirs()[0]

    def log_text(self):
        parts = []
        for p in self.log_files():
            with open(p, encoding="utf-8", errors="replace") as f:
                parts.append(f.read())
        return "".join(parts)

    def log_lines(self):
        """The message part of each glog line ("I... file:line] message")."""
        out = []
        for line in self.log_text().splitlines():
            _, sep, msg = line.partition("] ")
            if sep and re.match(r"[IWEF]\d{8} ", line):
                out.append(msg)
        return out

    def wait_log(self, regex, timeout=10, count=1):
        """Poll the log until `regex` matched `count` times; returns the matches."""
        pattern = re.compile(regex, re.M)
        deadline = time.monotonic() + timeout
        while True:
            found = list(pattern.finditer(self.log_text()))
            if len(found) >= count:
                return found
            exited = not self.is_running()
            if exited or time.monotonic() >= deadline:
                found = list(pattern.finditer(self.log_text()))
                if len(found) >= count:
                    return found
                raise AssertionError("log: %d of %d matches of %r %s\n%s" % (
                    len(found), count, regex,
                    "and the agent has exited" if exited else "after %.1fs" % timeout,
                    self.diagnostics()))
            time.sleep(0.05)

    def _read(self, path):
        try:
            with open(path, encoding="utf-8", errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def stderr_text(self):
        return self._read(self.stderr_path)

    def stdout_text(self):
        return self._read(self.stdout_path)

    def diagnostics(self, lines=40):
        state = ("running" if self.is_running() else
                 "exit status %s" % (self.proc.returncode if self.proc else "(never started)"))
        return ("---- %s (%s) %s %s; log dirs %s\n---- log tail:\n%s\n---- stderr tail:\n%s\n----"
                % (self.name, state, self.binary, self.args, self.log_dirs(),
                   _tail(self.log_text(), lines), _tail(self.stderr_text(), lines)))

    # ---- checks ----

    def assert_no_qt_thread_warnings(self):
        text = self.stderr_text()
        hits = [p for p in QT_THREAD_WARNING_PATTERNS if re.search(p, text)]
        if hits:
            raise AssertionError("Qt thread warnings in stderr (%s):\n%s" % (
                ", ".join(hits), _tail(text)))

    def assert_no_sanitizer_reports(self):
        text = self.stderr_text()
        hits = [p for p in SANITIZER_PATTERNS if re.search(p, text)]
        if hits:
            raise AssertionError("sanitizer reports in stderr (%s):\n%s" % (
                ", ".join(hits), _tail(text, 80)))


# ---- the test case base -----------------------------------------------------

class _Tracked:
    def __init__(self, obj):
        self.obj = obj

    def stop(self):
        self.obj.stop()


class AgentTestCase(unittest.TestCase):
    """Fresh work dir per test (self.work); started agents and simulators are
    stopped in tearDown; on failure their logs are printed and the work dir
    is kept (it is removed otherwise, unless QEL_KEEP_WORK=1)."""

    def setUp(self):
        super().setUp()
        name = self.id().rsplit(".", 1)[-1][:40]
        self.work = tempfile.mkdtemp(prefix="qel_%s_" % name)
        self._agents = []
        self._sims = []
        self._mounts = []

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def agent(self, args=None, db=None, env=None, workdir=None, **kw):
        a = Agent(workdir or self.work, args=args, db=db, env=env, **kw)
        self._agents.append(a)
        return a

    def _record_name(self, stem):
        n = sum(1 for s in self._sims if not isinstance(s, _Tracked)) + 1
        return self.path("%s-%d.jsonl" % (stem, n))

    def server_sim(self, info_port=0, file_port=0, **kw):
        """A started ServerSim (free ports by default), recording to the work dir."""
        kw.setdefault("record", self._record_name("server-requests"))
        s = ServerSim(info_port, file_port, **kw).start()
        self._sims.append(s)
        return s

    def app_sim(self, port=0, **kw):
        """A started AppSim (pass port=8890 for the agent's fixed link port)."""
        kw.setdefault("record", self._record_name("app-notices"))
        s = AppSim(port, **kw).start()
        self._sims.append(s)
        return s

    def track(self, obj):
        """Stop `obj` (anything with stop()) in tearDown."""
        self._sims.append(_Tracked(obj))
        return obj

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
        errors = getattr(outcome, "errors", None)     # before Python 3.11
        if errors and any(exc for _, exc in errors):
            return True
        result = getattr(outcome, "result", None)
        for test, _ in getattr(result, "failures", []) + getattr(result, "errors", []):
            if test is self or getattr(test, "test_case", None) is self:
                return True
        return False

    def tearDown(self):
        failed = self._failed()
        for a in self._agents:
            try:
                a.stop()
            except Exception as e:  # keep tearing down
                sys.stderr.write("stopping %s: %s\n" % (a.name, e))
        for s in reversed(self._sims):
            try:
                s.stop()
            except Exception as e:
                sys.stderr.write("stopping simulator: %s\n" % e)
        for d in reversed(self._mounts):
            subprocess.run(["umount", d], check=False)
        if failed:
            out = ["\n==== %s: diagnostics (work dir kept: %s)" % (self.id(), self.work)]
            out += [a.diagnostics() for a in self._agents if a.proc is not None]
            for s in self._sims:
                if isinstance(s, ServerSim):
                    out.append("---- server sim: %s; last requests:" % s.status())
                    out += ["  %s %s SessionId=%s body=%r" % (r["method"], r["path"], r["session"],
                                                              r["body"][:200])
                            for r in s.requests()[-10:]]
                elif isinstance(s, AppSim):
                    out.append("---- app sim: last notices:")
                    out += ["  %s SessionId=%s %r" % (n["kind"], n["session"], n["raw"][:200])
                            for n in s.notices()[-10:]]
            sys.stderr.write("\n".join(out) + "\n")
        elif os.environ.get("QEL_KEEP_WORK") != "1":
            shutil.rmtree(self.work, ignore_errors=True)
        super().tearDown()
