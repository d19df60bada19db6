"""Common set-up of the live-video scenarios: cameras writing into System V
shared memory, the server simulator's video port handing out push addresses
on a CDN sink, and the agent between them."""

import json
import os
import subprocess

from runtime import HOST, RuntimeCase

PUSH_QUERY = "/vmu/inlive/pushurl/query"


def query_bytes(camera_id, server_port_host="127.0.0.1"):
    """The push-address query exactly as the agent writes it."""
    return ("GET %s?device_id=%s&camera_id=%s HTTP/1.1\r\nHost: %s\r\nAccept: */*\r\nConnection: close\r\n"
            "Authorized: true\r\nContent-Length: 0\r\nContent-Type: application/x-www-form-urlencoded\r\n\r\n"
            % (PUSH_QUERY, HOST, camera_id, server_port_host)).encode()


def probe(path, extra=()):
    """ffprobe's view of a stream file: {"streams": [...], "frames"/"packets": [...]}."""
    r = subprocess.run(["ffprobe", "-v", "error", "-of", "json", "-show_streams"] + list(extra) + [path],
                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True, timeout=60)
    if r.returncode != 0:
        raise AssertionError("ffprobe %s: %s" % (path, r.stderr[-2000:]))
    return json.loads(r.stdout)


def decoded_frames(path):
    """The video frames ffprobe decodes from a stream file, with their pts."""
    return probe(path, ["-select_streams", "v:0", "-show_frames", "-show_entries",
                        "frame=pts,key_frame,width,height"]).get("frames", [])


class VideoCase(RuntimeCase):

    def start_video(self, cameras=((0, 320, 240),), announce=True, sink_kw=None, server_kw=None):
        """Cameras writing, a CDN sink, the server sim pointing at it, the agent
        logged in; the announcement sent unless announce=False."""
        self.sink = self.cdn_sink(**(sink_kw or {}))
        kw = dict(server_kw or {})
        kw.setdefault("cdn_port", self.sink.port)
        self.cams = [self.camera(n, w, h) for n, w, h in cameras]
        self.start_all(server_kw=kw)
        if announce:
            self.announce(self.cams)
        return self.cams

    def announce(self, cameras_or_body):
        from qel_app_sim import announcement
        body = cameras_or_body if isinstance(cameras_or_body, str) else announcement(cameras_or_body)
        mark = self.app.mark()
        self.app.send(9, body)
        self.app.wait_notice("back", since=mark, timeout=5)

    def queries(self, camera_id=None):
        return [r for r in self.srv.requests(port="video")
                if camera_id is None or r["query"].get("camera_id") == str(camera_id)]

    def stream_path(self, conn):
        return self.sink.connection(conn)["file"]

    def assert_decodes(self, conn, width, height, min_frames=10):
        """The stream of sink connection `conn` decodes as H.264 of the size
        given; returns its decoded frames."""
        path = self.stream_path(conn)
        self.assertTrue(path and os.path.getsize(path) > 0, "no stream saved for connection %d" % conn)
        streams = probe(path)["streams"]
        video = [s for s in streams if s.get("codec_type") == "video"]
        self.assertEqual(len(video), 1, streams)
        self.assertEqual((video[0]["codec_name"], video[0]["width"], video[0]["height"]), ("h264", width, height))
        frames = decoded_frames(path)
        self.assertGreaterEqual(len(frames), min_frames, "decoded frames of connection %d" % conn)
        return frames


def decode_errors(path):
    """What ffmpeg says, at level error, while decoding the whole stream file."""
    r = subprocess.run(["ffmpeg", "-hide_banner", "-v", "error", "-i", path, "-f", "null", "-"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, universal_newlines=True, timeout=120)
    return r.stderr.strip() if r.returncode == 0 else (r.stderr.strip() or "exit status %d" % r.returncode)


def segment_exists(camera):
    """Whether a segment is there under camera `camera`'s key (looked up, never made)."""
    from qel_app_sim import _sysv, shm_key
    return _sysv().shmget(shm_key(camera), 0, 0) != -1
