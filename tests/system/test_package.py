"""The Debian package (QEL_DEB, else skipped; script/test sets it): control
fields and contents, Debian's checker, the unit's exposure, and the service at
work under a real systemd in a booted Debian 12 container (package_in_container.py)."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest

from qeltest import SRC

UNIT = "qel_net.service"
UNIT_PATH = "usr/lib/systemd/system/" + UNIT
SCENARIO_TIMEOUT = 120      # seconds; the container is killed after that


def run(*cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True, **kw)


class Package(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        if not os.environ.get("QEL_DEB"):
            raise unittest.SkipTest("package not tested: QEL_DEB names no qel-net_*.deb (script/test sets it)")
        cls.tmp = tempfile.mkdtemp(prefix="qel_package_")
        cls.deb, cls.root = os.path.abspath(os.environ["QEL_DEB"]), os.path.join(cls.tmp, "root")
        subprocess.run(["dpkg", "-x", cls.deb, cls.root], check=True)
        with open(os.path.join(SRC, "CMakeLists.txt"), encoding="utf-8") as f:
            cls.version = re.search(r"project\(qel_net VERSION ([0-9.]+)", f.read()).group(1)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def test_control_fields_and_contents(self):
        f = {k: v.strip() for k, v in (l.split(":", 1) for l in run("dpkg-deb", "-f", self.deb).stdout.splitlines()
                                       if ":" in l and l[:1] != " ")}
        arch = run("dpkg", "--print-architecture").stdout.strip()
        self.assertEqual((f["Package"], f["Version"], f["Architecture"]), ("qel-net", self.version, arch))
        self.assertEqual(os.path.basename(self.deb), "qel-net_%s_%s.deb" % (self.version, arch))
        depends = [d.split()[0] for d in f["Depends"].split(",")]
        # the linked libraries (dpkg-shlibdeps), Qt's SQLite driver (a plugin) and top
        for lib in ("libqt6core6", "libqt6network6", "libqt6sql6-sqlite", "libavcodec59", "libsystemd0",
                    "libgoogle-glog0v6", "libcjson1", "procps"):
            self.assertIn(lib, depends)
        listing = run("dpkg-deb", "-c", self.deb).stdout.splitlines()
        entries = {l.split(None, 5)[5].lstrip("."): l.split()[0] for l in listing}
        for path in ("/usr/bin/qel_net", "/usr/share/qel-net/tools/qel_server_sim.py", "/" + UNIT_PATH,
                     "/usr/share/man/man8/qel_net.8.gz", "/usr/share/doc/qel-net/copyright",
                     "/usr/share/doc/qel-net/changelog.gz", "/usr/share/doc/qel-net/README.md"):
            executable = "/bin/" in path or path.endswith(".py")
            self.assertEqual(entries.get(path), "-rwxr-xr-x" if executable else "-rw-r--r--", path)
        # everything lives under /usr: no configuration, no working directory
        self.assertEqual([p for p in entries if not p.startswith("/usr/")], [])
        self.assertIn("stripped", run("file", self.root + "/usr/bin/qel_net").stdout.replace("not stripped", ""))
        answers = [run(self.root + "/usr/bin/qel_net", arg) for arg in ("--version", "--help")]
        self.assertEqual([(r.returncode, r.stdout.split("\n")[0]) for r in answers],
                         [(0, "qel_net " + self.version), (0, "usage: qel_net [DATABASE]")])

    def test_debian_checker_finds_nothing_and_the_unit_exposes_little(self):
        r = run("lintian", "--fail-on", "error,warning", self.deb)
        print("lintian: exit %d %r" % (r.returncode, r.stdout))
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        # verify checks that ExecStart's binary exists: a copy names the unpacked one
        check = os.path.join(self.tmp, UNIT)
        with open(os.path.join(self.root, UNIT_PATH), encoding="utf-8") as f:
            text = f.read()
        with open(check, "w", encoding="utf-8") as f:
            f.write(text.replace("ExecStart=/usr/bin/", "ExecStart=%s/usr/bin/" % self.root))
        r = run("systemd-analyze", "verify", "--man=no", check)
        self.assertEqual([l for l in (r.stdout + r.stderr).splitlines() if UNIT in l], [])
        self.assertTrue("Type=notify\n" in text and "WatchdogSec=30\n" in text)
        r = run("systemd-analyze", "security", "--offline=true", check)
        score = float(re.search(r"Overall exposure level for \S+: ([0-9.]+)", r.stdout).group(1))
        print("exposure: %.1f" % score)
        self.assertLessEqual(score, 3.0, r.stdout)

    def test_service_under_systemd(self):
        # Offline here: script/testroot has prepared the tree beforehand, outside
        # the test's namespaces (script/test does), so this only finds it.
        r = run(os.path.join(SRC, "script", "testroot"), self.deb)
        self.assertEqual(r.returncode, 0, "run script/testroot %s first:\n%s" % (self.deb, r.stderr[-3000:]))
        tree = r.stdout.strip().splitlines()[-1]
        out = os.path.join(self.tmp, "container")
        os.makedirs(out + "/units/multi-user.target.wants")
        with open(out + "/units/qel-test.service", "w") as f:
            f.write("[Unit]\nAfter=multi-user.target\nSuccessAction=poweroff-force\nFailureAction=poweroff-force\n"
                    "[Service]\nType=oneshot\nStandardOutput=file:/qel-test/log\n"
                    "ExecStart=/usr/bin/python3 /qel-test/scenario.py /qel-test/" + os.path.basename(self.deb))
        os.symlink("../qel-test.service", out + "/units/multi-user.target.wants/qel-test.service")
        shutil.copy(os.path.join(SRC, "tests/system/package_in_container.py"), os.path.join(out, "scenario.py"))
        shutil.copy(self.deb, out)
        # systemd boots from the cached tree under a throw-away overlay, with
        # only lo; the outer PID namespace takes every process of the
        # container with it when the time is up.
        cmd = ["unshare", "--pid", "--fork", "--kill-child=SIGKILL", "systemd-nspawn", "-q", "--boot",
               "--private-network", "--register=no", "--keep-unit", "--volatile=overlay", "-D", tree,
               "--bind=%s:/qel-test" % out, "--setenv=SYSTEMD_UNIT_PATH=/qel-test/units:"]
        start = time.monotonic()
        try:
            run(*cmd, timeout=SCENARIO_TIMEOUT, stdin=subprocess.DEVNULL)
        except subprocess.TimeoutExpired:
            pass
        print("container: booted, tested and powered off in %.1f s" % (time.monotonic() - start))
        log = run("tail", "-c", "5000", out + "/log").stdout
        self.assertTrue(os.path.exists(out + "/result.json"), "no result from the container; its log:\n" + log)
        result = json.loads(run("cat", out + "/result.json").stdout)
        print("container: timings (s) %s; %s" % (result["timings"], result["seen"].get("status")))
        self.assertEqual(result["failures"], [], log)


if __name__ == "__main__":
    unittest.main()
