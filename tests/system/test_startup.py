"""Start-up: which database is used, what a database that cannot be used
leads to, the default tree, directories and the reported device id. Runs with
the default configuration rely on the tmpfs nsrun.py puts over /root/bin-AOI."""

import os
import re
import stat
import time
import unittest

from qeltest import (DEFAULT_KEYS, DEFAULT_TREE, HOST, AgentTestCase, clear_default_tree, make_db, query,
                     read_sysconf)

BANNER = "version:1.0.2 release"


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


if __name__ == "__main__":
    unittest.main()
