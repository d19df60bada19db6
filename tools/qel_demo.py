#!/usr/bin/env python3
"""A guided run of the qel_net agent against the two simulators.

    script/demo            (or: python3 tools/qel_demo.py AGENT_BINARY)

Everything happens in private network, IPC and UTS namespaces (only lo, host
name "qel-demo") and in a scratch directory: the agent talks to 127.0.0.1
only and never sees the default configuration. The story: login, a heartbeat
with its notice to the application, a few application messages and the
requests they become, a server outage with the "/reline/" notice and rows in
the failure history, then recovery and resend.
"""

import os
import re
import sqlite3
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

from qel_app_sim import AppSim          # noqa: E402
from qel_config import make_db as config_db  # noqa: E402
from qel_server_sim import ServerSim    # noqa: E402

def say(text=""):
    print(text, flush=True)


def step(title):
    say()
    say("== " + title)


def make_db(work):
    # logs go to qel_log/ in the scratch directory, where log_lines reads them
    return config_db(os.path.join(work, "sysconf.db"), work, 18000, 18080,
                     overrides={"logpath": os.path.join(work, "qel_log/")})


def log_lines(work, since=0):
    log = os.path.join(work, "qel_log")
    text = ""
    for name in sorted(os.listdir(log)) if os.path.isdir(log) else []:
        if "INFO" in name and not os.path.islink(os.path.join(log, name)):
            with open(os.path.join(log, name), encoding="utf-8", errors="replace") as f:
                text += f.read()
    lines = [l for l in text.splitlines() if re.match(r"^I\d{8} ", l)]
    return lines[since:], len(lines)


def show_log(work, since, pattern=None):
    lines, total = log_lines(work, since)
    for line in lines:
        msg = line.split("] ", 1)[-1]
        if pattern is None or re.search(pattern, msg):
            say("   agent log | " + msg)
    return total


def show_requests(srv, since):
    reqs = srv.requests()
    for r in reqs[since:]:
        say("   server    | %s %s  SessionId=%s  body=%s"
            % (r["method"], r["path"], r["session"], r["body"][:70].replace("\n", " ")))
    return len(reqs)


def show_notices(app, since):
    ns = app.notices()
    for n in ns[since:]:
        say("   app       | notice %-8s SessionId=%s" % (n["kind"], n["session"]))
    return len(ns)


def story(binary):
    work = tempfile.mkdtemp(prefix="qel_demo_")
    db = make_db(work)
    srv = ServerSim(18000, 18080, record=os.path.join(work, "server-requests.jsonl")).start()
    app = AppSim(8890, record=os.path.join(work, "app-notices.jsonl")).start()
    out = open(os.path.join(work, "agent.stderr"), "w")
    agent = subprocess.Popen([binary, db], cwd=work, stdout=out, stderr=subprocess.STDOUT)
    seen_log = seen_req = seen_app = 0
    try:
        step("1. The agent starts, connects to the server and to the application, and logs in")
        srv.wait_request(path="/vmu/device/login", timeout=15)
        app.wait_connected(10)
        time.sleep(0.3)
        seen_log = show_log(work, seen_log)
        seen_req = show_requests(srv, seen_req)

        step("2. The application sends three messages; each is acknowledged with /back/ and sent on")
        app.send(7, '{"total":120,"ng":3}')
        app.send(2, '{"exposure":12,"名称":"相机1"}')
        app.send(14, "query")
        srv.wait_request(path="/vmu/device/initial", timeout=10)
        app.wait_notice("/vmu/device/initial", timeout=10)
        time.sleep(0.3)
        seen_req = show_requests(srv, seen_req)
        seen_app = show_notices(app, seen_app)
        seen_log = show_log(work, seen_log, r"^(Inline|send|recv)")
        say("   (the product-information answer was passed on to the application)")

        step("3. Twenty seconds after start the heartbeat goes out; the application hears /heart/")
        srv.wait_request(path="/vmu/device/heartbeat", timeout=25)
        app.wait_notice("heart", timeout=5)
        time.sleep(0.3)
        seen_req = show_requests(srv, seen_req)
        seen_app = show_notices(app, seen_app)
        seen_log = show_log(work, seen_log, r"^(heart|savefail)")

        step("4. The server goes down; new messages wait, the application hears /reline/")
        srv.down()
        time.sleep(0.5)
        app.send(12, '{"title":"clean lens"}')
        app.send(7, '{"total":121,"ng":3}')
        app.wait_notice("reline", timeout=10)
        time.sleep(0.5)
        seen_app = show_notices(app, seen_app)
        seen_log = show_log(work, seen_log, r"^(socket|send|error|Inline)")
        con = sqlite3.connect(db)
        rows = con.execute("select 发送时间, 内容 from info_failhistory").fetchall()
        con.close()
        say("   failure history (info_failhistory) now holds %d row(s):" % len(rows))
        for ms, text in rows:
            say("     %d  %s" % (ms, text.splitlines()[0]))

        step("5. The server comes back; the agent reconnects and sends what was waiting")
        srv.up()
        srv.wait_request(path="/vmu/reminder/add", timeout=40)
        srv.wait_request(path="/vmu/device/monitor/statistics/upload", count=2, timeout=10)
        time.sleep(0.3)
        seen_req = show_requests(srv, seen_req)
        seen_log = show_log(work, seen_log, r"^(socket|send|recv)")

        step("Done")
        say("   work directory: %s" % work)
        say("   agent logs in qel_log/, requests in server-requests.jsonl, notices in app-notices.jsonl")
        return 0
    except AssertionError as e:
        say("demo stopped: %s" % e)
        say("   work directory kept: %s" % work)
        return 1
    finally:
        agent.terminate()
        try:
            agent.wait(5)
        except subprocess.TimeoutExpired:
            agent.kill()
        srv.stop()
        app.stop()
        out.close()


def enter_namespace():
    if os.environ.get("QEL_DEMO_NS") == "1":
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        subprocess.run(["hostname", "qel-demo"], check=True)
        return
    cmd = ["unshare", "--net", "--ipc", "--uts", "--fork"]
    if os.geteuid() != 0:
        cmd.insert(1, "-r")
    env = dict(os.environ, QEL_DEMO_NS="1")
    os.execvpe(cmd[0], cmd + [sys.executable] + sys.argv, env)


def main():
    if len(sys.argv) != 2:
        print("usage: qel_demo.py AGENT_BINARY", file=sys.stderr)
        return 2
    binary = os.path.abspath(sys.argv[1])
    enter_namespace()
    routes = subprocess.run(["ip", "-4", "route"], capture_output=True, text=True).stdout
    if "default" in routes:
        print("refusing to run: not in a private network namespace", file=sys.stderr)
        return 1
    say("qel_net demo: agent %s, server simulator on 127.0.0.1:18000/18080, "
        "application simulator on 127.0.0.1:8890 (private namespace, host qel-demo)" % binary)
    return story(binary)


if __name__ == "__main__":
    sys.exit(main())
