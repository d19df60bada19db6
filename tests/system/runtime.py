"""Common set-up of the messaging scenarios: a server simulator on free
loopback ports, the application simulator on the fixed port 8890, and the
agent between them with its own database."""

import collections
import io
import os
import re
import sqlite3
import tarfile
import time
from contextlib import closing

from qeltest import AgentTestCase

APP_PORT = 8890
HOST = "qel-test-host"
STATS = "/vmu/device/monitor/statistics/upload"
FAILHISTORY_CREATE = "CREATE TABLE info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)"


def request_text(path, session, body, port):
    """A request as the agent writes it to the information port (and keeps it
    in the failure history)."""
    return ("POST %s HTTP/1.1\r\nContent-type: application/json\r\nConnection: keep-alive\r\n"
            "SessionId: %d\r\nUser-Agent: INFO\r\nContent-Length: %d\r\nHost: 127.0.0.1:%d\r\n\r\n%s"
            % (path, session, len(body.encode("utf-8")), port, body))


def seed_failhistory(db, texts, ms=1700000000000):
    """Rows left over from an earlier run, as if it had stored them."""
    with closing(sqlite3.connect(db)) as con:
        con.execute(FAILHISTORY_CREATE.replace("CREATE TABLE", "CREATE TABLE IF NOT EXISTS"))
        con.executemany("insert into info_failhistory values (?, ?)", [(ms, t) for t in texts])
        con.commit()


class RuntimeCase(AgentTestCase):

    def start_all(self, server=True, app=True, wait_login=True, server_kw=None, db_overrides=None,
                  before_start=None):
        """`before_start(srv)` runs once the server simulator is up, before the agent starts."""
        self.srv = self.server_sim(**(server_kw or {})) if server else None
        if before_start is not None:
            before_start(self.srv)
        info = self.srv.info_port if server else self.reserve_port()
        files = self.srv.file_port if server else self.reserve_port()
        self.info_port, self.file_port = info, files
        self.video_port = self.srv.video_port if server else None
        self.app = self.app_sim(port=APP_PORT) if app else None
        self.db = self.make_db(info_port=info, file_port=files, video_port=self.video_port,
                               overrides=db_overrides)
        self.ag = self.agent(db=self.db)
        self.ag.start()
        self.ag.wait_log(r"config success")
        if app:
            self.app.wait_connected(10)
        if server and wait_login:
            self.srv.wait_request(path="/vmu/device/login", timeout=10)
            self.ag.wait_log(r"recv:3\(result:-- success --\)")
        return self.srv, self.app, self.ag

    def reserve_port(self):
        from qeltest import free_port
        return free_port()

    def send_and_ack(self, msg_type, body, within=1.0):
        """Send one message; return the time its "/back/" notice took."""
        mark = self.app.mark()
        t0 = time.monotonic()
        self.app.send(msg_type, body)
        self.app.wait_notice("back", since=mark, timeout=within + 5)
        return time.monotonic() - t0

    def restart(self, db=None):
        """A new run of the agent on the same database (the old one must have ended)."""
        self.ag = self.agent(db=db or self.db)
        self.ag.start()
        self.ag.wait_log(r"config success")
        return self.ag

    def assert_clean(self, agent=None):
        agent = agent or self.ag
        self.assertTrue(agent.is_running(), "agent is not running any more")
        self.assert_quiet(agent)

    def assert_quiet(self, agent):
        """For a run that has ended too (killed or stopped)."""
        agent.assert_no_qt_thread_warnings()
        agent.assert_no_sanitizer_reports()


# ---- image uploads (items 5 and 6) ---------------------------------------------

ALARM, TEMPLATE = 5, 6
IMAGE_UPLOAD = "/videowatch/uploadImg/saveTarGz/" + HOST
ITEM_DIR = {ALARM: "qel_alarmimage", TEMPLATE: "qel_tempimage"}
# The agent's console prints the archive it is about to upload, quoted, on a line of its own.
_SENT_ARCHIVE = re.compile(r'^"(/[^"\n]*\.tar\.gz)"$', re.M)
ARCHIVE_NAME = re.compile(r"^Tar_(\d{17})_(\d+)\.tar\.gz$")


def members_of(data):
    """{member name: bytes} of a tar.gz given as bytes."""
    with tarfile.open(fileobj=io.BytesIO(data), mode="r:gz") as tf:
        return {m.name: tf.extractfile(m).read() for m in tf if m.isfile()}


def make_archive(path, members, mtime=None):
    """A tar.gz at `path` holding (name, bytes) members, as an earlier run
    would have left it; its mtime set to `mtime` (seconds) if given."""
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
    """The processes whose parent is `pid`: for the agent, the shells that run
    its tar, mv and rm (so: packing is under way while there are any)."""
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % entry) as f:
                fields = f.read().rsplit(")", 1)[1].split()
        except (OSError, IndexError):
            continue
        if int(fields[1]) == pid:
            found.append(int(entry))
    return found


class ImageCase(RuntimeCase):
    """Image-upload scenarios. make_db puts every path under the work dir:
    alarm images under <work>/alarmimage/, templates and apppath at <work>/,
    working dirs under <work>/qel_net/, failure dirs under <work>/qel_net/qel_fail/."""

    def setUp(self):
        super().setUp()
        self.alarm_root = self.path("alarmimage")
        self.template_root = self.work
        self.apppath = self.work
        self._fences = 0

    def workdir(self, item):
        return self.path("qel_net", ITEM_DIR[item])

    def faildir(self, item):
        return self.path("qel_net", "qel_fail", ITEM_DIR[item])

    def write(self, item=ALARM, camera=1, detect=1, kind=None, age=None, **kw):
        """Images written the way the application does (see qel_app_sim.write_images);
        with `age` (seconds), dated that long ago, as images already there before a start."""
        from qel_app_sim import write_images
        root = self.alarm_root if item == ALARM else self.template_root
        paths = write_images(root, camera, detect, kind or ("NG" if item == ALARM else "template"), **kw)
        if age is not None:
            when = time.time() - age
            for p in paths:
                os.utime(p, (when, when))
        return paths

    def member(self, path):
        """The archive member name of the image at `path`."""
        return "./" + os.path.relpath(path, self.apppath)

    def uploaded(self, session=None, srv=None):
        """Counter of member names over every archive the server received."""
        return collections.Counter(name for r in (srv or self.srv).archives(session) for name, _ in r["archive"])

    def wait_uploaded(self, paths, session=None, timeout=15, srv=None):
        """Until every image in `paths` has arrived in some archive."""
        want = {self.member(p) for p in paths}
        missing = lambda: want - set(self.uploaded(session, srv))
        self.wait_until(lambda: not missing(), timeout,
                        "uploads of %d image(s); missing %s" % (len(want), sorted(missing())[:5]))

    def assert_uploaded_once(self, paths, srv=None):
        """Every image in `paths` arrived in exactly one archive."""
        counts = self.uploaded(srv=srv)
        wrong = {self.member(p): counts[self.member(p)] for p in paths if counts[self.member(p)] != 1}
        self.assertEqual(wrong, {}, "images not uploaded exactly once (name: times)")

    def fence(self, item=ALARM, srv=None, timeout=15):
        """Write one more image, ask for a look and wait for its archive: the
        packer and the FILE queue keep their order, so whatever an earlier
        look packed has been uploaded by then. Returns the fence archive's record."""
        self._fences += 1
        path = self.write(item, prefix="fence%d" % self._fences)[0]
        self.app.send(item, "")
        name = self.member(path)
        srv = srv or self.srv
        return srv.wait_request(lambda r: r.get("archive") and name in [m for m, _ in r["archive"]],
                                port="file", timeout=timeout)[0]

    def assert_contents(self, srv=None):
        """Every member of every archive received equals the image on disk."""
        for r in (srv or self.srv).archives():
            self.assertIsNotNone(r["body_bytes"], "archive too large to compare")
            for name, data in members_of(r["body_bytes"]).items():
                path = os.path.join(self.apppath, name)
                if os.path.exists(path):
                    with open(path, "rb") as f:
                        self.assertEqual(f.read(), data, name)

    def archives_in(self, directory):
        return sorted(n for n in os.listdir(directory) if n.endswith(".tar.gz")) if os.path.isdir(directory) else []

    def sent_archive_paths(self, agent=None):
        """The archives the agent started uploading, in order (from its console)."""
        return _SENT_ARCHIVE.findall((agent or self.ag).stderr_text())

    def wait_file_quiet(self, quiet=1.0, limit=15, srv=None):
        """Until no request has reached the file port for `quiet` seconds."""
        srv = srv or self.srv
        start = time.monotonic()
        count, since = -1, time.monotonic()
        while time.monotonic() - start < limit:
            n = len(srv.requests(port="file"))
            if n != count:
                count, since = n, time.monotonic()
            elif time.monotonic() - since >= quiet:
                return
            time.sleep(0.05)
        self.fail("file port still busy after %.1fs" % limit)
