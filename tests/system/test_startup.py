"""Start-up: which database is used, what a database that cannot be used
leads to, the default tree, directories and the reported device id. Runs with
the default configuration rely on the tmpfs nsrun.py puts over /root/bin-AOI."""

import os
import re
import socket
import stat
import subprocess
import time
import sqlite3
import unittest
from contextlib import closing

from qeltest import (BIN, DEFAULT_KEYS, DEFAULT_TREE, HOST, AgentTestCase, clear_default_tree, isolated, make_db,
                     query, read_sysconf)

BANNER = "version:1.0.2 release"


def content(path):
    with open(path, "rb") as f:
        return f.read()


class Startup(AgentTestCase):

    def run_dir(self, name, overrides=None, db="sysconf.db", srv=None):
        work = self.path(name)
        ports = (srv.info_port, srv.file_port) if srv else (1, 1)
        return work, make_db(os.path.join(work, db), work, *ports, overrides=overrides)

    def assert_banner_then(self, agent, status, alone=False):
        agent.wait_log(r"main\.cpp:\d+\] %s$" % re.escape(status))
        lines = agent.log_lines()
        self.assertLess(lines.index(BANNER), lines.index(status), lines)
        if alone:       # the run ended at once, logged under ./qel_net/qel_log, making nothing else
            self.assertEqual((agent.wait_exit(5), lines), (0, [BANNER, status]))
            self.assertEqual(os.listdir(os.path.join(agent.workdir, "qel_net")), ["qel_log"])

    def finish(self, agent, up_for=1.0):
        time.sleep(up_for)
        self.assert_clean(agent)
        agent.stop()

    def test_which_database_and_what_an_unusable_one_leads_to(self):
        missing = {"apppath_send": None, "thispath": None}   # rows the agent completes
        for i, (args, used) in enumerate([([], "sysconf.db"), (["other.db"], "other.db"),
                                          (["ABS/other.db"], "other.db"), (["other.db", "x"], "sysconf.db")]):
            with self.subTest(args=args):
                work, _ = self.run_dir("run%d" % i, missing)
                self.run_dir("run%d" % i, missing, "other.db")
                agent = self.agent(args=[a.replace("ABS", work) for a in args], workdir=work).start()
                self.assert_banner_then(agent, "config success")
                for n in ("sysconf.db", "other.db"):   # only the one used is completed
                    self.assertEqual(len(read_sysconf(os.path.join(work, n))), 18 if n == used else 16, n)
                self.finish(agent, 0)
        for i, db in enumerate([os.path.join("missing", "sysconf.db"), "dbdir"]):
            with self.subTest(db):
                os.makedirs(self.path("bad%d" % i, "dbdir"))
                self.assert_banner_then(self.agent(args=[db], workdir=self.path("bad%d" % i)).start(),
                                        "config.SQL open error", alone=True)

    def test_fresh_database_gets_the_default_tree(self):
        """An empty file is filled with the defaults; the agent runs on the default tree."""
        clear_default_tree()
        os.makedirs(self.path("run"))
        open(self.path("run", "sysconf.db"), "w").close()
        agent = self.agent(workdir=self.path("run")).start()
        self.assert_banner_then(agent, "config success")
        self.assertEqual(os.path.realpath(agent.log_dirs()[0]), DEFAULT_TREE + "/qel_net/qel_log")
        self.assertEqual(read_sysconf(self.path("run", "sysconf.db")), DEFAULT_KEYS)
        self.wait_until(lambda: query(self.path("run", "sysconf.db"), "select name from sqlite_master where type="
                                      "'table' order by name") == [("info_failhistory",), ("info_sysconf",)], 5, "tables")
        self.assertLessEqual({"qel_fail", "data"}, set(os.listdir(DEFAULT_TREE + "/qel_net")))
        self.finish(agent, 3)

    def test_directories_and_device_id(self):
        """Directories are made 0764; the stored device id is left alone, the host name is reported."""
        srv = self.server_sim()
        work, db = self.run_dir("run", {"useInlineName": "line-7"}, srv=srv)
        before = read_sysconf(db)
        agent = self.agent(db=db, workdir=work)
        old = os.umask(0)
        try:
            agent.start()
        finally:
            os.umask(old)
        self.assert_banner_then(agent, "config success")
        for key in ("logpath", "failpath", "tdata"):
            path = [v for k, v, _ in before if k == key][0]
            self.assertEqual(oct(os.stat(path).st_mode), oct(stat.S_IFDIR | 0o764), key)
        self.wait_until(lambda: os.path.isdir(os.path.join(work, "alarmimage", "camera4", "detect2", "OK")), 5,
                        "image directories made")
        self.assertEqual(srv.wait_request(path="/vmu/device/login")[0]["body"], "device_id=" + HOST)
        self.assertEqual(read_sysconf(db), before)
        self.finish(agent, 0)
        for key, what in [("logpath", "logdir"), ("failpath", "faildir"), ("tdata", "tdata")]:
            with self.subTest(uncreatable=key):
                work, db = self.run_dir("run-" + key, {key: self.path("run-" + key, "plain-file", "sub") + "/"})
                open(os.path.join(work, "plain-file"), "w").close()
                agent = self.agent(db=db, workdir=work).start()
                self.wait_until(lambda: re.search(r"main\.cpp:\d+\] %s create wrong:1" % what, agent.stderr_text()),
                                5, what + " create wrong")
                self.finish(agent)

    def qel(self, *args):
        """(status, output, seconds) of an integrator's command; --check connects to the servers."""
        self.assertTrue(isolated())
        t = time.monotonic()
        r = subprocess.run([BIN] + list(args), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd=self.work,
                           universal_newlines=True, timeout=30)
        return r.returncode, r.stdout, time.monotonic() - t

    def test_config_and_check(self):
        """The integrator's path: --config init and set, then --check, which writes nothing."""
        db = self.path("sysconf.db")
        status, out, _ = self.qel("--config", db, "init", "--server", "127.0.0.1")
        self.assertEqual(status, 0, out)
        self.assertEqual(read_sysconf(db), [(k, "127.0.0.1" if v == "192.168.1.1" else v, d) for k, v, d in DEFAULT_KEYS])
        made = content(db)
        for args, message in [(["init"], "File exists"),
                              (["set", "serverport_info", "80800"], 'serverport_info "80800": not a port'),
                              (["set", "alarmimage", self.work, "camera", "2"], "not an absolute directory ending in /"),
                              (["set", "serverip_file", "127.0.0.2 "], "has white space around it"),
                              (["set", "serverip_infp", "127.0.0.1"], "unknown key"),
                              (["get", "serverport_infp"], "unknown key"),
                              (["show", "x"], "usage:")]:
            with self.subTest(refused=args):
                status, out, _ = self.qel("--config", db, *args)
                self.assertTrue(status in (1, 2) and message in out, out)
                self.assertEqual(content(db), made)       # nothing written
        self.assertEqual(self.qel("--config", self.path("none.db"), "show")[0], 1)
        srv = self.server_sim()
        work = self.work + "/"
        pairs = ["serverport_info", str(srv.info_port), "serverport_file", str(srv.file_port), "serverport_video",
                 str(srv.video_port), "queue_limit_mb", "64"]
        for key in ("alarmimage", "template", "apppath", "failpath", "logpath", "qelpath", "tdata"):
            pairs += [key, work]
        status, out, _ = self.qel("--config", db, "set", *pairs)
        ready = read_sysconf(db)
        self.assertIn("serverport_info: 8000 -> %d\n" % srv.info_port, out)
        self.assertEqual(self.qel("--config", db, "get", "serverport_file")[:2], (0, "%d\n" % srv.file_port))

        # A listener that takes no more connections: a connect to it waits, unanswered.
        silent = socket.socket()
        silent.bind(("127.0.0.1", 0))
        silent.listen(0)
        queued = [socket.create_connection(silent.getsockname(), timeout=5)]
        closed = socket.socket()
        closed.bind(("127.0.0.1", 0))        # bound, never listening: refused
        units = "/etc/systemd/system"       # this namespace's own, for the unit rows
        subprocess.run(["mount", "-t", "tmpfs", "qel-units", units], check=True)
        self._mounts.append(units)
        unit = os.path.join(units, "qel_net.service")
        os.makedirs(unit + ".d")
        set_ = "update info_sysconf set 值='%s' where 信息名称='%s'"
        confines = "[Service]\nProtectSystem=strict\nReadWritePaths=-/root/bin-AOI\n"
        for name, sql, files, failing in [
                ("ready", [], {}, []),
                ("bad port", [set_ % ("80800", "serverport_video")], {}, ["serverport_video"]),
                ("missing key", ["delete from info_sysconf where 信息名称='thispath'"], {}, ["thispath .*no value"]),
                ("servers away", [set_ % (silent.getsockname()[1], "serverport_file"),
                                  set_ % (closed.getsockname()[1], "serverport_video")], {},
                 ["server file .*no answer within 2 s", "server video .*Connection refused"]),
                ("unit confines", [], {unit: confines},
                 ["alarmimage .*outside the service's ReadWritePaths=/root/bin-AOI.*add it: systemctl edit qel_net",
                  "database .*outside"] + ["%s .*outside" % k for k in ("template", "apppath", "failpath", "logpath",
                                                                         "qelpath", "tdata")]),
                ("drop-in widens", [], {unit: confines, unit + ".d/x.conf": "[Service]\nReadWritePaths=%s\n" % work},
                 []),
                ("no database", None, {}, ["database .*does not exist"])]:
            with self.subTest(name):
                with closing(sqlite3.connect(db)) as con:
                    con.execute("begin")
                    for statement in sql or []:
                        con.execute(statement)
                    con.commit()
                    for path, text in files.items():
                        with open(path, "w") as f:
                            f.write(text)
                    before = sorted(os.listdir(self.work)), content(db)
                    status, out, took = self.qel("--check", db if sql is not None else self.path("none.db"))
                    # It never makes or changes a file, and the servers cost it 2 s at the most.
                    self.assertEqual((status, sorted(os.listdir(self.work)), content(db)),
                                     (1 if failing else 0, before[0], before[1]), out)
                    self.assertLess(took, 5)
                    fails = [l for l in out.splitlines() if l.startswith("FAIL")]
                    self.assertEqual(len(fails), len(failing), out)
                    for pattern in failing:
                        self.assertTrue(any(re.search(pattern, l) for l in fails), (pattern, out))
                    self.assertIn("ok    host name          %s " % HOST, out)
                    self.assertTrue(out.endswith("not ready\n" if failing else ": ready\n"), out)
                    for path in files:
                        os.remove(path)
                    if sql:     # back to the ready configuration
                        con.execute("begin")
                        con.execute("delete from info_sysconf")
                        con.executemany("insert into info_sysconf values (?, ?, ?)", ready)
                        con.commit()
        for s in queued + [silent, closed]:
            s.close()


if __name__ == "__main__":
    unittest.main()
