"""The Debian package: its control fields and contents, the systemd unit it
installs, its maintainer scripts, and the packaged agent at work between the
simulators.

The package is taken from QEL_DEB when that is set; with QEL_PACKAGE_TEST=1 it
is built here with script/package (about a minute and a half on two cores);
otherwise these tests are skipped. script/test builds the package once, before
running the Qt 6 tree's tests, and hands it over in QEL_DEB."""

import os
import re
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

from qeltest import BIN, DEFAULT_TREE, SRC, AgentTestCase, clear_default_tree, default_tree_is_private

APP_PORT = 8890
STATS = "/vmu/device/monitor/statistics/upload"
UNIT = "qel_net.service"
UNIT_PATH = "usr/lib/systemd/system/" + UNIT
TOOLS = "usr/share/qel-net/tools"
WORKDIR = DEFAULT_TREE + "/qel_net"
PYTHON = os.environ.get("QEL_PYTHON") or sys.executable


def project_version():
    with open(os.path.join(SRC, "CMakeLists.txt"), encoding="utf-8") as f:
        return re.search(r"project\(qel_net VERSION ([0-9.]+)", f.read()).group(1)


def run(*cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          universal_newlines=True, **kw)


def control_fields(text):
    """Control-file fields ("Key: value", continuation lines joined)."""
    fields, key = {}, None
    for line in text.splitlines():
        if line[:1] in (" ", "\t") and key:
            fields[key] += "\n" + line.strip()
        elif ":" in line:
            key, _, value = line.partition(":")
            fields[key] = value.strip()
    return fields


def unit_settings(path):
    """{(section, key): [values]} of a unit file."""
    settings, section = {}, None
    with open(path, encoding="utf-8") as f:
        for line in f:
            line = line.strip()
            if not line or line[0] in "#;":
                continue
            if line.startswith("["):
                section = line.strip("[]")
                continue
            key, _, value = line.partition("=")
            settings.setdefault((section, key.strip()), []).append(value.strip())
    return settings


class Package(AgentTestCase):

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.tmp = None
        deb = os.environ.get("QEL_DEB")
        if not deb and os.environ.get("QEL_PACKAGE_TEST") != "1":
            raise unittest.SkipTest("package not tested: set QEL_PACKAGE_TEST=1 to build it here, "
                                    "or QEL_DEB to a built qel-net_*.deb (script/test does)")
        for tool in ("dpkg-deb", "dpkg"):
            if shutil.which(tool) is None:
                raise unittest.SkipTest("%s is missing (script/setup installs dpkg-dev)" % tool)
        cls.tmp = tempfile.mkdtemp(prefix="qel_package_")
        if not deb:
            r = run(os.path.join(SRC, "script", "package"), "--build-dir", os.path.join(cls.tmp, "build"),
                    "--output-dir", cls.tmp, "-j", str(os.cpu_count() or 1))
            if r.returncode != 0:
                raise AssertionError("script/package failed (%d):\n%s" % (r.returncode, r.stderr[-4000:]))
            deb = r.stdout.strip().splitlines()[-1]
            shutil.rmtree(os.path.join(cls.tmp, "build"), ignore_errors=True)
        cls.deb = os.path.abspath(deb)
        cls.root = os.path.join(cls.tmp, "root")
        cls.control = os.path.join(cls.tmp, "control")
        for cmd in (["dpkg", "-x", cls.deb, cls.root], ["dpkg-deb", "-e", cls.deb, cls.control]):
            r = run(*cmd)
            if r.returncode != 0:
                raise AssertionError("%s failed: %s" % (" ".join(cmd), r.stderr))
        cls.version = project_version()

    @classmethod
    def tearDownClass(cls):
        if cls.tmp:
            shutil.rmtree(cls.tmp, ignore_errors=True)
        super().tearDownClass()

    def in_root(self, path):
        return os.path.join(self.root, path.lstrip("/"))

    # ---- what dpkg sees -----------------------------------------------------

    def test_control_fields(self):
        r = run("dpkg-deb", "-f", self.deb)
        self.assertEqual(r.returncode, 0, r.stderr)
        fields = control_fields(r.stdout)
        arch = run("dpkg", "--print-architecture").stdout.strip()
        self.assertEqual(fields.get("Package"), "qel-net")
        self.assertEqual(fields.get("Version"), self.version)
        self.assertEqual(fields.get("Architecture"), arch)
        self.assertEqual(os.path.basename(self.deb), "qel-net_%s_%s.deb" % (self.version, arch))
        depends = [d.strip().split()[0] for d in fields.get("Depends", "").split(",") if d.strip()]
        # the linked libraries (found by dpkg-shlibdeps), Qt's SQLite driver,
        # which is loaded as a plugin, and top
        for lib in ("libqt6core6", "libqt6network6", "libqt6sql6", "libqt6sql6-sqlite",
                    "libavcodec59", "libavformat59", "libavutil57", "libc6", "libstdc++6", "procps"):
            self.assertIn(lib, depends)
        self.assertTrue(any(d.startswith("libgoogle-glog") for d in depends), depends)
        self.assertTrue(any(d.startswith("libcjson") for d in depends), depends)
        self.assertNotIn("libqt5core5a", depends)
        # the maintainer scripts are there and executable ("*")
        r = run("dpkg-deb", "-I", self.deb)
        self.assertEqual(r.returncode, 0, r.stderr)
        for script in ("postinst", "prerm", "postrm"):
            self.assertRegex(r.stdout, r"\*\s+%s\s" % script)

    def test_contents(self):
        r = run("dpkg-deb", "-c", self.deb)
        self.assertEqual(r.returncode, 0, r.stderr)
        entries = {}
        for line in r.stdout.splitlines():
            parts = line.split(None, 5)
            entries[parts[5].split(" -> ")[0].lstrip(".")] = parts[0]
        executables = ["/usr/bin/qel_net", "/%s/qel_server_sim.py" % TOOLS,
                       "/%s/qel_app_sim.py" % TOOLS, "/%s/qel_cdn_sink.py" % TOOLS, "/%s/qel_config.py" % TOOLS]
        files = ["/" + UNIT_PATH, "/%s/qel_simnet.py" % TOOLS, "/%s/README.md" % TOOLS,
                 "/usr/share/doc/qel-net/README.md", "/usr/share/doc/qel-net/design.md"]
        for path in executables:
            self.assertRegex(entries.get(path, "missing"), r"^-rwxr-xr-x$", path)
        for path in files:
            self.assertRegex(entries.get(path, "missing"), r"^-rw-r--r--$", path)
        # everything lives under /usr: no configuration, no working directory
        self.assertEqual([p for p in entries if not p.startswith("/usr/")], [])
        self.assertFalse([p for p in entries if "sysconf" in p or "bin-AOI" in p])

    # ---- the unit -------------------------------------------------------------

    def test_unit_names_the_packaged_binary_and_the_operators_database(self):
        s = unit_settings(self.in_root(UNIT_PATH))
        exec_start = s[("Service", "ExecStart")]
        self.assertEqual(len(exec_start), 1)
        binary, db = exec_start[0].split()
        self.assertTrue(os.access(self.in_root(binary), os.X_OK), "%s is not in the package" % binary)
        self.assertEqual(binary, "/usr/bin/qel_net")
        self.assertEqual(db, WORKDIR + "/sysconf.db")
        self.assertEqual(s[("Service", "WorkingDirectory")], [WORKDIR])
        self.assertEqual(s[("Unit", "ConditionPathExists")], [db])
        self.assertIn("network-online.target", s[("Unit", "After")][0].split())
        self.assertIn("network-online.target", s[("Unit", "Wants")][0].split())
        self.assertEqual(s[("Service", "Restart")], ["always"])
        self.assertEqual(s[("Service", "RestartSec")], ["2"])
        self.assertEqual(s[("Service", "KillSignal")], ["SIGTERM"])
        self.assertGreaterEqual(int(s[("Service", "TimeoutStopSec")][0]), 5)
        self.assertEqual(s[("Install", "WantedBy")], ["multi-user.target"])

    def test_systemd_analyze_verify(self):
        if shutil.which("systemd-analyze") is None:
            self.skipTest("systemd-analyze is missing (package systemd)")
        # verify checks that ExecStart's binary exists: a copy of the unit
        # names the unpacked one
        check = os.path.join(self.work, "verify")
        os.mkdir(check)
        with open(self.in_root(UNIT_PATH), encoding="utf-8") as f:
            text = f.read()
        with open(os.path.join(check, UNIT), "w", encoding="utf-8") as f:
            f.write(text.replace("ExecStart=/usr/bin/qel_net ", "ExecStart=%s " % self.in_root("/usr/bin/qel_net")))
        r = run("systemd-analyze", "verify", "--man=no", os.path.join(check, UNIT))
        output = (r.stdout + r.stderr).strip()
        print("systemd-analyze verify: exit %d, output %r" % (r.returncode, output))
        if r.returncode != 0 and "qel_net.service" not in output:
            self.skipTest("systemd-analyze verify cannot run here: %s" % output[-500:])
        # unknown keys and bad values are only warned about: any line on our unit fails
        self.assertEqual([l for l in output.splitlines() if UNIT in l], [])
        self.assertEqual(r.returncode, 0, output)

    # ---- maintainer scripts ---------------------------------------------------

    def maintainer_script(self, name, *args, systemd=True):
        """Run a maintainer script with a systemctl that only records its calls.
        /run is a private tmpfs for the call, with or without the directory
        that says systemd is running. Returns (calls, output)."""
        if not default_tree_is_private():
            raise RuntimeError("refusing to run maintainer scripts outside the test namespace")
        fake = os.path.join(self.work, "fakebin")
        calls = os.path.join(self.work, "systemctl.calls")
        os.makedirs(fake, exist_ok=True)
        with open(os.path.join(fake, "systemctl"), "w") as f:
            f.write('#!/bin/sh\necho "$*" >> "%s"\n' % calls)
        os.chmod(os.path.join(fake, "systemctl"), 0o755)
        if os.path.exists(calls):
            os.remove(calls)
        subprocess.run(["mount", "-t", "tmpfs", "qel-run", "/run"], check=True)
        try:
            if systemd:
                os.makedirs("/run/systemd/system")
            env = {"PATH": fake + ":/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C"}
            r = run(os.path.join(self.control, name), *args, env=env)
        finally:
            subprocess.run(["umount", "/run"], check=True)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        recorded = []
        if os.path.exists(calls):
            with open(calls) as f:
                recorded = f.read().splitlines()
        return recorded, r.stdout + r.stderr

    def test_maintainer_scripts_never_start_an_unconfigured_agent_nor_touch_its_database(self):
        db = WORKDIR + "/sysconf.db"
        clear_default_tree()

        # first installation, nothing configured: only the working directory
        calls, out = self.maintainer_script("postinst", "configure", "")
        self.assertEqual(calls, ["daemon-reload"])
        self.assertTrue(os.path.isdir(WORKDIR))
        self.assertIn(db, out)

        # first installation on a configured machine: enabled and started
        content = b"operator's database, not to be touched"
        with open(db, "wb") as f:
            f.write(content)
        os.chmod(db, 0o600)
        calls, out = self.maintainer_script("postinst", "configure", "")
        self.assertEqual(calls, ["daemon-reload", "enable --now " + UNIT])
        self.assertNotIn(db, out)

        # an upgrade: a running agent is restarted, nothing else
        calls, _ = self.maintainer_script("postinst", "configure", "1.0.1")
        self.assertEqual(calls, ["daemon-reload", "try-restart " + UNIT])

        # without systemd (a chroot, a container): no systemctl at all
        calls, _ = self.maintainer_script("postinst", "configure", "1.0.1", systemd=False)
        self.assertEqual(calls, [])

        # removal stops and disables; an upgrade's prerm leaves the agent running
        self.assertEqual(self.maintainer_script("prerm", "upgrade", "1.0.3")[0], [])
        self.assertEqual(self.maintainer_script("prerm", "remove")[0], ["disable --now " + UNIT])
        self.assertEqual(self.maintainer_script("postrm", "purge")[0], ["daemon-reload"])

        with open(db, "rb") as f:
            self.assertEqual(f.read(), content)
        self.assertEqual(stat.S_IMODE(os.stat(db).st_mode), 0o600)
        clear_default_tree()

    # ---- the packaged agent at work -------------------------------------------

    def test_packaged_tools_run_on_their_own(self):
        env = {k: v for k, v in os.environ.items() if not k.startswith("PYTHON")}
        for tool in ("qel_server_sim.py", "qel_app_sim.py", "qel_cdn_sink.py", "qel_config.py"):
            r = run(os.path.join(self.root, TOOLS, tool), "--help", cwd=self.work, env=env)
            self.assertEqual(r.returncode, 0, "%s: %s" % (tool, r.stderr))
            self.assertIn("usage:", r.stdout)

    def test_packaged_agent_logs_in_and_delivers(self):
        srv = self.server_sim()
        app = self.app_sim(port=APP_PORT)
        db = self.path("sysconf.db")
        r = run(PYTHON, os.path.join(self.root, TOOLS, "qel_config.py"), db, "--dir", self.work,
                "--info-port", str(srv.info_port), "--file-port", str(srv.file_port))
        self.assertEqual(r.returncode, 0, r.stderr)

        ag = self.agent(db=db)
        ag.binary = os.path.join(self.root, "usr/bin/qel_net")
        self.assertNotEqual(os.path.realpath(ag.binary), os.path.realpath(BIN or ""))
        ag.start()
        ag.wait_log(r"config success")
        self.assertIn("version:%s release" % self.version, ag.log_lines())
        srv.wait_request(path="/vmu/device/login", timeout=10)
        app.wait_connected(10)
        mark = app.mark()
        app.send(7, '{"packaged":1}')
        app.wait_notice("back", since=mark, timeout=5)
        got = srv.wait_request(path=STATS, timeout=10)
        self.assertEqual(got[0]["body"], '{"packaged":1}')
        ag.wait_log(r"recv:7\(result:-- success --\)")

        ag.proc.send_signal(signal.SIGTERM)
        self.assertEqual(ag.wait_exit(5), 0)
        ag.assert_no_qt_thread_warnings()


if __name__ == "__main__":
    unittest.main()
