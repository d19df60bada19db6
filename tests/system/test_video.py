"""Live video: cameras announced over the link, their frames taken from
System V shared memory, encoded and pushed to the address the video server
hands out, through every kind of trouble the servers can make."""

import json
import signal
import time
import unittest

from videocase import HOST, VideoCase, decode_errors, decoded_frames, query_bytes, segment_exists
from qel_cdn_sink import put_head  # noqa: E402
from qel_app_sim import memory_info  # noqa: E402  (tools/ is on the path once qeltest is loaded)


class VideoTest(VideoCase):

    def test_cameras_stream_h264_at_their_announced_size(self):
        cams = self.start_video(cameras=((0, 320, 240), (3, 176, 144)))
        for cam, conn_camera in zip(cams, (1, 4)):
            with self.subTest(camera=cam.number):
                query = self.wait_until(lambda: self.queries(conn_camera), 10, "query for camera %d" % conn_camera)[0]
                self.assertEqual(query["raw_bytes"], query_bytes(conn_camera))
                self.assertEqual(query["query"], {"device_id": HOST, "camera_id": str(conn_camera)})
                path = "/live/cam%d" % conn_camera
                conn = self.sink.wait_connections(1, path=path, timeout=10)[0]
                self.assertEqual(conn["head"], ("PUT http://127.0.0.1:%d%s\r\nHost:127.0.0.1\r\n\r\n"
                                                % (self.sink.port, path)).encode())
        time.sleep(5)
        for conn in self.sink.connections():
            w, h = (320, 240) if conn["path"] == "/live/cam1" else (176, 144)
            frames = self.assert_decodes(conn["conn"], w, h, min_frames=40)
            # 20 frames a second, stamped from the wall clock in 1/20 s steps
            steps = sorted({b["pts"] - a["pts"] for a, b in zip(frames, frames[1:])})
            self.assertEqual(steps[0], 4500, steps)
            self.assertLessEqual(sum(1 for a, b in zip(frames, frames[1:]) if b["pts"] - a["pts"] != 4500),
                                 len(frames) // 10, "frames skipped")
            self.assertEqual(frames[0]["key_frame"], 1)
        for cam in cams:
            stats = cam.wait_stats()
            # the agent holds a camera's semaphore only while it copies one frame
            self.assertLess(stats["p99_ms"], 10, stats)
            self.assertLess(stats["max_ms"], 50, stats)
            self.assertEqual(stats["lock_timeouts"], 0, stats)
        self.ag.wait_log(r"video:Connected", count=2)
        self.ag.wait_log(r"send video: cur=0 ")

        # A second announcement is ignored: no push for the new camera.
        late = self.camera(5, 64, 48)
        self.announce([late])
        time.sleep(2)
        self.assertEqual(self.queries(6), [])
        self.assertEqual(sum("(sharedMemory get ready)" in line for line in self.ag.log_lines()), 2)

        # Orderly stop with every push running.
        self.ag.proc.send_signal(signal.SIGTERM)
        self.assertEqual(self.ag.wait_exit(5), 0)
        self.assert_quiet(self.ag)

    def test_unusable_announcements_leave_the_good_cameras_streaming(self):
        self.start_video(cameras=((0, 160, 128), (1, 160, 128), (2, 160, 128), (4, 160, 128), (5, 160, 128)),
                         announce=False)
        good, wrong_ids, short, bad_size, huge = self.cams
        # Not JSON, or no list: nothing set up, and a later announcement is still read.
        for body in ("not json", '{"cameras":[]}'):
            self.announce(body)
        self.ag.wait_log(r"\(sharedMemory get ready\)", count=2)

        elements = memory_info(self.cams)
        elements[1]["shmid"] += 1000                    # not the segment under camera 1's key
        del elements[2]["height"]                        # incomplete
        elements[3]["size"] = bad_size.size * 2         # more than the segment holds
        elements[4].update(width=16000, height=16000)   # frames far larger than the segment
        bogus = dict(elements[0])
        elements += [
            dict(bogus, cameraid=7),                    # no segment under camera 7's key
            dict(bogus, cameraid=2147483647),           # no key can be derived
            dict(bogus, cameraid=8, width=0),
            dict(bogus, cameraid=9, size=-5),
            dict(bogus, cameraid=10, fps="twenty"),
        ]
        # keys are read without regard to case, as the application has always written them
        self.announce(json.dumps({"MemoryInfo": elements}))
        self.sink.wait_connections(1, path="/live/cam1", timeout=15)
        time.sleep(3)
        self.assertEqual(sorted({r["query"]["camera_id"] for r in self.queries()}), ["1"])
        self.assert_decodes(1, 160, 128)
        self.ag.wait_log(r"video:5\(frames of 16000x16000 refused: larger than 8192x8192 or than the "
                         r"segment's %d bytes hold\)" % huge.size)
        # Lookups never create: no segment appeared under camera 7's key.
        self.assertFalse(segment_exists(7))
        self.assert_clean()

    def test_the_push_comes_back_whatever_the_servers_do(self):
        # large enough for a stream of about 1 Mbit/s, more than the kernel's buffers hide
        self.start_video(cameras=((0, 640, 480),), announce=False)
        # The video server answers nonsense, then an address by name, then
        # nothing usable at all: the agent keeps asking, once a second.
        self.srv.answer('{"code":1,"msg":"no push address"}', port="video")
        self.announce(self.cams)
        self.wait_until(lambda: len(self.queries()) >= 2, 10, "repeated queries")
        self.srv.answer('{"code":0,"data":"http://cdn.example/live/cam1"}', port="video")
        n = len(self.queries())
        self.wait_until(lambda: len(self.queries()) >= n + 2, 10, "queries after a host name")
        self.assertEqual(self.sink.connections(), [])

        # The streaming server refuses connections, then takes them.
        self.sink.down()
        self.srv.clear_replies(port="video")
        self.ag.wait_log(r"video:recv.*cdnip:127\.0\.0\.1 cdn_port:%d suffix:live/cam1" % self.sink.port, timeout=10)
        n = len(self.queries())
        self.wait_until(lambda: len(self.queries()) >= n + 2, 15, "queries while the CDN refuses")
        self.sink.up()
        first = self.sink.wait_connections(1, timeout=15)[0]
        self.sink.wait_bytes(50000, conn=first["conn"], timeout=15)

        # It closes the stream mid-way: a new query, a new PUT, and the new
        # stream decodes from its first key frame on.
        self.sink.close_after(1)
        self.sink.wait_closed(first["conn"], timeout=10)
        self.sink.up()
        second = self.wait_until(lambda: [c for c in self.sink.connections() if c["conn"] > first["conn"]
                                          and c["head_complete"] and c["bytes"] > 100000], 20, "a second stream")[0]
        self.assertEqual(second["head"], put_head(self.srv.push_address(1)))
        # The new stream starts on a key frame of fresh video, not on what
        # the encoder still held from the old connection.
        frames = self.assert_decodes(second["conn"], 640, 480)
        self.assertEqual(frames[0]["key_frame"], 1)
        # pts are wall-clock times in 1/90000 s, kept to 33 bits: the first
        # frame is from after the old connection closed (less a few slots).
        closed = self.sink.connection(first["conn"])["closed"]
        after = (frames[0]["pts"] - int((closed - 0.15) * 90000)) % (1 << 33)
        self.assertLess(after, 10 * 90000, "first frame %.2f s before the close" % (((1 << 33) - after) / 90000.0))

        # The sink reads at half the stream's rate for 10 s: whole frames are
        # left out before encoding, never bytes, so everything that arrives
        # decodes; once it reads at full speed the video is current within 2 s.
        conn = second["conn"]
        before, t0 = self.sink.bytes_received(conn), time.monotonic()
        time.sleep(3)
        rate = (self.sink.bytes_received(conn) - before) / (time.monotonic() - t0)
        self.assertGreater(rate, 80000, "stream bytes a second")
        self.sink.throttle(rate / 2 / 1024.0)
        time.sleep(10)
        self.sink.throttle(0)
        time.sleep(2)
        newest = decoded_frames(self.stream_path(conn))[-1]["pts"]
        lag = ((int(time.time() * 90000) - newest) % (1 << 33)) / 90000.0
        self.assertLess(lag, 1.0, "newest frame at the sink 2 s after it caught up")
        self.assertEqual(decode_errors(self.stream_path(conn)), "")
        self.ag.wait_log(r"video:\(camera 1 congested: frames are dropped before encoding\)", timeout=1)
        self.assert_clean()

    def test_a_camera_held_by_the_application_stops_nothing_else(self):
        held, free = self.start_video(cameras=((0, 160, 128), (1, 160, 128)))
        self.sink.wait_connections(1, path="/live/cam1", timeout=15)
        conn = self.sink.wait_connections(1, path="/live/cam2", timeout=15)[0]["conn"]
        held.pause()
        with held.buffer.locked():
            # The application sits on camera 0's semaphore: camera 1 goes on.
            before = self.sink.bytes_received(conn)
            time.sleep(4)
            self.assertGreater(self.sink.bytes_received(conn), before + 10000)
            # And the agent still stops in order while it waits.
            self.ag.proc.send_signal(signal.SIGTERM)
            self.assertEqual(self.ag.wait_exit(5), 0)
        self.assert_quiet(self.ag)


if __name__ == "__main__":
    unittest.main()
