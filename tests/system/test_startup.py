"""Start-up of the agent: database path, configuration store, directories, logs.
Default-configuration runs rely on the tmpfs nsrun.py puts over /root/bin-AOI."""

import os
import re
import stat
import time
import unittest

import qeltest
from qeltest import (BANNER, DEFAULT_KEYS, DEFAULT_TREE, STATUS_INCOMPLETE,
                     STATUS_OPEN_ERROR, STATUS_SUCCESS, AgentTestCase)

BOTH_TABLES = ["info_failhistory", "info_sysconf"]


def main_cpp_line(message):
    return r"^I\d{8} [\d:.]+ +\d+ main\.cpp:\d+\] %s$" % re.escape(message)


class StartupCase(AgentTestCase):

    def run_dir(self, name, overrides=None, db="sysconf.db", srv=None):
        """(work dir, database path) of a run of its own with a loopback database."""
        work = self.path(name)
        ports = (srv.info_port, srv.file_port) if srv else (qeltest.free_port(), qeltest.free_port())
        return work, qeltest.make_db(os.path.join(work, db), work, *ports, overrides=overrides)

    def finish(self, agent):
        agent.stop()
        agent.assert_no_sanitizer_reports()
        agent.assert_no_qt_thread_warnings()

    def assert_banner_then(self, agent, status):
        """The log holds the banner and then the status text, both from main.cpp."""
        agent.wait_log(main_cpp_line(status))
        agent.wait_log(main_cpp_line(BANNER))
        lines = agent.log_lines()
        self.assertLess(lines.index(BANNER), lines.index(status), lines)

    def assert_failure_path(self, agent, status, work):
        """Exit 0 at once with only the banner and the reason, logged under ./qel_net/qel_log."""
        self.assertEqual(agent.wait_exit(5), 0, agent.diagnostics())
        self.assertEqual(os.path.realpath(agent.log_dir), os.path.realpath(os.path.join(work, "qel_net", "qel_log")))
        self.assert_banner_then(agent, status)
        self.assertEqual(agent.log_lines(), [BANNER, status])
        self.assertEqual(os.listdir(os.path.join(work, "qel_net")), ["qel_log"])   # no configured dirs made

    def run_unchanged(self, name, overrides, status, read_only=False):
        work, db = self.run_dir(name, overrides, os.path.join("ro", "sysconf.db"))
        before = qeltest.read_sysconf(db)
        if read_only:
            self.bind_read_only(os.path.dirname(db))
        agent = self.agent(db=db, workdir=work).start()
        if status == STATUS_SUCCESS:
            self.assert_banner_then(agent, status)
            self.assert_stays_up(agent, 1.0)
        else:
            self.assert_failure_path(agent, status, work)
        self.assertEqual((qeltest.read_sysconf(db), qeltest.table_names(db)), (before, ["info_sysconf"]))
        self.finish(agent)

    def assert_stays_up(self, agent, seconds):
        time.sleep(max(0.0, seconds - (time.monotonic() - agent.started_at)))
        self.assertTrue(agent.is_running(), agent.diagnostics())


class DatabasePathTest(StartupCase):

    def test_argument_count_selects_database(self):
        """Exactly one argument is the database path, otherwise ./sysconf.db."""
        missing = {"apppath_send": None, "thispath": None}   # rows the agent completes
        cases = [([], "sysconf.db"), (["other.db"], "other.db"), (["ABS/other.db"], "other.db"),
                 (["other.db", "other.db"], "sysconf.db"), (["other.db", "a", "b"], "sysconf.db")]
        for i, (args, used) in enumerate(cases):
            with self.subTest(args=args):
                work, _ = self.run_dir("run%d" % i, missing)
                self.run_dir("run%d" % i, missing, "other.db")
                agent = self.agent(args=[a.replace("ABS", work) for a in args], workdir=work).start()
                self.assert_banner_then(agent, STATUS_SUCCESS)
                for n in ("sysconf.db", "other.db"):   # only the one used is completed
                    self.assertEqual(len(qeltest.read_sysconf(os.path.join(work, n))), 18 if n == used else 16, n)
                self.finish(agent)


class OpenErrorTest(StartupCase):

    def test_unopenable_database(self):
        """The run ends with only a log; nothing else is created."""
        for i, db in enumerate([os.path.join("missing", "sysconf.db"), "dbdir"]):
            with self.subTest(db):
                work = self.path("run%d" % i)
                os.makedirs(os.path.join(work, "dbdir"))
                agent = self.agent(args=[db], workdir=work).start()
                self.assert_failure_path(agent, STATUS_OPEN_ERROR, work)
                self.assertEqual({n for n in os.listdir(work) if not n.startswith(agent.name)}, {"dbdir", "qel_net"})
                self.finish(agent)


@unittest.skipUnless(qeltest.default_tree_is_private(), "needs the private %s of nsrun.py" % DEFAULT_TREE)
class FreshDatabaseTest(StartupCase):

    def test_fresh_database_gets_defaults(self):
        """The agent then runs on the default tree with the default (unreachable) servers."""
        for args, db_name in [([], "sysconf.db"), (["fresh.db"], "fresh.db"), (["empty.db"], "empty.db")]:
            with self.subTest(db_name):
                qeltest.clear_default_tree()
                work = self.path(db_name + ".run")
                os.makedirs(work)
                db = os.path.join(work, db_name)
                if db_name == "empty.db":
                    open(db, "w").close()
                agent = self.agent(args=args, workdir=work).start()
                self.assert_banner_then(agent, STATUS_SUCCESS)
                self.assertEqual(os.path.realpath(agent.log_dir), os.path.join(DEFAULT_TREE, "qel_net", "qel_log"))
                self.assertEqual((qeltest.read_sysconf(db), qeltest.table_names(db)), (DEFAULT_KEYS, BOTH_TABLES))
                self.assertLessEqual({"qel_fail", "data"}, set(os.listdir(os.path.join(DEFAULT_TREE, "qel_net"))))
                self.assert_stays_up(agent, 3.0)
                self.finish(agent)

    def test_partial_database_is_completed(self):
        """Missing rows are appended with their defaults in key order; others keep their values."""
        missing = ["camera", "useInlineName", "thispath"]
        _, db = self.run_dir("run", {k: None for k in missing})
        written = qeltest.read_sysconf(db)
        agent = self.agent(db=db).start()
        self.assert_banner_then(agent, STATUS_SUCCESS)
        self.assertEqual((qeltest.read_sysconf(db), qeltest.table_names(db)),
                         (written + [r for r in DEFAULT_KEYS if r[0] in missing], BOTH_TABLES))
        self.finish(agent)


class WorkingDirectoriesTest(StartupCase):

    def test_directories_and_device_id(self):
        """Directories are made with mode 0764; the stored device id is left alone
        and the one reported is the host name."""
        srv = self.server_sim()
        _, db = self.run_dir("run", {"useInlineName": "line-7"}, srv=srv)
        before = qeltest.read_sysconf(db)
        agent = self.agent(db=db, umask=0).start()
        self.assert_banner_then(agent, STATUS_SUCCESS)
        for key in ("logpath", "failpath", "tdata"):   # a directory of mode 0764
            self.assertEqual(oct(os.stat(qeltest.sysconf_value(db, key)).st_mode), oct(stat.S_IFDIR | 0o764), key)
        # the image items make their directories, off the start-up path
        self.wait_until(lambda: os.path.isdir(self.path("run", "alarmimage", "camera4", "detect2", "OK")),
                        timeout=5, message="image directories made")
        login = srv.wait_request(path="/vmu/device/login", timeout=10)[0]["body"]
        self.assertEqual(login, "device_id=" + qeltest.TEST_HOST_NAME)
        self.assertEqual(qeltest.read_sysconf(db), before)
        self.finish(agent)

    def test_uncreatable_directory_is_reported_and_ignored(self):
        for key, what in [("logpath", "logdir"), ("failpath", "faildir"), ("tdata", "tdata")]:
            with self.subTest(key):
                work, db = self.run_dir("run-" + key, {key: self.path("run-" + key, "plain-file", "sub") + "/"})
                open(os.path.join(work, "plain-file"), "w").close()
                agent = self.agent(db=db, workdir=work).start()
                if key != "logpath":
                    self.assert_banner_then(agent, STATUS_SUCCESS)
                line = r"(?m)main\.cpp:\d+\] %s create wrong:1$" % what
                self.wait_until(lambda: re.search(line, agent.stderr_text()), 5, line)
                self.assert_stays_up(agent, 1.0)
                self.finish(agent)


class IncompleteDatabaseTest(StartupCase):

    def test_empty_value_ends_the_run(self):
        """An empty value cannot be replaced: the database is left as it was."""
        for key in ("camera", "logpath", "thispath"):
            with self.subTest(key):
                self.run_unchanged("run-" + key, {key: ""}, STATUS_INCOMPLETE)


class ReadOnlyDatabaseTest(StartupCase):

    def test_read_only_database(self):
        """A missing row cannot be added; a complete database runs unchanged."""
        for name, overrides, status in [("partial", {"thispath": None}, STATUS_INCOMPLETE),
                                        ("complete", None, STATUS_SUCCESS)]:
            with self.subTest(name):
                self.run_unchanged("run-" + name, overrides, status, read_only=True)


if __name__ == "__main__":
    unittest.main()
