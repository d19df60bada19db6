"""Start-up of the agent: database path, configuration store, directories, logs.

Run through nsrun.py. Every run has its own work dir and database with
loopback servers, except the default-configuration runs, which rely on the
tmpfs that nsrun.py puts over /root/bin-AOI.
"""

import os
import re
import time
import unittest

import qeltest
from qeltest import (BANNER, DEFAULT_KEYS, DEFAULT_TREE, STATUS_INCOMPLETE,
                     STATUS_OPEN_ERROR, STATUS_SUCCESS, AgentTestCase)

GLOG_LINE = r"^I\d{8} [\d:.]+ +\d+ %s:\d+\] %s$"


def main_cpp_line(message):
    return GLOG_LINE % (r"main\.cpp", re.escape(message))


class StartupCase(AgentTestCase):

    def finish(self, agent):
        agent.stop()
        agent.assert_no_sanitizer_reports()
        agent.assert_no_qt_thread_warnings()

    def assert_banner_then(self, agent, status):
        """The log holds the banner and then the status text, both from main.cpp."""
        agent.wait_log(main_cpp_line(status), timeout=10)
        lines = agent.log_lines()
        self.assertIn(BANNER, lines)
        self.assertIn(status, lines)
        self.assertLess(lines.index(BANNER), lines.index(status), lines)
        agent.wait_log(main_cpp_line(BANNER))

    def assert_failure_path(self, agent, status, work):
        """Exit 0 at once, with the reason logged under ./qel_net/qel_log."""
        started = time.monotonic()
        self.assertEqual(agent.wait_exit(10), 0, agent.diagnostics())
        self.assertLess(time.monotonic() - started, 5)
        self.assertEqual(os.path.realpath(agent.log_dir),
                         os.path.realpath(os.path.join(work, "qel_net", "qel_log")))
        self.assert_banner_then(agent, status)
        self.assertEqual(agent.log_lines(), [BANNER, status])


class DatabasePathTest(StartupCase):
    """argc decides the database: exactly one argument is the path, otherwise ./sysconf.db."""

    MISSING = ("apppath_send", "thispath")   # rows the agent will complete

    def test_argument_count_selects_database(self):
        cases = [
            ("no argument", lambda w: [], "sysconf.db"),
            ("one relative argument", lambda w: ["other.db"], "other.db"),
            ("one absolute argument", lambda w: [os.path.join(w, "other.db")], "other.db"),
            ("two arguments", lambda w: ["other.db", "other.db"], "sysconf.db"),
            ("three arguments", lambda w: ["other.db", "a", "b"], "sysconf.db"),
        ]
        for i, (name, args, used) in enumerate(cases):
            with self.subTest(name):
                work = self.path("run%d" % i)
                dbs = {n: qeltest.make_db(os.path.join(work, n), work, info_port=qeltest.free_port(),
                                          file_port=qeltest.free_port(),
                                          overrides={k: None for k in self.MISSING})
                       for n in ("sysconf.db", "other.db")}
                agent = self.agent(args=args(work), workdir=work).start()
                self.assert_banner_then(agent, STATUS_SUCCESS)
                self.assertTrue(agent.is_running())
                for n, db in dbs.items():
                    rows = qeltest.read_sysconf(db)
                    if n == used:
                        self.assertEqual([r[0] for r in rows[-2:]], list(self.MISSING))
                        self.assertEqual(len(rows), 18, n)
                    else:
                        self.assertEqual(len(rows), 16, "%s was touched" % n)
                        self.assertEqual(qeltest.table_names(db), ["info_sysconf"])
                self.finish(agent)


class OpenErrorTest(StartupCase):
    """A database that cannot be opened ends the run with only a log."""

    def test_unopenable_database(self):
        cases = [
            ("directory missing", os.path.join("missing", "sysconf.db")),
            ("path is a directory", "dbdir"),
        ]
        for i, (name, db) in enumerate(cases):
            with self.subTest(name):
                work = self.path("run%d" % i)
                os.makedirs(os.path.join(work, "dbdir"))
                agent = self.agent(args=[db], workdir=work).start()
                self.assert_failure_path(agent, STATUS_OPEN_ERROR, work)
                self.assertFalse(os.path.exists(os.path.join(work, "missing")))
                self.assertFalse(os.path.exists(os.path.join(work, "sysconf.db")))
                left = sorted(n for n in os.listdir(work) if not n.startswith(agent.name))
                self.assertEqual(left, ["dbdir", "qel_net"])
                self.assertEqual(os.listdir(os.path.join(work, "qel_net")), ["qel_log"])
                self.finish(agent)


@unittest.skipUnless(qeltest.default_tree_is_private(),
                     "needs the private %s of nsrun.py" % DEFAULT_TREE)
class FreshDatabaseTest(StartupCase):
    """A new or empty database gets the 18 defaults; the agent then runs on
    the default tree (a tmpfs here) with the default servers (unreachable
    in the test namespace)."""

    def test_fresh_database_gets_defaults(self):
        cases = [
            ("no argument, empty work dir", [], "sysconf.db"),
            ("missing file", ["fresh.db"], "fresh.db"),
            ("empty file", ["empty.db"], "empty.db"),
        ]
        for name, args, db_name in cases:
            with self.subTest(name):
                qeltest.clear_default_tree()
                work = self.path(db_name + ".run")
                os.makedirs(work)
                db = os.path.join(work, db_name)
                if db_name == "empty.db":
                    open(db, "w").close()
                agent = self.agent(args=args, workdir=work).start()
                self.assert_banner_then(agent, STATUS_SUCCESS)
                self.assertEqual(os.path.realpath(agent.log_dir),
                                 os.path.join(DEFAULT_TREE, "qel_net", "qel_log"))
                self.assertEqual(qeltest.read_sysconf(db), DEFAULT_KEYS)
                self.assertEqual(qeltest.table_names(db), ["info_failhistory", "info_sysconf"])
                for sub in ("qel_log", "qel_fail", "data"):
                    self.assertTrue(os.path.isdir(os.path.join(DEFAULT_TREE, "qel_net", sub)), sub)
                time.sleep(max(0.0, 3.0 - (time.monotonic() - agent.started_at)))
                self.assertTrue(agent.is_running(), agent.diagnostics())
                self.finish(agent)

    def test_partial_database_is_completed(self):
        """Missing rows are appended with their defaults, in key order; rows
        that exist keep their values."""
        missing = ["camera", "useInlineName", "thispath"]
        db = self.make_db(info_port=qeltest.free_port(), file_port=qeltest.free_port(),
                          overrides={k: None for k in missing})
        written = qeltest.read_sysconf(db)
        agent = self.agent(db=db).start()
        self.assert_banner_then(agent, STATUS_SUCCESS)
        defaults = {k: (k, v, d) for k, v, d in DEFAULT_KEYS}
        self.assertEqual(qeltest.read_sysconf(db), written + [defaults[k] for k in missing])
        self.assertEqual(qeltest.table_names(db), ["info_failhistory", "info_sysconf"])
        self.finish(agent)


class WorkingDirectoriesTest(StartupCase):

    def test_directories_created_with_mode_764(self):
        db = self.make_db(info_port=qeltest.free_port(), file_port=qeltest.free_port())
        agent = self.agent(db=db, umask=0).start()
        self.assert_banner_then(agent, STATUS_SUCCESS)
        for key in ("logpath", "failpath", "tdata"):
            path = qeltest.sysconf_value(db, key)
            self.assertTrue(os.path.isdir(path), path)
            self.assertEqual(os.stat(path).st_mode & 0o777, 0o764, key)
        self.assertFalse(os.path.exists(self.path("alarmimage")))
        self.finish(agent)

    def test_uncreatable_directory_is_reported_and_ignored(self):
        cases = [
            ("logpath", "logdir create wrong:1"),
            ("failpath", "faildir create wrong:1"),
            ("tdata", "tdata create wrong:1"),
        ]
        for i, (key, message) in enumerate(cases):
            with self.subTest(key):
                work = self.path("run%d" % i)
                os.makedirs(work)
                open(os.path.join(work, "plain-file"), "w").close()
                db = qeltest.make_db(os.path.join(work, "sysconf.db"), work,
                                     info_port=qeltest.free_port(), file_port=qeltest.free_port(),
                                     overrides={key: os.path.join(work, "plain-file", "sub") + "/"})
                agent = self.agent(db=db, workdir=work).start()
                if key != "logpath":
                    self.assert_banner_then(agent, STATUS_SUCCESS)
                deadline = time.monotonic() + 5
                while message not in agent.stderr_text() and time.monotonic() < deadline:
                    time.sleep(0.05)
                self.assertRegex(agent.stderr_text(), r"(?m)main\.cpp:\d+\] %s$" % re.escape(message))
                time.sleep(max(0.0, 1.0 - (time.monotonic() - agent.started_at)))
                self.assertTrue(agent.is_running(), agent.diagnostics())
                self.finish(agent)


class DeviceIdTest(StartupCase):

    def test_stored_device_id_is_left_alone(self):
        srv = self.server_sim()
        db = self.make_db(info_port=srv.info_port, file_port=srv.file_port,
                          overrides={"useInlineName": "line-7"})
        before = qeltest.read_sysconf(db)
        agent = self.agent(db=db).start()
        self.assert_banner_then(agent, STATUS_SUCCESS)
        self.assertEqual(qeltest.read_sysconf(db), before)
        # The identifier the agent reports is the host name, never the row.
        login = srv.wait_request(path="/vmu/device/login", timeout=10)[0]
        self.assertEqual(login["body"], "device_id=" + qeltest.TEST_HOST_NAME)
        self.assertEqual(qeltest.read_sysconf(db), before)
        self.finish(agent)


class IncompleteDatabaseTest(StartupCase):
    """A row whose value is empty cannot be re-inserted: the run ends."""

    def test_empty_value(self):
        for key in ("camera", "logpath", "thispath"):
            with self.subTest(key):
                work = self.path("run-" + key)
                db = qeltest.make_db(os.path.join(work, "sysconf.db"), work,
                                     info_port=qeltest.free_port(), file_port=qeltest.free_port(),
                                     overrides={key: ""})
                before = qeltest.read_sysconf(db)
                agent = self.agent(db=db, workdir=work).start()
                self.assert_failure_path(agent, STATUS_INCOMPLETE, work)
                self.assertEqual(qeltest.read_sysconf(db), before)
                self.assertEqual(qeltest.table_names(db), ["info_sysconf"])
                # the configured directories are not made on the failure path
                self.assertEqual(os.listdir(os.path.join(work, "qel_net")), ["qel_log"])
                self.finish(agent)


class ReadOnlyDatabaseTest(StartupCase):

    def test_read_only_database(self):
        cases = [
            # name, rows left out, expected status
            ("partial", ["thispath"], STATUS_INCOMPLETE),
            ("complete", [], STATUS_SUCCESS),
        ]
        for name, missing, status in cases:
            with self.subTest(name):
                work = self.path("run-" + name)
                ro = os.path.join(work, "ro")
                db = qeltest.make_db(os.path.join(ro, "sysconf.db"), work,
                                     info_port=qeltest.free_port(), file_port=qeltest.free_port(),
                                     overrides={k: None for k in missing})
                before = qeltest.read_sysconf(db)
                self.bind_read_only(ro)
                agent = self.agent(db=db, workdir=work).start()
                if status == STATUS_SUCCESS:
                    self.assert_banner_then(agent, status)
                    time.sleep(max(0.0, 1.0 - (time.monotonic() - agent.started_at)))
                    self.assertTrue(agent.is_running(), agent.diagnostics())
                else:
                    self.assert_failure_path(agent, status, work)
                self.assertEqual(qeltest.read_sysconf(db), before)
                self.assertEqual(qeltest.table_names(db), ["info_sysconf"])
                self.finish(agent)


if __name__ == "__main__":
    unittest.main()
