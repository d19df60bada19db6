"""Image uploads (alarm images, item 5; templates, item 6): what is packed
and how, the time file, refused and left-over archives across starts, a file
server that is away, awkward file names, a kill in the middle of an upload,
and the application link while tar runs."""

import datetime
import hashlib
import os
import shutil
import subprocess
import time
import unittest

from runtime import (ALARM, ARCHIVE_NAME, IMAGE_UPLOAD, STATS, TEMPLATE, ImageCase, child_pids,
                     make_archive)
from qel_app_sim import AWKWARD_MARKER, AWKWARD_NAMES    # noqa: E402  (tools/ is on the path now)

HOUR = 3600
TIME_FILE = "time.txt"
LOGIN = "/vmu/device/login"
# Images meant for a look are written this long before it: a look that begins
# within 50 ms of its images is the subject of test_images_written_just_before_a_look_go_once.
SETTLE = 0.3
AGED = 10          # images "already there" before a start are dated this many seconds back
ACCEPTED = '{"code":0}'


def index_of(path):
    return int(ARCHIVE_NAME.match(os.path.basename(path)).group(2))


def stamp_of(path):
    """The local time in an archive's name, as seconds since the epoch."""
    text = ARCHIVE_NAME.match(os.path.basename(path)).group(1)
    return datetime.datetime.strptime(text[:14], "%Y%m%d%H%M%S").timestamp() + int(text[14:]) / 1000.0


def percentile(values, p):
    values = sorted(values)
    return values[min(len(values) - 1, max(0, int(round(p / 100.0 * (len(values) - 1)))))]


def mtime_ms(path):
    return os.stat(path).st_mtime_ns // 1000000


def names(record):
    return [name for name, _ in record["archive"]]


class ImageTestCase(ImageCase):

    def uploads_of_run(self, agent):
        """[(archive path, server record)] of the archives that `agent`, the
        first run, uploaded, in order (every one answered, so the console's
        list and the server's match one to one)."""
        self.wait_file_quiet(quiet=0.5, limit=30)
        records = self.srv.archives()
        sent = self.sent_archive_paths(agent)
        self.assertEqual(len(sent), len(records), "archives begun vs received")
        return list(zip(sent, records))

    def accepted(self):
        """Member name -> how many archives holding it the server accepted."""
        counts = {}
        for r in self.srv.archives():
            if r["reply"] == ACCEPTED:
                for name in names(r):
                    counts[name] = counts.get(name, 0) + 1
        return counts

    def wait_accepted(self, members, timeout=30):
        self.wait_until(lambda: not set(members) - set(self.accepted()), timeout,
                        "accepted uploads of %d member(s); missing %s"
                        % (len(members), sorted(set(members) - set(self.accepted()))[:5]))

    def archives_left(self):
        return {d: self.archives_in(d) for item in (ALARM, TEMPLATE)
                for d in (self.workdir(item), self.faildir(item)) if self.archives_in(d)}

    def wait_no_archives_left(self, timeout=10):
        """An accepted archive is removed just after its answer, by the packer."""
        self.wait_until(lambda: not self.archives_left(), timeout, "archives removed")

    def time_file(self, item=ALARM):
        return os.path.join(self.workdir(item), TIME_FILE)

    def read_time_file(self, item=ALARM):
        with open(self.time_file(item)) as f:
            return int(f.read().strip())

    def restart_and_reconnect(self):
        """A new run on the same database, once the application link is back."""
        links, logins = self.app.connection_count(), len(self.srv.requests(path=LOGIN))
        self.restart()
        self.app.wait_connected(15, count=links + 1)
        self.srv.wait_request(path=LOGIN, count=logins + 1, timeout=15)
        return self.ag


class Packing(ImageTestCase):

    def test_images_there_at_start_are_packed_and_uploaded_byte_exact(self):
        images = {ALARM: self.write(ALARM, 1, 1, "NG", count=4, prefix="a", age=AGED)
                  + self.write(ALARM, 2, 2, "OK", count=4, prefix="b", age=AGED)
                  + self.write(ALARM, 4, 2, "NG", count=3, prefix="c", age=AGED),
                  TEMPLATE: self.write(TEMPLATE, 1, 1, count=2, prefix="t", age=AGED)
                  + self.write(TEMPLATE, 4, 2, count=1, prefix="u", age=AGED)}
        # beyond the configured 4 cameras and 2 detection indices: not looked at
        beyond = (self.write(ALARM, 5, 1, "NG", prefix="beyond", age=AGED)
                  + self.write(ALARM, 1, 3, "OK", prefix="beyond", age=AGED)
                  + self.write(TEMPLATE, 5, 1, prefix="beyond", age=AGED))
        began = time.time()
        srv, app, ag = self.start_all()
        self.wait_uploaded(images[ALARM] + images[TEMPLATE], timeout=30)
        uploads = self.uploads_of_run(ag)
        ended = time.time()

        # alarm images ten to an archive, named after the index of its last image; templates one each
        cases = [(ALARM, [(9, 10), (10, 1)]), (TEMPLATE, [(0, 1), (1, 1), (2, 1)])]
        for item, want in cases:
            with self.subTest(item=item):
                mine = [(p, r) for p, r in uploads if os.path.dirname(p) == self.workdir(item)]
                self.assertEqual([(index_of(p), len(r["archive"])) for p, r in mine], want)
                for p, r in mine:
                    self.assertLessEqual(began - 1, stamp_of(p), p)
                    self.assertLessEqual(stamp_of(p), ended + 1, p)
                    self.assertEqual((r["method"], r["path"], r["session"]), ("POST", IMAGE_UPLOAD, item))
                self.assertEqual(sorted(n for _, r in mine for n in names(r)),
                                 sorted(self.member(p) for p in images[item]))
        self.assertEqual(len(uploads), 5, [p for p, _ in uploads])
        self.assert_uploaded_once(images[ALARM] + images[TEMPLATE])
        self.assertFalse({self.member(p) for p in beyond} & set(self.uploaded()))
        self.assert_contents()
        self.wait_no_archives_left()
        self.assert_clean()

    def test_alarm_archives_hold_ten_images_and_templates_one(self):
        srv, app, ag = self.start_all()
        cases = [(ALARM, 1, [(0, 1)]), (ALARM, 10, [(9, 10)]), (ALARM, 11, [(9, 10), (10, 1)]),
                 (ALARM, 21, [(9, 10), (19, 10), (20, 1)]), (TEMPLATE, 1, [(0, 1)]),
                 (TEMPLATE, 3, [(0, 1), (1, 1), (2, 1)])]
        for n, (item, count, want) in enumerate(cases):
            with self.subTest(item=item, images=count):
                paths = self.write(item, camera=1 + n % 4, count=count, prefix="look%d" % n)
                time.sleep(SETTLE)
                since, begun = len(srv.archives()), len(self.sent_archive_paths())
                app.send(item, "")
                self.wait_uploaded(paths)
                self.wait_file_quiet(quiet=0.5)
                sent, records = self.sent_archive_paths()[begun:], srv.archives()[since:]
                self.assertEqual([(index_of(p), len(r["archive"])) for p, r in zip(sent, records)], want)
                self.assertEqual(len(sent), len(records))
                self.assertEqual(sorted(n for r in records for n in names(r)), sorted(map(self.member, paths)))
        self.assert_contents()
        self.assert_clean()

    def test_each_message_uploads_what_its_item_finds_since_the_last_look(self):
        srv, app, ag = self.start_all()
        written = {ALARM: [], TEMPLATE: []}
        # templates waiting while alarm images are asked for, and the other way round
        for round_ in range(2):
            for item, other in ((ALARM, TEMPLATE), (TEMPLATE, ALARM)):
                with self.subTest(round=round_, item=item):
                    paths = self.write(item, camera=2, detect=2, count=3, prefix="r%d" % round_)
                    waiting = self.write(other, camera=3, detect=1, count=1, prefix="w%d_%d" % (round_, item))
                    written[item] += paths
                    written[other] += waiting
                    time.sleep(SETTLE)
                    mark = app.mark()
                    app.send(item, "")
                    app.wait_notice("back", since=mark, timeout=5)
                    self.wait_uploaded(paths)
                    self.wait_file_quiet(quiet=0.5)
                    self.assertFalse({self.member(p) for p in waiting} & set(self.uploaded()),
                                     "images of the other item went without being asked for")
        time.sleep(SETTLE)
        self.fence(ALARM)
        self.fence(TEMPLATE)
        self.wait_file_quiet(quiet=0.5)
        self.assert_uploaded_once(written[ALARM] + written[TEMPLATE])
        for r in srv.archives():
            item = ALARM if all(n.startswith("./alarmimage/") for n in names(r)) else TEMPLATE
            self.assertEqual(r["session"], item, names(r))
        self.assert_contents()
        self.assert_clean()

    def test_images_written_just_before_a_look_go_once(self):
        srv, app, ag = self.start_all()
        for item in (ALARM, TEMPLATE):
            with self.subTest(item=item):
                for attempt in range(5):
                    # as the application does it: the images, then at once the message
                    paths = self.write(item, count=3, prefix="prompt%d" % attempt)
                    app.send(item, "")
                    self.wait_uploaded(paths)
                    self.wait_file_quiet(quiet=0.5)
                    # the time file holds the look's beginning less 50 ms: images above it
                    # lie in the slack that the next look reaches back into
                    if any(mtime_ms(p) > self.read_time_file(item) for p in paths):
                        break
                else:
                    self.skipTest("every look began more than 50 ms after its images")
                time.sleep(SETTLE)
                self.fence(item)
                self.wait_file_quiet(quiet=0.5)
                self.assert_uploaded_once(paths)


class TimeFile(ImageTestCase):

    def test_time_file_decides_which_images_are_new(self):
        day = 24 * HOUR
        cases = [
            # name, time file (seconds from now, or text; None: none), images {name: age s}, sent
            ("no time file", None, {"recent": 30, "years_ago": 20 * 365 * day}, {"recent", "years_ago"}),
            ("a minute old", -60, {"before": 120, "after": 30}, {"after"}),
            ("not a number", "yesterday", {"any": 3 * day}, {"any"}),
            ("in the future", day, {"recent": 30, "second_ago": 1}, set()),
        ]
        for n, (name, when, ages, sent) in enumerate(cases):
            with self.subTest(time_file=name):
                if n:
                    self.wait_no_archives_left()    # every answer taken in, so nothing is left for the next run
                    self.ag.stop()
                shutil.rmtree(self.alarm_root, ignore_errors=True)
                os.makedirs(self.workdir(ALARM), exist_ok=True)
                if os.path.exists(self.time_file()):
                    os.remove(self.time_file())
                now = time.time()
                if when is not None:
                    with open(self.time_file(), "w") as f:
                        f.write("%s\n" % (when if isinstance(when, str) else int((now + when) * 1000)))
                paths = {}
                for image, age in ages.items():
                    paths[image] = self.write(ALARM, names=["%d_%s.bmp" % (n, image)], age=age)[0]
                since = len(self.srv.archives()) if n else 0
                began_ms = int(time.time() * 1000)
                if n:
                    self.restart_and_reconnect()
                else:
                    self.start_all()
                if isinstance(when, int) and when > 0:
                    # replaced by the moment of the look, which would otherwise hide every image until then
                    future = int((now + when) * 1000)
                    self.wait_until(lambda: self.read_time_file() != future, 15, "time file replaced")
                    self.assertLessEqual(began_ms, self.read_time_file())
                    self.assertLessEqual(self.read_time_file(), int(time.time() * 1000))
                time.sleep(SETTLE)
                fence = self.fence(ALARM)
                got = [m for r in self.srv.archives()[since:] if r is not fence for m in names(r)]
                self.assertEqual(sorted(got), sorted(self.member(paths[i]) for i in sent))
                # after a look that found something: its beginning, less the 50 ms slack
                self.assertLessEqual(began_ms - 50, self.read_time_file())
                self.assertLessEqual(self.read_time_file(), int(time.time() * 1000))
        self.assert_contents()
        self.assert_clean()


class FailedArchives(ImageTestCase):

    def test_refused_archive_waits_in_the_failure_directory_until_the_next_start(self):
        images = {ALARM: self.write(ALARM, count=3, prefix="refused", age=AGED),
                  TEMPLATE: self.write(TEMPLATE, count=2, prefix="refused", age=AGED)}
        srv, app, ag = self.start_all(before_start=lambda s: s.code(1, port="file"))
        srv.wait_request(port="file", count=3, timeout=30)
        self.wait_until(lambda: len(self.archives_in(self.faildir(ALARM))) == 1
                        and len(self.archives_in(self.faildir(TEMPLATE))) == 2, 15, "refused archives moved")
        refused = self.sent_archive_paths()
        ag.wait_log(r"recv:5\(result:-- fail --\)")
        ag.wait_log(r"recv:6\(result:-- fail --\)")
        for item in (ALARM, TEMPLATE):
            with self.subTest(item=item):
                self.assertEqual(self.archives_in(self.workdir(item)), [])
                self.assertEqual(self.archives_in(self.faildir(item)),
                                 sorted(os.path.basename(p) for p in refused if self.workdir(item) in p))
        # the application is told which archive failed: its path, as it is
        told = lambda: "".join(n["raw"] for n in app.notices("raw"))
        self.wait_until(lambda: all(p in told() for p in refused), 5, "failed archives named to the application")

        # not offered again in this run, not even when the server accepts again
        srv.normal(port="file")
        time.sleep(SETTLE)
        self.fence(ALARM)
        self.fence(TEMPLATE)
        self.wait_file_quiet(quiet=1.0)
        everything = images[ALARM] + images[TEMPLATE]
        self.assertEqual([len(self.archives_in(self.faildir(item))) for item in (ALARM, TEMPLATE)], [1, 2])
        self.assertEqual(set(self.accepted()) & set(map(self.member, everything)), set())
        self.assert_uploaded_once(everything)

        ag.stop()
        ag2 = self.restart_and_reconnect()
        self.wait_accepted(list(map(self.member, everything)))
        self.wait_file_quiet(quiet=0.5)
        kept = [p for p in self.sent_archive_paths(ag2)
                if os.path.dirname(p) in (self.faildir(ALARM), self.faildir(TEMPLATE))]
        self.assertEqual(sorted(map(os.path.basename, kept)), sorted(map(os.path.basename, refused)))
        accepted = self.accepted()
        self.assertEqual({self.member(p): accepted[self.member(p)] for p in everything},
                         {self.member(p): 1 for p in everything})
        self.assert_contents()
        self.wait_no_archives_left()
        self.assert_clean()

    def test_archives_found_at_start_are_sent_before_new_ones_unless_older_than_72_hours(self):
        now = time.time()
        cases = [
            # name, item, left in the working directory (else the failure directory), age h, sent
            ("failed an hour ago", ALARM, False, 1, True),
            ("failed 71 h ago", ALARM, False, 71, True),
            ("failed 73 h ago", ALARM, False, 73, False),
            ("template failed 71 h ago", TEMPLATE, False, 71, True),
            ("template failed 73 h ago", TEMPLATE, False, 73, False),
            ("left by a killed run", ALARM, True, 0, True),
            ("template left by a killed run", TEMPLATE, True, 0, True),
        ]
        made = {}
        for n, (name, item, left, hours, _) in enumerate(cases):
            when = now - hours * HOUR - 60
            archive = os.path.join(self.workdir(item) if left else self.faildir(item), "Tar_%s_%d.tar.gz" % (
                time.strftime("%Y%m%d%H%M%S", time.localtime(when)) + "000", n))
            member = "./" + os.path.relpath(os.path.join(
                self.alarm_root if item == ALARM else self.template_root,
                "camera1/detect1/NG" if item == ALARM else "cammer11", "case%d.bmp" % n), self.apppath)
            make_archive(archive, [(member, os.urandom(2000))], mtime=when)
            with open(archive, "rb") as f:
                made[name] = (archive, member, hashlib.sha256(f.read()).hexdigest())
        new = {item: self.write(item, prefix="new", age=AGED) for item in (ALARM, TEMPLATE)}

        srv, app, ag = self.start_all()
        self.wait_accepted([made[c[0]][1] for c in cases if c[4]] + [self.member(new[i][0]) for i in new])
        time.sleep(SETTLE)
        self.fence(ALARM)
        self.fence(TEMPLATE)
        uploads = self.uploads_of_run(ag)
        self.wait_no_archives_left()
        order = [names(r)[0] for _, r in uploads]
        for name, item, left, hours, sent in cases:
            with self.subTest(archive=name):
                archive, member, digest = made[name]
                self.assertFalse(os.path.exists(archive))
                got = [(p, r) for p, r in uploads if member in names(r)]
                self.assertEqual(len(got), 1 if sent else 0)
                if sent:
                    path, record = got[0]
                    # sent as it was kept, from the failure directory (where leftovers are moved first)
                    self.assertEqual(path, os.path.join(self.faildir(item), os.path.basename(archive)))
                    self.assertEqual(record["body_sha256"], digest)
                    self.assertEqual(record["session"], item)
                    self.assertLess(order.index(member), order.index(self.member(new[item][0])))
        self.assert_uploaded_once(new[ALARM] + new[TEMPLATE])
        self.assert_clean()

    def test_leftover_goes_when_the_failure_directory_is_not_there_yet(self):
        # as after a killed run when the failure path has changed, or its directory was removed meanwhile
        member = "./alarmimage/camera1/detect1/NG/left.bmp"
        make_archive(os.path.join(self.workdir(ALARM), "Tar_20261122100000000_0.tar.gz"), [(member, b"left")])
        self.assertFalse(os.path.exists(self.faildir(ALARM)))
        srv, app, ag = self.start_all()
        self.fence(ALARM)           # archives kept from earlier runs go before anything new
        self.assertEqual(self.accepted().get(member), 1)

    def test_archives_wait_for_a_file_server_that_is_down_at_start(self):
        images = {ALARM: self.write(ALARM, count=12, prefix="waiting", age=AGED),
                  TEMPLATE: self.write(TEMPLATE, count=2, prefix="waiting", age=AGED)}
        srv, app, ag = self.start_all(before_start=lambda s: s.down(port="file"))
        self.wait_until(lambda: len(self.archives_in(self.workdir(ALARM))) == 2
                        and len(self.archives_in(self.workdir(TEMPLATE))) == 2, 20, "archives packed")
        time.sleep(4)
        # unreachable is not refused: nothing went to the failure directories
        self.assertEqual([len(self.archives_in(d)) for d in (self.workdir(ALARM), self.workdir(TEMPLATE),
                                                             self.faildir(ALARM), self.faildir(TEMPLATE))],
                         [2, 2, 0, 0])
        self.assertEqual(srv.requests(port="file"), [])
        srv.up(port="file")
        self.wait_uploaded(images[ALARM] + images[TEMPLATE], timeout=40)
        self.wait_file_quiet(quiet=1.0)
        self.assert_uploaded_once(images[ALARM] + images[TEMPLATE])
        self.assert_contents()
        self.wait_no_archives_left()
        self.assert_clean()

    def test_kill_during_an_upload_loses_no_image(self):
        # archives larger than what the loopback socket buffers take in, read slowly
        images = self.write(ALARM, count=20, size=1024 * 1024, prefix="killed", age=AGED)
        srv, app, ag = self.start_all(before_start=lambda s: s.throttle(256, port="file"))
        self.wait_until(lambda: self.sent_archive_paths(ag) and srv.open_connections(port="file"), 30,
                        "an upload under way")
        time.sleep(1.5)
        streaming = "send:5(file write to socket alread)" not in ag.log_text()
        ag.kill9()
        self.assertTrue(streaming, "the whole archive was written before the kill")
        srv.throttle(0, port="file")
        closed = self.wait_until(lambda: [e for e in srv.events() if e["event"] == "close"
                                          and e["port_name"] == "file"], 15, "upload connection closed")
        cut = closed[-1].get("unfinished")
        self.assertIsNotNone(cut, "the kill came between two uploads")
        self.assertLess(cut["received"], cut["length"])
        self.assertEqual(srv.archives(), [])
        self.assertEqual(len(self.archives_in(self.workdir(ALARM))), 2)

        ag2 = self.restart_and_reconnect()
        self.wait_uploaded(images, timeout=40)
        self.wait_file_quiet(quiet=1.0)
        self.assertTrue(all(os.path.dirname(p) == self.faildir(ALARM) for p in self.sent_archive_paths(ag2)))
        self.assert_uploaded_once(images)
        self.assert_contents()
        self.wait_no_archives_left()
        self.assert_quiet(ag)
        self.assert_clean()


class AwkwardNames(ImageTestCase):

    def test_awkward_names_are_archived_as_they_are_and_never_run(self):
        images = {ALARM: self.write(ALARM, awkward=True, age=AGED),
                  TEMPLATE: self.write(TEMPLATE, awkward=True, age=AGED)}
        srv, app, ag = self.start_all()
        self.wait_uploaded(images[ALARM] + images[TEMPLATE], timeout=30)
        self.wait_file_quiet(quiet=0.5)
        counts = self.uploaded()
        for item, paths in images.items():
            for name, path in zip(AWKWARD_NAMES, paths):
                with self.subTest(item=item, name=name):
                    self.assertEqual(counts[self.member(path)], 1)
        self.assert_contents()
        # a name taken apart by a shell would have created a "pwned..." file where it ran
        ran = [os.path.join(d, f) for d, dirs, files in os.walk(self.work)
               for f in files + dirs if f.startswith(AWKWARD_MARKER)]
        ran += [os.path.join(d, f) for d in ("/", "/tmp", os.getcwd())
                for f in os.listdir(d) if f.startswith(AWKWARD_MARKER)]
        self.assertEqual(ran, [])
        self.wait_no_archives_left()
        self.assert_clean()


class WhileTarRuns(ImageTestCase):

    def test_images_written_while_tar_runs_go_with_the_next_look(self):
        srv, app, ag = self.start_all()
        first = self.write(ALARM, count=300, size=100 * 1024, prefix="first")
        time.sleep(SETTLE)
        links = len(srv.connections(port="file"))
        app.send(ALARM, "")
        self.wait_until(lambda: child_pids(ag.pid), 15, "tar under way", interval=0.01)
        during, packing = [], 0
        # until the first look's archives are queued (its upload connection opens)
        while len(srv.connections(port="file")) == links and len(during) < 200:
            busy = bool(child_pids(ag.pid))
            during += self.write(ALARM, camera=2, names=["during_%03d.bmp" % len(during)])
            packing += busy and bool(child_pids(ag.pid))
            time.sleep(0.01)
        self.assertGreaterEqual(packing, 10, "images written while tar ran")
        time.sleep(SETTLE)
        app.send(ALARM, "")
        self.wait_uploaded(first + during, timeout=60)
        time.sleep(SETTLE)
        self.fence(ALARM)
        self.wait_file_quiet(quiet=1.0)
        self.assert_uploaded_once(first + during)
        self.assert_contents()
        self.assert_clean()

    def test_application_is_answered_at_once_while_500_images_are_packed(self):
        srv, app, ag = self.start_all()
        images = self.write(ALARM, count=500, size=100 * 1024, prefix="bulk")
        time.sleep(SETTLE)
        app.gap_ms = 20
        links = len(srv.connections(port="file"))
        latency, bodies = [], []

        def ack(msg_type, body):
            mark = app.mark()
            app.send(msg_type, body)
            sent = app.sent()[-1][0]
            latency.append(app.wait_notice("back", since=mark, timeout=5)[0]["time"] - sent)

        ack(ALARM, "")
        self.wait_until(lambda: child_pids(ag.pid), 15, "tar under way", interval=0.01)
        while len(srv.connections(port="file")) == links and len(bodies) < 300:
            bodies.append('{"while_packing":%d}' % len(bodies))
            ack(7, bodies[-1])
            time.sleep(0.03)
        self.assertGreaterEqual(len(bodies), 10, "messages while packing")
        shown = "acknowledgements (s): %s" % ["%.3f" % x for x in latency]
        # Within 100 ms, but for one in a hundred that the scheduler of a busy
        # machine may hold back; the median shows that tar never holds the link up.
        self.assertLessEqual(percentile(latency, 99), 0.1, shown)
        self.assertLessEqual(percentile(latency, 50), 0.02, shown)
        got = srv.wait_request(path=STATS, count=len(bodies), timeout=30)
        self.assertEqual([r["body"] for r in got], bodies)
        self.wait_uploaded(images, timeout=60)
        self.assert_uploaded_once(images)
        self.assert_clean()


class UploadFaults(ImageTestCase):
    """File servers that stall, answer late or refuse, disks that fill up, and
    restarts at awkward moments: every image reaches the server once."""

    def test_a_stalled_upload_costs_its_connection_not_the_queue(self):
        # the first connection stops reading after its first kilobyte; later ones read at full speed
        images = self.write(ALARM, count=12, size=1024 * 1024, prefix="stalled", age=AGED)
        srv, app, ag = self.start_all(before_start=lambda s: s.throttle(0.001, port="file"))
        self.wait_until(lambda: self.sent_archive_paths(ag) and srv.open_connections(port="file"), 30,
                        "an upload under way")
        time.sleep(2)       # its first kilobyte read: the connection sleeps for good
        srv.throttle(0, port="file")
        self.wait_uploaded(images, timeout=90)
        self.wait_file_quiet(quiet=1.0, limit=30)
        # the stalled connection was given up and the archive sent again on a new one
        self.assertIn("send:5(archive not written within 30 s or link lost: connection closed)", ag.log_text())
        self.assertGreaterEqual(len(srv.connections(port="file")), 2)
        # one failed send per stall, not a retry loop (it used to log 20 a second)
        self.assertLessEqual(ag.log_text().count("ERR_NetNoConnect"), 2)
        self.assert_uploaded_once(images)
        self.assert_contents()
        self.wait_no_archives_left()
        self.assert_clean()

    def test_a_late_answer_is_never_taken_for_the_next_archive(self):
        images = self.write(ALARM, count=11, prefix="late", age=AGED)

        def setup(s):
            # Newest rule first: the ten-image archive's first answer comes after the
            # 30 s wait, its second after 2 s; the one-image archive is refused after 3 s.
            # A late answer taken for the request in flight would delete the refused one.
            s.set_reply(lambda r: {"code": 1 if len(r.get("archive") or []) == 1 else 0}, delay_ms=3000,
                        port="file")
            s.set_reply({"code": 0}, times=1, delay_ms=2000, port="file")
            s.set_reply({"code": 0}, times=1, delay_ms=31000, port="file")
        srv, app, ag = self.start_all(before_start=setup)
        refused = self.wait_until(lambda: self.archives_in(self.faildir(ALARM)), 70, "the refused archive kept")
        self.wait_file_quiet(quiet=5.0, limit=20)
        self.assertEqual(len(refused), 1)
        ag.wait_log(r"send:5\(no answer within 30 s: connection closed\)")
        self.assertEqual(self.archives_in(self.workdir(ALARM)), [])
        # the ten-image archive went twice (its first answer never counted), the refused one once
        self.assertEqual(sorted(len(r["archive"]) for r in srv.archives()), [1, 10, 10])
        self.assert_clean()

    def test_a_failed_tar_leaves_its_images_for_the_next_look(self):
        work = self.workdir(ALARM)
        os.makedirs(work)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "qel-full", work], check=True)
        self._mounts.append(work)
        srv, app, ag = self.start_all()
        images = self.write(ALARM, count=5, size=100 * 1024, prefix="full")
        time.sleep(SETTLE)
        app.send(ALARM, "")
        ag.wait_log(r"pack:5\(tar failed with status \d+: .* removed, its 5 images are left for the next look\)")
        time.sleep(1)
        self.assertEqual(srv.requests(port="file"), [])
        self.assertFalse([n for n in os.listdir(work) if "Tar_" in n], "a partial archive was left")
        subprocess.run(["mount", "-o", "remount,size=16m", work], check=True)
        app.send(ALARM, "")
        self.wait_uploaded(images, timeout=20)
        time.sleep(SETTLE)
        self.fence(ALARM)
        self.wait_file_quiet(quiet=0.5)
        self.assert_uploaded_once(images)
        self.assert_contents()
        self.assert_clean()

    def test_an_answer_during_a_long_tar_never_sets_the_time_file_back(self):
        srv, app, ag = self.start_all()
        srv.hold(port="file")
        first = self.write(ALARM, count=3, prefix="first")
        time.sleep(SETTLE)
        app.send(ALARM, "")
        srv.wait_request(port="file", timeout=15)
        # the first archive's answer comes while these are being packed
        second = self.write(ALARM, camera=2, count=400, size=100 * 1024, prefix="second")
        time.sleep(SETTLE)
        app.send(ALARM, "")
        self.wait_until(lambda: child_pids(ag.pid), 15, "tar under way", interval=0.01)
        srv.flush(port="file")      # the held answer; later ones are held too
        # the second look's archives are on their way, unanswered, when the next look comes
        srv.wait_request(port="file", count=2, timeout=30)
        self.assertGreaterEqual(self.read_time_file(), max(map(mtime_ms, second)) - 50)
        fence = self.write(ALARM, camera=3, prefix="fence")
        time.sleep(SETTLE)
        app.send(ALARM, "")
        time.sleep(1.0)
        srv.normal(port="file")
        self.wait_uploaded(first + second + fence, timeout=60)
        self.wait_file_quiet(quiet=3.0, limit=30)
        self.assert_uploaded_once(first + second + fence)
        self.assert_clean()

    def test_no_image_goes_twice_across_restarts(self):
        srv, app, ag = self.start_all()
        written = []
        rows = ["stop", "kill", "kill with the file port down", "stop while tar runs"]
        for row in rows:
            with self.subTest(row=row):
                if row == "stop while tar runs":
                    batch = self.write(ALARM, count=300, size=200 * 1024, prefix="tarred")
                    time.sleep(SETTLE)
                    before = self.read_time_file()
                    app.send(ALARM, "")
                    self.wait_until(lambda: child_pids(ag.pid), 15, "tar under way", interval=0.01)
                    ag.proc.terminate()
                    self.assertEqual(ag.wait_exit(5), 0)
                    left = os.listdir(self.workdir(ALARM))
                    self.assertFalse([n for n in left if "Tar_" in n], "archive left by the stop: %s" % left)
                    self.assertEqual(self.read_time_file(), before, "the time file moved past the unpacked images")
                elif row == "kill with the file port down":
                    srv.down(port="file")
                    batch = self.write(ALARM, count=8, prefix="down")
                    app.send(ALARM, "")
                    self.wait_until(lambda: self.archives_in(self.workdir(ALARM)), 15, "the archive packed")
                    ag.kill9()
                    srv.up(port="file")
                else:
                    # as the application does it: the images, then at once the message, so
                    # that the look begins within the 50 ms its time file reaches back
                    batch = self.write(ALARM, count=3, prefix=row.replace(" ", "_"))
                    app.send(ALARM, "")
                    self.wait_uploaded(batch)
                    self.wait_file_quiet(quiet=0.5)
                    if row == "stop":
                        ag.proc.terminate()
                        self.assertEqual(ag.wait_exit(5), 0)
                    else:
                        ag.kill9()
                written += batch
                self.assert_quiet(ag)
                ag = self.restart_and_reconnect()
                self.wait_uploaded(batch, timeout=60)
                time.sleep(SETTLE)
                self.fence(ALARM)
                self.wait_file_quiet(quiet=1.0)
                self.assert_uploaded_once(written)
        self.assert_contents()
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
