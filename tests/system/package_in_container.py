"""The package under a real systemd: run by test_package.py as a one-shot unit
at the end of a Debian 12 container's boot (private network, only lo). It
installs the package offline, drives qel_net.service with systemctl between
the packaged simulators, and writes /qel-test/result.json (failed checks,
timings, the status line seen); its log goes to /qel-test/log."""

import glob
import json
import os
import signal
import subprocess
import sys
import time
import traceback

OUT, DEB = "/qel-test", sys.argv[1]
UNIT, WORKDIR, DB = "qel_net.service", "/root/bin-AOI/qel_net", "/root/bin-AOI/qel_net/sysconf.db"
failures, timings, seen = [], {}, {}


def run(*cmd, quiet=False):
    r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, universal_newlines=True)
    if not quiet:
        print("$ %s -> %d\n%s" % (" ".join(cmd), r.returncode, r.stdout.strip()), flush=True)
    return r


def prop(name):
    return run("systemctl", "show", "-P", name, UNIT, quiet=True).stdout.strip()


def check(ok, what):
    print("%s: %s" % ("ok" if ok else "FAILED", what), flush=True)
    if not ok:
        failures.append(what)


def wait(cond, timeout, what):
    start = time.monotonic()
    while not cond():
        if time.monotonic() - start > timeout:
            return check(False, "%s (within %s s)" % (what, timeout))     # None
        time.sleep(0.2)
    return round(time.monotonic() - start, 1)


def kept_rows():
    return int(run("sqlite3", DB, "select count(*) from info_failhistory", quiet=True).stdout)


def scenario():
    r = run("apt-get", "install", "-y", "--no-install-recommends", DEB)
    check(r.returncode == 0 and DB in r.stdout, "installed offline; postinst names the database to write")
    run("systemctl", "start", UNIT)
    check(prop("ConditionResult") == "no" and prop("ActiveState") == "inactive",
          "the service does not start while sysconf.db is missing")

    sys.path.insert(0, "/usr/share/qel-net/tools")
    sys.dont_write_bytecode = True      # nothing of ours left under /usr for dpkg
    from qel_app_sim import AppSim, Camera, write_images
    from qel_cdn_sink import CdnSink
    from qel_server_sim import ServerSim
    sink = CdnSink(0, directory="/tmp/streams").start()
    srv = ServerSim(cdn_port=sink.port).start()
    app = AppSim(8890).start()
    camera = Camera(0, 160, 128).start()
    # The integrator's path: a new database, the servers, then the check.
    run("qel_net", "--config", DB, "init", "--server", "127.0.0.1")
    run("qel_net", "--config", DB, "set", "serverport_info", str(srv.info_port), "serverport_file",
        str(srv.file_port), "serverport_video", str(srv.video_port), "alarmimage", "/srv/aoi/")
    write_images("/root/bin-AOI/alarmimage", count=2)     # packed with tar at start-up
    r = run("qel_net", "--check", DB)
    check(r.returncode == 1 and "ReadWritePaths=/srv/aoi" in r.stdout,
          "--check: a directory outside the unit's writable paths is named, with the directive to widen")
    run("qel_net", "--config", DB, "set", "alarmimage", "/root/bin-AOI/alarmimage/")
    r = run("qel_net", "--check", DB)
    check(r.returncode == 0 and r.stdout.endswith("qel_net --check: ready\n"), "--check: the machine is ready")

    run("systemctl", "enable", "--now", UNIT)
    logged = run("grep", "-rq", "systemd:(ready", WORKDIR + "/qel_log", quiet=True).returncode == 0
    check(logged and prop("ActiveState") == "active", "active once the agent has said READY=1, not before")
    proc = open("/proc/%s/status" % prop("MainPID")).read()
    check("NoNewPrivs:\t1" in proc and "Seccomp:\t2" in proc and "CapEff:\t0000000000000000" in proc,
          "the agent runs confined (no new privileges, system-call filter, no capabilities)")
    app.wait_connected(10)
    app.announce([camera])

    def deliver(tag, n=3):
        bodies = ['{"%s":%d}' % (tag, i) for i in range(n)]
        for body in bodies:
            mark = app.mark()
            app.send(7, body, timeout=15)
            app.wait_notice("back", since=mark, timeout=5)
        return bodies

    def arrived(bodies):
        return set(bodies) <= {r["body"] for r in srv.requests(path="/vmu/device/monitor/statistics/upload")}

    first = deliver("first")      # each acknowledged by the agent, so stored
    wait(lambda: arrived(first), 10, "messages reach the server")
    wait(lambda: srv.archives(), 20, "alarm images packed by tar through the shell, and uploaded")
    def status():
        return [l.strip() for l in run("systemctl", "status", UNIT, quiet=True).stdout.splitlines() if "Status: " in l]
    wait(lambda: "server: logged in · " in str(status()) and "cameras streaming 1/1" in str(status()), 15,
         "systemctl status shows the link, the queues and the streaming camera")
    seen["status"] = status()

    def restart_after(how, signo, bound):
        srv.down()
        bodies = deliver(how)
        pid, restarts = prop("MainPID"), int(prop("NRestarts"))
        os.kill(int(pid), signo)
        timings[how] = wait(lambda: prop("ActiveState") == "active" and prop("MainPID") not in ("0", pid),
                            bound, "%s: started again" % how)
        check(int(prop("NRestarts")) == restarts + 1, "%s: one restart" % how)
        srv.up()
        wait(lambda: arrived(bodies), 20, "%s: every acknowledged message delivered" % how)

    restart_after("kill -STOP", signal.SIGSTOP, 30 + 5)
    check("Watchdog timeout" in run("journalctl", "-u", UNIT, "-o", "cat", quiet=True).stdout,
          "the hung agent was ended by systemd's watchdog")
    restart_after("kill -9", signal.SIGKILL, 10)

    srv.down()
    deliver("stop", 2)
    start = time.monotonic()
    r = run("systemctl", "stop", UNIT)
    timings["stop"] = round(time.monotonic() - start, 1)
    check(r.returncode == 0 and timings["stop"] <= 5 and prop("ExecMainStatus") == "0",
          "systemctl stop: the agent exits 0 within 5 s")
    kept = kept_rows()
    check(kept >= 2, "undelivered requests kept in the failure history")

    run("apt-get", "remove", "-y", "qel-net")
    check(kept_rows() == kept and prop("LoadState") == "masked", "remove keeps the database; the unit is masked")
    run("apt-get", "purge", "-y", "qel-net")
    links = glob.glob("/etc/systemd/system/*/qel_net.service") + glob.glob("/etc/systemd/system/qel_net.service")
    check(kept_rows() == kept and not links, "purge keeps the database and forgets the unit's enablement")


if __name__ == "__main__":
    try:
        scenario()
    except Exception as e:  # the result says what broke off the scenario
        traceback.print_exc()
        failures.append("scenario broke off: %r" % e)
    with open(os.path.join(OUT, "result.json"), "w") as f:
        json.dump({"failures": failures, "timings": timings, "seen": seen}, f, ensure_ascii=False, indent=1)
    os._exit(0)     # the simulators' threads end with the container
