"""Image uploads (alarm images, item 5; templates, item 6): what is packed and
how, the time file, refused and left-over archives across starts and the 72 h
rule, file servers that are away, stall or answer late, a tar that fails or
is cut short, restarts at awkward moments. Every image reaches the server
once. The tests run side by side."""

import datetime
import hashlib
import os
import re
import shutil
import subprocess
import threading
import time
import unittest

from qeltest import (ALARM, ARCHIVE_NAME, IMAGE_UPLOAD, STATS, TEMPLATE, AgentTestCase, child_pids,
                     make_archive, members_of)
from qel_app_sim import AWKWARD_MARKER

HOUR = 3600
SETTLE = 0.3       # images meant for a look are written this long before it
AGED = 10          # images "already there" before a start are dated this far back


def index_of(path):
    return int(ARCHIVE_NAME.match(os.path.basename(path)).group(2))


def mtime_ms(path):
    return os.stat(path).st_mtime_ns // 1000000


def names(record):
    return [name for name, _ in record["archive"]]


class Images(AgentTestCase):

    def wait_file_quiet(self, quiet=1.0):
        """Until no request has reached the file port for `quiet` seconds."""
        last = [None, 0.0]      # request count, since when

        def quiet_enough():
            n = len(self.srv.requests(port="file"))
            last[:] = [n, time.monotonic()] if n != last[0] else last
            return time.monotonic() - last[1] >= quiet
        self.wait_until(quiet_enough, 30, "file port quiet")

    def settle_and_check(self, images, fences=(ALARM,)):
        """A look after everything (fence): every image once, byte for byte, no archive left."""
        time.sleep(SETTLE)
        for item in fences:
            self.fence(item)
        self.wait_file_quiet()
        self.assert_uploaded_once(images)
        for r in self.srv.archives():
            for name, data in members_of(r["body_bytes"]).items():
                if os.path.exists(os.path.join(self.apppath, name)):
                    with open(os.path.join(self.apppath, name), "rb") as f:
                        self.assertEqual(f.read(), data, name)
        self.wait_until(lambda: not any(self.archives_in(d) for i in (ALARM, TEMPLATE)
                                        for d in (self.workdir(i), self.faildir(i))), 10, "archives removed")
        self.assert_clean()

    def accepted(self):
        return [n for r in self.srv.archives() if r["reply"] == '{"code":0}' for n in names(r)]

    def time_file(self):
        with open(os.path.join(self.workdir(ALARM), "time.txt")) as f:
            return int(f.read())

    def look(self, item, paths):
        """Ask for a look and return [(archive index, images)] of what it uploaded."""
        time.sleep(SETTLE)
        since, begun = len(self.srv.archives()), len(self.sent_archive_paths())
        self.app.send(item, "")
        self.wait_uploaded(paths)
        self.wait_file_quiet(0.5)
        return [(index_of(p), len(r["archive"]))
                for p, r in zip(self.sent_archive_paths()[begun:], self.srv.archives()[since:])]

    def test_packing_and_looks(self):
        at_start = (self.write(ALARM, 1, 1, "NG", count=4, prefix="a", age=AGED)
                    + self.write(ALARM, 4, 2, "OK", count=7, prefix="b", age=AGED)
                    + self.write(TEMPLATE, 4, 2, count=2, prefix="t", age=AGED))
        beyond = (self.write(ALARM, 5, 1, "NG", prefix="beyond", age=AGED)     # beyond 4 cameras, 2 indices
                  + self.write(ALARM, 1, 3, "OK", prefix="beyond", age=AGED) + self.write(TEMPLATE, 5, 1, age=AGED))
        began = time.time()
        srv, app, ag = self.start_all()
        self.wait_uploaded(at_start)
        self.wait_file_quiet(0.5)
        sent = self.sent_archive_paths()
        self.assertEqual(sorted((os.path.dirname(p) == self.workdir(ALARM), index_of(p), len(r["archive"]))
                                for p, r in zip(sent, srv.archives())),
                         [(False, 0, 1), (False, 1, 1), (True, 9, 10), (True, 10, 1)])
        for p, r in zip(sent, srv.archives()):   # named after the local time of packing
            when = datetime.datetime.strptime(ARCHIVE_NAME.match(os.path.basename(p)).group(1), "%Y%m%d%H%M%S%f")
            self.assertTrue(began - 1 <= when.timestamp() <= time.time() + 1, p)
            self.assertEqual((r["method"], r["path"], r["session"]),
                             ("POST", IMAGE_UPLOAD, ALARM if "/alarmimage/" in names(r)[0] else TEMPLATE))
        self.assertFalse(set(map(self.member, beyond)) & set(self.uploaded()))
        # Alarm images ten to an archive, named after the index of its last image; templates one each.
        for n, (item, count, want) in enumerate([(ALARM, 1, [(0, 1)]), (ALARM, 21, [(9, 10), (19, 10), (20, 1)]),
                                                 (TEMPLATE, 3, [(0, 1), (1, 1), (2, 1)])]):
            with self.subTest(item=item, images=count):
                self.assertEqual(self.look(item, self.write(item, camera=1 + n, count=count, prefix="n%d" % n)), want)
        # Each message uploads only what its own item finds since its last look.
        for item, other in ((ALARM, TEMPLATE), (TEMPLATE, ALARM)):
            waiting = self.write(other, camera=3, count=1, prefix="w%d" % item)
            self.look(item, self.write(item, camera=2, detect=2, count=3, prefix="r%d" % item))
            self.assertFalse({self.member(p) for p in waiting} & set(self.uploaded()))
        # Images written just before the look, within the 50 ms it reaches back, still go once.
        for attempt in range(5):
            paths = self.write(ALARM, count=3, prefix="prompt%d" % attempt)
            app.send(ALARM, "")
            self.wait_uploaded(paths)
            self.wait_file_quiet(0.5)
            if any(mtime_ms(p) > self.time_file() for p in paths):
                break
        self.settle_and_check(at_start, (ALARM, TEMPLATE))
        self.assertEqual(max(self.uploaded().values()), 1)

    def test_time_file_decides_which_images_are_new(self):
        day = 24 * HOUR
        for n, (name, when, ages, sent) in enumerate([
                # time file (seconds from now, text, or None: none), images {name: age s}, sent
                ("no time file", None, {"recent": 30, "years_ago": 20 * 365 * day}, {"recent", "years_ago"}),
                ("a minute old", -60, {"before": 120, "after": 30}, {"after"}),
                ("not a number", "yesterday", {"any": 3 * day}, {"any"}),
                ("in the future", day, {"recent": 30, "second_ago": 1}, set())]):
            with self.subTest(time_file=name):
                if n:
                    self.ag.stop()
                shutil.rmtree(self.alarm_root, ignore_errors=True)
                os.makedirs(self.workdir(ALARM), exist_ok=True)
                path = os.path.join(self.workdir(ALARM), "time.txt")
                if os.path.exists(path):
                    os.remove(path)
                if when is not None:
                    with open(path, "w") as f:
                        f.write("%s\n" % (when if isinstance(when, str) else int((time.time() + when) * 1000)))
                paths = {i: self.write(ALARM, names=["%d_%s.bmp" % (n, i)], age=age)[0] for i, age in ages.items()}
                since, began_ms = len(self.srv.archives()) if n else 0, int(time.time() * 1000)
                self.restart_linked() if n else self.start_all()
                time.sleep(SETTLE)
                fence = self.fence(ALARM)
                got = [m for r in self.srv.archives()[since:] if r is not fence for m in names(r)]
                self.assertEqual(sorted(got), sorted(self.member(paths[i]) for i in sent))
                # After a look: its beginning, less the 50 ms slack (a future mark is replaced too).
                self.assertTrue(began_ms - 50 <= self.time_file() <= int(time.time() * 1000))
                self.wait_until(lambda: not self.archives_in(self.workdir(ALARM)), 10, "answers taken in")

    def test_refused_archives_wait_in_the_failure_directory_until_the_next_start(self):
        images = self.write(ALARM, count=3, prefix="refused", age=AGED) + self.write(TEMPLATE, count=2, age=AGED)
        srv, app, ag = self.start_all(before_start=lambda s: s.code(1, port="file"))
        self.wait_until(lambda: len(self.archives_in(self.faildir(ALARM))) == 1
                        and len(self.archives_in(self.faildir(TEMPLATE))) == 2, 30, "refused archives moved")
        refused = self.sent_archive_paths()
        for item in (ALARM, TEMPLATE):
            ag.wait_log(r"recv:%d\(result:-- fail --\)" % item)
            self.assertEqual(self.archives_in(self.workdir(item)), [])
            self.assertEqual(self.archives_in(self.faildir(item)),
                             sorted(os.path.basename(p) for p in refused if self.workdir(item) in p))
        # The application is told which archive failed: its path, as it is.
        self.wait_until(lambda: all(p in "".join(n["raw"] for n in app.notices("raw")) for p in refused), 5,
                        "failed archives named to the application")
        # Not offered again in this run, not even when the server accepts again.
        srv.normal(port="file")
        time.sleep(SETTLE)
        self.fence(ALARM)
        self.fence(TEMPLATE)
        self.wait_file_quiet()
        self.assertEqual(set(self.accepted()) & set(map(self.member, images)), set())
        ag.stop()
        ag = self.restart_linked()
        self.wait_until(lambda: set(map(self.member, images)) <= set(self.accepted()), 30, "accepted at the restart")
        self.wait_file_quiet(0.5)
        kept = [p for p in self.sent_archive_paths(ag) if "qel_fail" in p]
        self.assertEqual(sorted(map(os.path.basename, kept)), sorted(map(os.path.basename, refused)))
        accepted = self.accepted()
        self.assertEqual({m: accepted.count(m) for m in map(self.member, images)},
                         {m: 1 for m in map(self.member, images)})
        self.assert_clean()

    def test_archives_found_at_start_go_first_unless_older_than_72_hours(self):
        rows = [  # name, item, left in the working directory (else the failure directory), age h, sent
            ("failed an hour ago", ALARM, False, 1, True), ("failed 71 h ago", ALARM, False, 71, True),
            ("failed 73 h ago", ALARM, False, 73, False), ("failed 80 h ago", ALARM, False, 80, False),
            ("left by a killed run", ALARM, True, 0, True),
            # no template failure directory yet: the leftover is moved once it is made
            ("template left by a killed run", TEMPLATE, True, 0, True)]
        made = {}
        for n, (name, item, left, hours, _) in enumerate(rows):
            when = time.time() - hours * HOUR - 60
            archive = os.path.join(self.workdir(item) if left else self.faildir(item), "Tar_%s000_%d.tar.gz" % (
                time.strftime("%Y%m%d%H%M%S", time.localtime(when)), n))
            member = "./%s/case%d.bmp" % ("alarmimage/camera1/detect1/NG" if item == ALARM else "cammer11", n)
            make_archive(archive, [(member, os.urandom(2000))], mtime=when)
            with open(archive, "rb") as f:
                made[name] = (archive, member, hashlib.sha256(f.read()).hexdigest())
        new = {item: self.write(item, prefix="new", age=AGED) for item in (ALARM, TEMPLATE)}
        for n in range(100):
            make_archive(os.path.join(self.workdir(ALARM), "Tar_20260101000000000_%d.tar.gz" % n),
                         [("./alarmimage/camera1/detect1/NG/many%d.bmp" % n, os.urandom(100))], mtime=time.time() - 60)
        emptied = []        # when the last leftover left the working directory

        def watch():
            while self.archives_in(self.workdir(ALARM)):
                time.sleep(0.005)
            emptied.append(time.time())
        threading.Thread(target=watch, daemon=True).start()
        srv, app, ag = self.start_all(wait_login=False)
        # Uploads begin while the leftovers are still being taken, one at a time.
        first = self.wait_until(lambda: srv.requests(port="file"), 10, "the first upload")[0]["time"]
        self.assertLess(first, self.wait_until(lambda: emptied, 30, "leftovers taken")[0])
        self.wait_until(lambda: {made[r[0]][1] for r in rows if r[4]} <= set(self.accepted()), 30, "kept archives")
        many = ["./alarmimage/camera1/detect1/NG/many%d.bmp" % n for n in range(100)]
        self.wait_until(lambda: set(many) <= set(self.accepted()), 30, "the hundred leftovers")
        self.settle_and_check(new[ALARM] + new[TEMPLATE], (ALARM, TEMPLATE))
        uploads = list(zip(self.sent_archive_paths(), srv.archives()))
        order = [names(r)[0] for _, r in uploads]
        for name, item, left, hours, sent in rows:
            with self.subTest(archive=name):
                archive, member, digest = made[name]
                self.assertFalse(os.path.exists(archive))
                got = [(p, r) for p, r in uploads if member in names(r)]
                self.assertEqual(len(got), 1 if sent else 0)
                if sent:   # as it was kept, from the failure directory, before anything new
                    self.assertEqual(got[0][0], os.path.join(self.faildir(item), os.path.basename(archive)))
                    self.assertEqual((got[0][1]["body_sha256"], got[0][1]["session"]), (digest, item))
                    self.assertLess(order.index(member), order.index(self.member(new[item][0])))

    def test_file_server_down_at_start_and_a_kill_during_an_upload(self):
        images = self.write(ALARM, count=20, size=1024 * 1024, prefix="killed", age=AGED)
        srv, app, ag = self.start_all(before_start=lambda s: s.down(port="file"))
        self.wait_until(lambda: len(self.archives_in(self.workdir(ALARM))) == 2, 20, "archives packed")
        time.sleep(4)
        # Unreachable is not refused: nothing went to the failure directory.
        self.assertEqual((self.archives_in(self.faildir(ALARM)), srv.requests(port="file")), ([], []))
        srv.throttle(256, port="file")       # larger than the socket buffers take in, read slowly
        srv.up(port="file")
        self.wait_until(lambda: srv.open_connections(port="file"), 30, "an upload under way")
        time.sleep(1.5)
        self.assertNotIn("send:5(file write to socket alread)", ag.log_text(), "written whole before the kill")
        ag.kill9()
        ag.assert_quiet()
        srv.throttle(0, port="file")
        closed = self.wait_until(lambda: [e for e in srv.events() if e["event"] == "close"
                                          and e["port_name"] == "file" and e.get("unfinished")], 15, "cut upload")
        self.assertLess(closed[-1]["unfinished"]["received"], closed[-1]["unfinished"]["length"])
        self.assertEqual(srv.archives(), [])
        self.restart_linked()
        self.wait_uploaded(images, timeout=40)
        self.settle_and_check(images)

    def test_unreadable_and_undecodable_images_and_the_syncs_before_the_time_files(self):
        """Run as the unit runs it (no capabilities: a mode-000 image cannot be read):
        the unreadable image is left out and said once, the images beside it go once
        and the mark moves on; a name that is not UTF-8 goes like any other; an
        archive and its directory entry are on disk before the time files name its images."""
        good = self.write(ALARM, count=3, prefix="good", age=AGED) + self.write(
            ALARM, names=[os.fsdecode(b"not_utf8_\xff\xfe.bmp")], age=AGED)
        bad = self.write(ALARM, names=["unreadable.bmp"], age=AGED)
        os.chmod(bad[0], 0)
        srv, app, ag = self.start_all(agent_kw={"prefix": ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]})
        self.wait_uploaded(good)
        ag.wait_log(r"pack:5\(image left out, not readable: .*/unreadable\.bmp: Permission denied\)")
        trace = self.path("syscalls")
        strace = subprocess.Popen(["strace", "-f", "-y", "-o", trace, "-e", "trace=fsync,fdatasync,rename,renameat2",
                                   "-p", str(ag.proc.pid)], stderr=subprocess.PIPE, universal_newlines=True)
        self.assertIn("attached", strace.stderr.readline())
        later = [p for n in range(3) for p in self.write(ALARM, camera=2, prefix="later%d" % n)
                 if self.look(ALARM, [p])]
        strace.terminate()
        strace.communicate()
        self.assertGreater(self.time_file(), mtime_ms(bad[0]))
        self.assertEqual((ag.log_text().count("not readable"), ag.log_text().count("tar failed")), (1, 0))
        self.assertNotIn(self.member(bad[0]), self.uploaded())
        # fsync of the archive, its rename, fsync of the directory, then the time files.
        with open(trace) as f:
            calls = [re.sub(r"^\d+ +", "", l) for l in f if "= 0" in l]
        work = self.workdir(ALARM)
        steps = [next((i for i, c in enumerate(calls) if re.match(p, c)), -1) for p in (
            r"fsync\(\d+<%s/Tar_\d+_0\.tar\.gz\.part>" % work, r"rename.*Tar_\d+_0\.tar\.gz\.part", r"fsync\(\d+<%s>" % work,
            r"fdatasync\(\d+<%s/" % work)]
        self.assertEqual((sorted(steps), min(steps) >= 0), (steps, True), "\n".join(calls))
        # Readable again with a new time: packed at the next look.
        os.chmod(bad[0], 0o644)
        os.utime(bad[0])
        self.look(ALARM, bad)
        self.settle_and_check(good + bad + later)

    def test_awkward_names_and_work_while_tar_runs(self):
        awkward = self.write(ALARM, awkward=True, age=AGED) + self.write(TEMPLATE, awkward=True, age=AGED)
        srv, app, ag = self.start_all()
        self.wait_uploaded(awkward, timeout=60)
        # A name taken apart by a shell would have made a "pwned..." file where it ran.
        ran = [f for d in ("/", "/tmp", os.getcwd()) for f in os.listdir(d) if f.startswith(AWKWARD_MARKER)]
        self.assertEqual(ran + [f for _, dirs, files in os.walk(self.work) for f in files + dirs
                                if f.startswith(AWKWARD_MARKER)], [])
        # While tar packs 300 images, new images wait for the next look and the application is answered at once.
        first = self.write(ALARM, count=300, size=100 * 1024, prefix="first")
        time.sleep(SETTLE)
        links = len(srv.connections(port="file"))
        app.send(ALARM, "")
        self.wait_until(lambda: child_pids(ag.proc.pid), 15, "tar under way")
        during, bodies, packing = [], [], 0
        while len(srv.connections(port="file")) == links and len(during) < 200:
            busy = bool(child_pids(ag.proc.pid))
            during += self.write(ALARM, camera=2, names=["during_%03d.bmp" % len(during)])
            bodies.append('{"while_packing":%d}' % len(bodies))
            self.assertLess(self.send_and_ack(7, bodies[-1], within=1.0), 1.0)
            packing += busy and bool(child_pids(ag.proc.pid))
        self.assertGreaterEqual(packing, 5, "images written while tar ran")
        self.assertEqual([r["body"] for r in srv.wait_request(path=STATS, count=len(bodies))], bodies)
        time.sleep(SETTLE)
        app.send(ALARM, "")
        self.wait_uploaded(first + during, timeout=60)
        self.settle_and_check(awkward + first + during, (ALARM, TEMPLATE))

    def test_a_stalled_upload_costs_its_connection_not_the_queue(self):
        images = self.write(ALARM, count=12, size=1024 * 1024, prefix="stalled", age=AGED)
        # The first connection stops reading after its first kilobyte; later ones read at full speed.
        srv, app, ag = self.start_all(before_start=lambda s: s.throttle(0.001, port="file"))
        self.wait_until(lambda: self.sent_archive_paths(ag) and srv.open_connections(port="file"), 30, "uploading")
        time.sleep(2)
        srv.throttle(0, port="file")
        self.wait_uploaded(images, timeout=90)
        self.assertIn("send:5(archive not written within 30 s or link lost: connection closed)", ag.log_text())
        self.assertLessEqual(ag.log_text().count("ERR_NetNoConnect"), 2)    # one per stall, no retry loop
        self.settle_and_check(images)

    def test_a_late_answer_is_never_taken_for_the_next_archive(self):
        self.write(ALARM, count=11, prefix="late", age=AGED)

        def setup(s):
            # Newest rule first: the ten-image archive's first answer comes after the 30 s
            # wait, its second after 2 s; the one-image archive is refused after 3 s. A late
            # answer taken for the request in flight would delete the refused one.
            s.set_reply(lambda r: {"code": 1 if len(r.get("archive") or []) == 1 else 0}, delay_ms=3000, port="file")
            s.set_reply({"code": 0}, times=1, delay_ms=2000, port="file")
            s.set_reply({"code": 0}, times=1, delay_ms=31000, port="file")
        srv, app, ag = self.start_all(before_start=setup)
        self.assertEqual(len(self.wait_until(lambda: self.archives_in(self.faildir(ALARM)), 70, "refused kept")), 1)
        self.wait_file_quiet(quiet=5.0)
        ag.wait_log(r"send:5\(no answer within 30 s: connection closed\)")
        self.assertEqual(self.archives_in(self.workdir(ALARM)), [])
        self.assertEqual(sorted(len(r["archive"]) for r in srv.archives()), [1, 10, 10])
        self.assert_clean()

    def test_a_failed_tar_the_free_space_floor_and_an_answer_during_a_long_tar(self):
        work = self.workdir(ALARM)
        os.makedirs(work)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1g", "qel-full", work], check=True)
        self._mounts.append(work)
        srv, app, ag = self.start_all()
        subprocess.run(["mount", "-o", "remount,ro", work], check=True)     # as after a disk error
        full = self.write(ALARM, count=5, size=100 * 1024, prefix="full")
        time.sleep(SETTLE)
        app.send(ALARM, "")
        ag.wait_log(r"pack:5\(tar failed with status \d+: .* removed, its 5 images are left for the next look\)")
        time.sleep(1)
        self.assertEqual(srv.requests(port="file"), [])
        self.assertFalse([n for n in os.listdir(work) if "Tar_" in n], "a partial archive was left")
        # Writable again: packed by the agent's own look within 5 s. Its answer comes
        # while the next look's tar runs: the time file never goes back.
        srv.hold(port="file")
        subprocess.run(["mount", "-o", "remount,rw", work], check=True)
        srv.wait_request(port="file", timeout=5)
        second = self.write(ALARM, camera=2, count=300, size=100 * 1024, prefix="second")
        time.sleep(SETTLE)
        app.send(ALARM, "")
        self.wait_until(lambda: child_pids(ag.proc.pid), 15, "tar under way")
        srv.flush(port="file")      # the held answer; later ones are held too
        srv.wait_request(port="file", count=2, timeout=30)
        self.assertGreaterEqual(self.time_file(), max(map(mtime_ms, second)) - 50)
        fence = self.write(ALARM, camera=3, prefix="fence")
        time.sleep(SETTLE)
        app.send(ALARM, "")
        time.sleep(1.0)
        srv.normal(port="file")
        self.wait_uploaded(full + second + fence, timeout=60)
        # Below the floor (5 % or 512 MiB free) a look waits, said once, and goes once there is room.
        with open(os.path.join(work, "filler"), "wb") as f:
            os.posix_fallocate(f.fileno(), 0, os.statvfs(work).f_bavail * os.statvfs(work).f_frsize - (100 << 20))
        floor = self.write(ALARM, camera=4, count=3, prefix="floor")
        for _ in range(2):
            time.sleep(SETTLE)
            app.send(ALARM, "")
        ag.wait_log(r"pack:5\(look postponed: 3 images, \d+ KiB, would leave less than 5 % or 512 MiB free")
        time.sleep(1)
        self.assertEqual(ag.log_text().count("look postponed"), 1)
        self.assertFalse(set(map(self.member, floor)) & set(self.uploaded()))
        os.remove(os.path.join(work, "filler"))
        self.wait_uploaded(floor, timeout=5)
        self.settle_and_check(full + second + fence + floor)

    def test_no_image_goes_twice_across_restarts(self):
        srv, app, ag = self.start_all()
        written = []
        for row in ["stop", "kill", "kill with the file port down", "stop while tar runs"]:
            with self.subTest(row=row):
                if row == "stop while tar runs":
                    batch = self.write(ALARM, count=300, size=200 * 1024, prefix="tarred")
                    time.sleep(SETTLE)
                    before = self.time_file()
                    app.send(ALARM, "")
                    self.wait_until(lambda: child_pids(ag.proc.pid), 15, "tar under way")
                    ag.proc.terminate()
                    self.assertEqual(ag.wait_exit(5), 0)
                    self.assertFalse([n for n in os.listdir(self.workdir(ALARM)) if "Tar_" in n], "archive left")
                    self.assertEqual(self.time_file(), before, "the time file moved past the unpacked images")
                elif row == "kill with the file port down":
                    srv.down(port="file")
                    batch = self.write(ALARM, count=8, prefix="down")
                    app.send(ALARM, "")
                    self.wait_until(lambda: self.archives_in(self.workdir(ALARM)), 15, "the archive packed")
                    ag.kill9()
                    srv.up(port="file")
                else:
                    # the images, then at once the message: the look begins within the 50 ms it reaches back
                    batch = self.write(ALARM, count=3, prefix=row)
                    app.send(ALARM, "")
                    self.wait_uploaded(batch)
                    self.wait_file_quiet(0.5)
                    ag.proc.terminate() if row == "stop" else ag.kill9()
                    ag.wait_exit(5)
                written += batch
                ag.assert_quiet()
                ag = self.restart_linked()
                self.wait_uploaded(batch, timeout=60)
                time.sleep(SETTLE)
                self.fence(ALARM)
                self.wait_file_quiet()
                self.assert_uploaded_once(written)
        self.settle_and_check(written)


PARALLEL = True

if __name__ == "__main__":
    unittest.main()
