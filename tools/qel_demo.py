#!/usr/bin/env python3
"""A guided run of the qel_net agent against the two simulators.

    script/demo            (or: python3 tools/qel_demo.py AGENT_BINARY)

Everything happens in private network, IPC and UTS namespaces (only lo, host
name "qel-demo") and in a scratch directory: the agent talks to 127.0.0.1
only and never sees the default configuration. The story: login, a heartbeat
with its notice to the application, a few application messages and the
requests they become, a server outage with the "/reline/" notice and rows in
the failure history, then recovery and resend; alarm images packed and
uploaded, a refused archive kept in the failure directory and sent at the
next start; two cameras streamed live to a stream sink, the saved streams
probed with ffprobe and one frame kept as a PNG under build/demo/.
"""

import json
import os
import re
import sqlite3
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

from qel_app_sim import AppSim, Camera, announcement, write_images  # noqa: E402
from qel_cdn_sink import CdnSink        # noqa: E402
from qel_config import make_db as config_db  # noqa: E402
from qel_server_sim import ServerSim    # noqa: E402

INFO_PORT, FILE_PORT, VIDEO_PORT, CDN_PORT = 18000, 18080, 18888, 18889
PUSH_QUERY = "/vmu/inlive/pushurl/query"
# The decoded picture outlives the scratch directory, next to the build output.
PICTURE_DIR = os.path.join(os.path.dirname(HERE), "build", "demo")
# The agent's console prints each archive it is about to upload, quoted, on a line of its own.
SENT_ARCHIVE = re.compile(r'^"(/[^"\n]*\.tar\.gz)"$', re.M)

def say(text=""):
    print(text, flush=True)


def step(title):
    say()
    say("== " + title)


def make_db(work):
    # logs go to qel_log/ in the scratch directory, where log_lines reads them
    # alarm images under <work>/alarmimage/, refused archives under <work>/qel_net/qel_fail/
    return config_db(os.path.join(work, "sysconf.db"), work, INFO_PORT, FILE_PORT, video_port=VIDEO_PORT,
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
            say("   agent log | " + msg.rstrip())
    return total


def show_requests(srv, since):
    reqs = srv.requests()
    for r in reqs[since:]:
        say("   server    | %s %s  SessionId=%s  body=%s"
            % (r["method"], r["path"], r["session"], r["body"][:70].replace("\n", " ")))
    return len(reqs)


def show_notices(app, since, work=None):
    ns = app.notices()
    for n in ns[since:]:
        if n["kind"] == "raw":      # not a notice: the path of a refused archive, handed back as it is
            say("   app       | text     %s" % short(n["raw"].strip(), work or ""))
        else:
            say("   app       | notice %-8s SessionId=%s" % (n["kind"], n["session"]))
    return len(ns)


def short(path, work):
    return os.path.relpath(path, work) if work and path.startswith(work + os.sep) else path


def wait_until(what, timeout, condition):
    deadline = time.monotonic() + timeout
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > deadline:
            raise AssertionError("no %s after %d s" % (what, timeout))
        time.sleep(0.1)


def archive_holding(srv, member, reply=None, timeout=15):
    """The file-port record of the first upload that holds `member` (and got `reply`)."""
    return srv.wait_request(lambda r: r.get("archive") and member in [m for m, _ in r["archive"]]
                            and (reply is None or r["reply"] == reply), port="file", timeout=timeout)[0]


def show_upload(r):
    say("   server    | %s %s  SessionId=%s  body=%d-byte tar.gz  -> %s"
        % (r["method"], r["path"], r["session"], r["body_len"], r["reply"]))
    for name, size in r["archive"]:
        say("   archive   |   %-44s %6d bytes" % (name, size))


def sent_archives(work, since=0):
    with open(os.path.join(work, "agent.stderr"), encoding="utf-8", errors="replace") as f:
        text = f.read()
    return SENT_ARCHIVE.findall(text[since:]), len(text)


def archives_in(directory):
    return sorted(n for n in os.listdir(directory) if n.endswith(".tar.gz")) if os.path.isdir(directory) else []


def start_agent(binary, db, work, out):
    return subprocess.Popen([binary, db], cwd=work, stdout=out, stderr=subprocess.STDOUT)


def stop_agent(agent):
    agent.terminate()
    try:
        agent.wait(5)
    except subprocess.TimeoutExpired:
        agent.kill()
        agent.wait()


def probe(path, extra=()):
    r = subprocess.run(["ffprobe", "-v", "error", "-show_streams", "-of", "json"] + list(extra) + [path],
                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True, timeout=60)
    if r.returncode != 0:
        raise AssertionError("ffprobe %s: %s" % (path, r.stderr.strip()[-500:]))
    return json.loads(r.stdout)


def images(work, srv, app, agents, restart, seen_log, seen_app):
    alarm_root = os.path.join(work, "alarmimage")
    faildir = os.path.join(work, "qel_net", "qel_fail", "qel_alarmimage")

    def member(path):
        return "./" + os.path.relpath(path, work)     # names in the archive are relative to apppath

    step("6a. Image uploads: the application writes three NG images and says \"look now\" (type 5)")
    paths = write_images(alarm_root, camera=1, detect=1, kind="NG", count=3, prefix="ng")
    say("   images in %s/" % short(os.path.dirname(paths[0]), work))
    time.sleep(0.3)     # the application finishes its images before it says so
    _, seen_out = sent_archives(work)
    app.send(5, "")
    for path in paths:
        archive_holding(srv, member(path))
    app.wait_notice("back", since=seen_app)
    time.sleep(0.3)
    packed, seen_out = sent_archives(work, seen_out)
    for path in packed:
        say("   agent     | packed and uploading %s" % short(path, work))
    for record in srv.archives():
        show_upload(record)
    seen_app = show_notices(app, seen_app)
    seen_log = show_log(work, seen_log, r"^(send|recv):5")

    step("6b. The file server refuses the next archive; it waits in the failure directory")
    srv.code(1, port="file")
    say("   (file port now answers {\"code\":1})")
    late = write_images(alarm_root, camera=1, detect=1, kind="NG", count=1, prefix="late")
    time.sleep(0.3)
    app.send(5, "")
    record = archive_holding(srv, member(late[0]))
    waiting = wait_until("archive in %s" % faildir, 15, lambda: archives_in(faildir))
    time.sleep(0.3)
    packed, seen_out = sent_archives(work, seen_out)
    for path in packed:
        say("   agent     | packed and uploading %s" % short(path, work))
    show_upload(record)
    seen_app = show_notices(app, seen_app, work)
    seen_log = show_log(work, seen_log, r"^(send|recv):5")
    say("   %s/ now holds: %s" % (short(faildir, work), ", ".join(waiting)))

    step("6c. The file server accepts again; the agent restarts and sends the waiting archive")
    srv.normal(port="file")
    logins = len(srv.requests(path="/vmu/device/login"))
    stop_agent(agents[-1])
    say("   agent stopped (SIGTERM) and started again on the same database")
    restart()
    srv.wait_request(path="/vmu/device/login", count=logins + 1, timeout=15)
    record = archive_holding(srv, member(late[0]), reply='{"code":0}')
    wait_until("empty failure directory", 10, lambda: not archives_in(faildir))
    time.sleep(0.3)
    packed, seen_out = sent_archives(work, seen_out)
    for path in packed:
        say("   agent     | uploading %s" % short(path, work))
    show_upload(record)
    seen_log = show_log(work, seen_log, r"^(send|recv):5")
    say("   %s/ is empty again" % short(faildir, work))
    return seen_log, seen_app


def video(work, srv, app, sink, cams, seen_log):
    step("7a. Live video: the application announces two cameras (type 9); the agent asks for push addresses")
    body = announcement(cams)
    lines = ("9:x:..!" + body).replace("},{", "},\n       {").splitlines()
    for n, line in enumerate(lines):
        say("   %s | %s" % ("app sends" if n == 0 else "         ", line))
    app.send(9, body)
    queries = srv.wait_request(path=PUSH_QUERY, port="video", count=len(cams), timeout=15)
    conns = [sink.wait_connections(1, path="/live/cam%d" % (cam.number + 1), timeout=15)[0] for cam in cams]
    time.sleep(0.3)
    for r in queries:
        say("   server    | %s %s  (video port) -> %s" % (r["method"], r["path"], r["reply"]))
    for c in conns:
        say("   sink      | %s  then MPEG-TS" % c["head"].decode("latin-1").split("\r\n")[0])
    seen_log = show_log(work, seen_log, r"^(Inline:9|video:(send|recv|Connected))")

    step("7b. Five seconds of streaming later: what the sink saved, as ffprobe decodes it")
    time.sleep(5)
    for cam in cams:
        path = sink.stream_files("/live/cam%d" % (cam.number + 1))[0]
        video_streams = [s for s in probe(path)["streams"] if s.get("codec_type") == "video"]
        frames = probe(path, ["-select_streams", "v:0", "-show_frames",
                              "-show_entries", "frame=pts"]).get("frames", [])
        stamps = [f["pts"] for f in frames if "pts" in f]
        # MPEG-TS time stamps count 90000 a second
        rate = (len(stamps) - 1) * 90000.0 / (stamps[-1] - stamps[0]) if len(stamps) > 1 else 0.0
        for v in video_streams:
            say("   camera %d  | %s  %.1f MB  %s %dx%d  %d frames decoded, %.1f frames/s (camera writes %d)"
                % (cam.number + 1, short(path, work), os.path.getsize(path) / 1e6, v["codec_name"],
                   v["width"], v["height"], len(stamps), rate, cam.fps))
    os.makedirs(PICTURE_DIR, exist_ok=True)
    picture = os.path.join(PICTURE_DIR, "camera1.png")
    subprocess.run(["ffmpeg", "-v", "error", "-i", sink.stream_files("/live/cam1")[0], "-frames:v", "1",
                    "-y", picture], check=True, timeout=60)
    say("   one frame of camera 1 (the moving test picture): %s" % picture)
    return picture


def story(binary):
    work = tempfile.mkdtemp(prefix="qel_demo_")
    db = make_db(work)
    # the video port hands out push addresses on the stream sink of chapter 7
    srv = ServerSim(INFO_PORT, FILE_PORT, record=os.path.join(work, "server-requests.jsonl"),
                    video_port=VIDEO_PORT, cdn_port=CDN_PORT).start()
    app = AppSim(8890, record=os.path.join(work, "app-notices.jsonl")).start()
    out = open(os.path.join(work, "agent.stderr"), "w")
    agents = [start_agent(binary, db, work, out)]     # the newest last: chapter 6 restarts it
    sink, cams = None, []
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

        def restart():
            agents.append(start_agent(binary, db, work, out))

        seen_log, seen_app = images(work, srv, app, agents, restart, seen_log, seen_app)
        sink = CdnSink(CDN_PORT, directory=os.path.join(work, "streams")).start()
        # the application's camera numbers count from 0; the server's camera_id from 1
        cams = [Camera(0, 640, 480).start(), Camera(1, 320, 240).start()]
        picture = video(work, srv, app, sink, cams, seen_log)

        step("Done")
        say("   work directory: %s" % work)
        say("   agent logs in qel_log/, requests in server-requests.jsonl, notices in app-notices.jsonl,")
        say("   streams in streams/; a camera frame: %s" % picture)
        return 0
    except (AssertionError, subprocess.SubprocessError) as e:
        say("demo stopped: %s" % e)
        say("   work directory kept: %s" % work)
        return 1
    finally:
        stop_agent(agents[-1])
        for cam in cams:
            cam.close()         # the segments and semaphores go with them
        if sink is not None:
            sink.stop()
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
    say("qel_net demo: agent %s, server simulator on 127.0.0.1:%d/%d/%d, stream sink on 127.0.0.1:%d, "
        "application simulator on 127.0.0.1:8890 (private namespace, host qel-demo)"
        % (binary, INFO_PORT, FILE_PORT, VIDEO_PORT, CDN_PORT))
    return story(binary)


if __name__ == "__main__":
    sys.exit(main())
