#!/usr/bin/env python3
"""Run one system-test file inside private namespaces.

    python3 tests/system/nsrun.py tests/system/test_X.py [unittest args]

Outside the namespaces (QEL_IN_NS unset) this re-executes itself under
`unshare --net --ipc --uts --mount --fork` (with -r when not root). Inside it
makes all mounts private, brings up lo, sets the host name "qel-test-host"
and puts a tmpfs over /root/bin-AOI, the agent's default tree, so that a run
with the default configuration never writes to the real machine. When
/root/bin-AOI does not exist it is not created on the real file system: /root
gets an overlay whose upper layer lives on a tmpfs (mounted on a fresh
temporary directory), and /root/bin-AOI is made inside that overlay. It then
checks that only lo is up and there is no default route, runs the test file
as a unittest module and exits with its status, printing
"N passed, N failed[, N skipped]" last.
"""

import importlib.util
import os
import signal
import subprocess
import sys
import tempfile
import time
import traceback
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


def reexec(script=None, args=None):
    """Run `script` (default: this runner) with `args` (default: ours) again
    inside fresh namespaces, with QEL_IN_NS=1; does not return."""
    cmd = ["unshare"]
    if os.geteuid() != 0:
        cmd.append("-r")
    # --kill-child: if unshare itself is killed (e.g. a CTest time-out), the
    # runner inside gets SIGTERM and cleans up; the agents die with it.
    cmd += ["--net", "--ipc", "--uts", "--mount", "--fork", "--kill-child=SIGTERM",
            sys.executable, os.path.abspath(script or __file__)] + (sys.argv[1:] if args is None else args)
    env = dict(os.environ, QEL_IN_NS="1")
    try:
        os.execvpe("unshare", cmd, env)
    except OSError as e:
        die("cannot run unshare: %s" % e)


def private_default_tree():
    """tmpfs over /root/bin-AOI without creating anything on the real disk."""
    if os.path.isdir(DEFAULT_TREE):
        run("mount", "-t", "tmpfs", "-o", "mode=0755", "qel-bin-aoi", DEFAULT_TREE)
        return None
    if os.path.lexists(DEFAULT_TREE):
        die("%s exists and is not a directory" % DEFAULT_TREE)
    # The overlay's upper layer goes on a tmpfs over a fresh, empty directory;
    # only that directory is left on the disk, and it is removed at the end.
    scratch = tempfile.mkdtemp(prefix="qel_nsrun_")
    run("mount", "-t", "tmpfs", "-o", "mode=0700", "qel-scratch", scratch)
    upper, work = os.path.join(scratch, "upper"), os.path.join(scratch, "work")
    os.mkdir(upper)
    os.mkdir(work)
    r = subprocess.run(["mount", "-t", "overlay", "qel-root", "-o",
                        "lowerdir=/root,upperdir=%s,workdir=%s" % (upper, work), "/root"],
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        if r.returncode != 0:
            raise OSError(r.stdout.decode(errors="replace").strip())
        os.mkdir(DEFAULT_TREE)
    except OSError as e:
        # Without root, /root may not be ours to extend: an empty tmpfs
        # stands in for it (its content is hidden in this namespace only).
        sys.stderr.write("nsrun: no overlay on /root (%s); using an empty tmpfs\n" % e)
        if r.returncode == 0:
            run("umount", "/root")
        run("mount", "-t", "tmpfs", "-o", "mode=0755", "qel-root", "/root")
        os.mkdir(DEFAULT_TREE)
    run("mount", "-t", "tmpfs", "-o", "mode=0755", "qel-bin-aoi", DEFAULT_TREE)
    return scratch


def check_isolation():
    routes = run("ip", "-4", "route").strip()
    if any(line.split()[:1] == ["default"] for line in routes.splitlines()):
        die("a default route exists in the test namespace:\n" + routes)
    routes6 = subprocess.run(["ip", "-6", "route"], stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, universal_newlines=True).stdout
    if any(line.split()[:1] == ["default"] for line in routes6.splitlines()):
        die("a default IPv6 route exists in the test namespace:\n" + routes6)
    up = []
    for line in run("ip", "-o", "link", "show", "up").splitlines():
        name = line.split(":")[1].strip().split("@")[0]
        up.append(name)
    if up != ["lo"]:
        die("interfaces up in the test namespace: %s (want only lo)" % (up or "none"))
    try:
        if os.readlink("/proc/self/ns/net") == os.readlink("/proc/1/ns/net"):
            die("still in the network namespace of process 1")
    except OSError:
        pass
    if run("hostname").strip() != HOST_NAME:
        die("host name was not set")
    if not os.path.ismount(DEFAULT_TREE):
        die("%s is not a private mount" % DEFAULT_TREE)


def leftover_processes():
    """Processes of this run still alive in our network namespace. Not us,
    and not our parent: unshare enters the namespace before it forks us."""
    mine = os.readlink("/proc/self/ns/net")
    pids = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit() or int(entry) in (os.getpid(), os.getppid()):
            continue
        try:
            if os.readlink("/proc/%s/ns/net" % entry) == mine:
                pids.append(int(entry))
        except OSError:
            pass
    return pids


def load_tests(path):
    path = os.path.abspath(path)
    sys.path.insert(0, os.path.dirname(path))
    name = os.path.splitext(os.path.basename(path))[0]
    module_spec = importlib.util.spec_from_file_location(name, path)
    module = importlib.util.module_from_spec(module_spec)
    sys.modules[name] = module
    module_spec.loader.exec_module(module)
    return module


def summary(result):
    """Counts per test method; a method with failing subtests counts once."""
    def ids(entries):
        return {getattr(t, "test_case", t).id() for t in entries}
    failed_ids = ids(t for t, _ in result.failures + result.errors) | ids(result.unexpectedSuccesses)
    skipped_ids = ids(t for t, _ in result.skipped) - failed_ids
    failed, skipped = len(failed_ids), len(skipped_ids)
    passed = max(0, result.testsRun - failed - skipped)
    line = "%d passed, %d failed" % (passed, failed)
    if skipped:
        line += ", %d skipped" % skipped
    return line, failed


def _terminated(signum, frame):
    # unittest records SystemExit as a test error and goes on; it lets
    # KeyboardInterrupt through.
    raise KeyboardInterrupt("signal %d" % signum)


_scratch = []     # what enter() mounted, for leave(), even when a check fails half-way


def enter():
    """Inside the namespaces: private mounts, lo up, the test host name, a
    private default tree, then the isolation checks (exit status 2 on failure)."""
    run("mount", "--make-rprivate", "/")
    run("ip", "link", "set", "lo", "up")
    run("hostname", HOST_NAME)
    _scratch.append(private_default_tree())
    check_isolation()


def leave():
    """Kill what is left of this run in the namespace and undo enter()'s mounts."""
    scratch = _scratch.pop() if _scratch else None
    left = leftover_processes()
    if left:
        sys.stderr.write("nsrun: killing processes left behind: %s\n" % left)
        for pid in left:
            try:
                os.kill(pid, signal.SIGKILL)
            except OSError:
                pass
        time.sleep(0.2)
    if scratch:
        for target in (DEFAULT_TREE, "/root", scratch):
            subprocess.run(["umount", "-l", target], stderr=subprocess.DEVNULL)
        try:
            os.rmdir(scratch)
        except OSError:
            pass


def inside(test_file, unittest_args):
    signal.signal(signal.SIGTERM, _terminated)
    status = 1
    try:
        enter()
        try:
            module = load_tests(test_file)
        except Exception:
            traceback.print_exc()
            print("0 passed, 1 failed", flush=True)
            return 1
        prog = unittest.main(module=module, argv=[test_file] + unittest_args, exit=False)
        line, failed = summary(prog.result)
        status = 0 if failed == 0 else 1
        sys.stderr.flush()
        print(line, flush=True)
    except KeyboardInterrupt as e:
        sys.stderr.write("nsrun: interrupted (%s)\n" % (e or "SIGINT"))
        status = 130
    finally:
        leave()
    return status


def main():
    if len(sys.argv) < 2:
        die("usage: nsrun.py tests/system/test_X.py [unittest args]")
    if os.environ.get("QEL_IN_NS") != "1":
        reexec()
    sys.exit(inside(sys.argv[1], sys.argv[2:]))


if __name__ == "__main__":
    main()
