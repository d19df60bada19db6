#!/usr/bin/env python3
"""Runs one system-test file inside private network, IPC, UTS and mount
namespaces (re-executing itself under unshare): only lo up, the host name
"qel-test-host", a tmpfs over /root/bin-AOI (made in an overlay of /root when
missing, so nothing is created on the real disk). A file that sets PARALLEL =
True has each of its tests run at the same time in namespaces of their own.
    python3 tests/system/nsrun.py tests/system/test_X.py [Class.method]"""

import importlib
import os
import signal
import subprocess
import sys
import tempfile
import unittest

HOST_NAME = "qel-test-host"
DEFAULT_TREE = "/root/bin-AOI"


def die(msg):
    sys.stderr.write("nsrun: %s\n" % msg)
    sys.exit(2)


def run(*cmd):
    r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, universal_newlines=True)
    if r.returncode != 0:
        die("%s failed (%d): %s" % (" ".join(cmd), r.returncode, r.stdout.strip()))
    return r.stdout


def enter():
    run("mount", "--make-rprivate", "/")
    run("ip", "link", "set", "lo", "up")
    run("hostname", HOST_NAME)
    if not os.path.isdir(DEFAULT_TREE):
        # The overlay's upper layer lives on a tmpfs: only an empty directory
        # touches the disk, removed at the end.
        scratch = tempfile.mkdtemp(prefix="qel_nsrun_")
        run("mount", "-t", "tmpfs", "qel-scratch", scratch)
        for d in ("upper", "work"):
            os.mkdir(os.path.join(scratch, d))
        run("mount", "-t", "overlay", "qel-root", "-o",
            "lowerdir=/root,upperdir=%s/upper,workdir=%s/work" % (scratch, scratch), "/root")
        os.mkdir(DEFAULT_TREE)
        _cleanup.append(scratch)
    run("mount", "-t", "tmpfs", "-o", "mode=0755", "qel-bin-aoi", DEFAULT_TREE)
    for family in ("-4", "-6"):
        if any(l.startswith("default") for l in run("ip", family, "route").splitlines()):
            die("a default route exists in the test namespace")
    up = [l.split(":")[1].strip().split("@")[0] for l in run("ip", "-o", "link", "show", "up").splitlines()]
    if up != ["lo"] or os.readlink("/proc/self/ns/net") == os.environ["QEL_HOST_NETNS"]:
        die("not isolated: interfaces up %s" % up)


_cleanup = []


def leave():
    """Kill what this run left in the namespace, undo the overlay."""
    mine = os.readlink("/proc/self/ns/net")
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            if int(entry) not in (os.getpid(), os.getppid()) and os.readlink("/proc/%s/ns/net" % entry) == mine:
                sys.stderr.write("nsrun: killing leftover process %s\n" % entry)
                os.kill(int(entry), signal.SIGKILL)
        except OSError:
            pass
    for scratch in _cleanup:
        for target in (DEFAULT_TREE, "/root", scratch):
            subprocess.run(["umount", "-l", target], stderr=subprocess.DEVNULL)
        os.rmdir(scratch)


def _terminated(signum, frame):
    raise KeyboardInterrupt("signal %d" % signum)    # unittest would swallow SystemExit


def reexec(script, args):
    """`script` again inside fresh namespaces (--kill-child: a CTest time-out that kills unshare ends it too)."""
    os.execvpe("unshare", ["unshare", "--net", "--ipc", "--uts", "--mount", "--fork", "--kill-child=SIGTERM",
                           sys.executable, os.path.abspath(script)] + args,
               dict(os.environ, QEL_IN_NS="1", QEL_HOST_NETNS=os.readlink("/proc/self/ns/net")))


def run_side_by_side(path):
    sys.path.insert(0, os.path.dirname(path))
    suite = unittest.defaultTestLoader.loadTestsFromName(os.path.splitext(os.path.basename(path))[0])
    ids = [t.id().split(".", 1)[1] for group in suite for t in group]
    runs = [subprocess.Popen([sys.executable, os.path.abspath(__file__), path, i], stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, universal_newlines=True) for i in ids]
    failed = 0
    for i, r in zip(ids, runs):
        out = r.communicate()[0]
        failed += r.returncode != 0
        sys.stdout.write("==== %s: %s\n%s" % (i, "ok" if r.returncode == 0 else "FAILED", out if r.returncode else ""))
    print("%d passed, %d failed" % (len(ids) - failed, failed), flush=True)
    sys.exit(1 if failed else 0)


def main():
    if len(sys.argv) < 2:
        die("usage: nsrun.py tests/system/test_X.py [unittest args]")
    path = os.path.abspath(sys.argv[1])
    if os.environ.get("QEL_IN_NS") != "1" and len(sys.argv) == 2:
        with open(path) as f:
            if "\nPARALLEL = True\n" in f.read():
                run_side_by_side(path)
    if os.environ.get("QEL_IN_NS") != "1":
        reexec(__file__, sys.argv[1:])
    signal.signal(signal.SIGTERM, _terminated)
    sys.path.insert(0, os.path.dirname(path))
    status = 130
    try:
        enter()
        module = importlib.import_module(os.path.splitext(os.path.basename(path))[0])
        result = unittest.main(module=module, argv=[path] + sys.argv[2:], exit=False).result
        failed = {getattr(t, "test_case", t).id() for t, _ in result.failures + result.errors}
        print("%d passed, %d failed" % (result.testsRun - len(failed) - len(result.skipped), len(failed)),
              flush=True)
        status = 1 if failed else 0
    except KeyboardInterrupt as e:
        sys.stderr.write("nsrun: interrupted (%s)\n" % e)
    finally:
        leave()
    sys.exit(status)


if __name__ == "__main__":
    main()
