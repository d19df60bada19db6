#!/usr/bin/env python3
"""Inspection-application simulator for the qel_net agent.

The agent is a TCP client of the inspection application on 127.0.0.1:8890.
This simulator listens there, accepts the agent (a new connection replaces
the old one), sends typed messages ("TYPE:FIELD:..!BODY", one message per
write, spaced so that the agent reads them one by one) and reads the notices
the agent writes back: "/back/", "/heart/", "/reline/" and forwarded server
answers. The agent frames nothing, so several notices may arrive in one read;
they are split at their request lines and their Content-Length.

It also plays the cameras: each one's newest frame lives in a System V shared
memory segment guarded by a semaphore, written a number of times a second
with a moving test picture, and announced to the agent in a type-9 message.

In-process:

    from qel_app_sim import AppSim
    with AppSim(port=0) as app:
        app.wait_connected(10)
        mark = app.mark()
        app.send(7, '{"total":3}')
        app.wait_notice("back", since=mark)
        write_images(alarm_root, camera=1, detect=1, kind="NG", count=3)
        app.send(5, "")          # "new images": the agent looks and uploads
        with Camera(0, 1280, 1024, fps=20) as cam:
            app.announce([cam])  # the agent attaches and streams
            ...
            assert cam.wait_stats()["max_ms"] < 5

Standard library only.
"""

import argparse
import atexit
import contextlib
import ctypes
import ctypes.util
import errno
import json
import os
import re
import select
import socket
import sys
import threading
import time

from qel_simnet import accept_loop, bind_listener, close_listening, stop_event, unescape

LOOPBACK = "127.0.0.1"
DEFAULT_PORT = 8890
SEPARATOR = ":..!"

# A notice starts with a request line. Header lines may end in CR LF, in a
# bare LF, or (the "/heart/" and "/reline/" content-type line) in a literal
# backslash + "r" + LF; the head ends at the first empty line.
_REQUEST_LINE = re.compile(rb"(?:POST|GET|PUT|DELETE|HEAD) \S+ HTTP/\d\.\d\r?\n")
_BLANK_LINE = re.compile(rb"\n\r?\n")
_KINDS = {"/back/": "back", "/heart/": "heart", "/reline/": "reline"}

# A buffer tail that is still incomplete after this much silence is taken as
# it is (raw text, or a notice whose body fell short of its Content-Length).
QUIET_SECONDS = 0.3




def format_message(msg_type, body, field="x"):
    return "%s:%s%s%s" % (msg_type, field, SEPARATOR, body)


class NoticeParser:
    """Splits the agent's byte stream into notices (one parser per connection)."""

    def __init__(self):
        self.buf = b""

    def feed(self, data, final=False):
        """Add bytes; returns the notices now complete. `final` flushes all."""
        self.buf += data
        out = []
        while self.buf:
            item = self._take(final)
            if item is None:
                break
            out.append(item)
        return out

    def _take(self, final):
        buf = self.buf
        m = _REQUEST_LINE.match(buf)
        if not m:
            nxt = self._next_start(buf, 1)
            if nxt is None and not final:
                return None
            cut = len(buf) if nxt is None else nxt
            self.buf = buf[cut:]
            return _raw_notice(buf[:cut])
        blank = _BLANK_LINE.search(buf, m.end() - 1)
        nxt = self._next_start(buf, m.end())
        if blank is None or (nxt is not None and nxt < blank.end()):
            # head never ended before the next notice (or not yet)
            if nxt is None and not final:
                return None
            cut = len(buf) if nxt is None else nxt
            self.buf = buf[cut:]
            return _notice(buf[:cut], b"", ["head-incomplete"])
        head_end = blank.end()
        head = buf[:head_end]
        length = _content_length(head)
        flags = []
        end = head_end + length
        if nxt is not None and nxt < end:
            end = nxt           # Content-Length overruns the next notice
            flags.append("body-short")
        elif len(buf) < end:
            if not final:
                return None
            end = len(buf)
            flags.append("body-truncated")
        self.buf = buf[end:]
        return _notice(head, buf[head_end:end], flags)

    @staticmethod
    def _next_start(buf, pos):
        """Position of the next request line, or None. Texts are written back
        to back, so a notice may start right after the last byte of a text."""
        m = _REQUEST_LINE.search(buf, pos)
        return None if m is None else m.start()


def _content_length(head):
    for line in head.split(b"\n"):
        name, sep, value = line.partition(b":")
        if sep and name.strip().lower() == b"content-length":
            try:
                return max(0, int(value.strip().rstrip(b"\\r").strip()))
            except ValueError:
                return 0
    return 0


def _notice(head, body, flags):
    text = head.decode("utf-8", "replace")
    lines = text.split("\n")
    method, path = None, None
    parts = lines[0].rstrip("\r").split(" ")
    if len(parts) == 3:
        method, path = parts[0], parts[1]
    headers = []
    for line in lines[1:]:
        line = line[:-1] if line.endswith("\r") else line
        if not line:
            continue
        name, _, value = line.partition(":")
        headers.append([name.strip(), value.strip()])
    session = None
    for name, value in headers:
        if name.lower() == "sessionid":
            try:
                session = int(value)
            except ValueError:
                session = None
    base = path.split("?", 1)[0] if path else path
    return {
        "kind": _KINDS.get(base, base), "method": method, "path": path, "session": session,
        "headers": headers, "head": text, "body": body.decode("utf-8", "replace"),
        "raw": (head + body).decode("utf-8", "replace"), "raw_bytes": head + body, "flags": flags,
    }


def _raw_notice(data):
    return {"kind": "raw", "method": None, "path": None, "session": None, "headers": [],
            "head": "", "body": data.decode("utf-8", "replace"),
            "raw": data.decode("utf-8", "replace"), "raw_bytes": data, "flags": []}


# ---- images on disk -----------------------------------------------------------
#
# The application writes its images into directories the agent watches:
#   alarm images   <alarmimage>/camera<C>/detect<D>/NG/ and .../OK/
#   templates      <template>/cammer<C><D>/

IMAGE_KINDS = ("NG", "OK", "template")

# Names that a shell would take apart or act upon if they reached one
# unquoted; the command substitutions would create a file named "pwned*" in
# the shell's working directory.
AWKWARD_NAMES = [
    "two words.bmp",
    "it's.bmp",
    'say "cheese".bmp',
    "semi;colon.bmp",
    "$(touch pwned-dollar).bmp",
    "`touch pwned-backtick`.bmp",
    "two\nlines.bmp",
    "tab\there.bmp",
    "star*.bmp",
    "back\\slash.bmp",
    "-rf.bmp",
    "and&&$HOME.bmp",
    "图像 1.bmp",
]
AWKWARD_MARKER = "pwned"


def image_dir(root, camera=1, detect=1, kind="NG"):
    """The directory the agent looks in for `kind` images of one camera and
    detection index; `root` is the alarm-image root, or the template root for
    kind "template"."""
    if kind not in IMAGE_KINDS:
        raise ValueError("kind %r is not one of %s" % (kind, ", ".join(IMAGE_KINDS)))
    if kind == "template":
        return os.path.join(root, "cammer%d%d" % (camera, detect))
    return os.path.join(root, "camera%d" % camera, "detect%d" % detect, kind)


def write_images(root, camera=1, detect=1, kind="NG", count=1, size=4096, prefix="img",
                 names=None, awkward=False, start=0, data=None):
    """Write images the way the application would and return their paths, in
    the order written. Each one is written whole under a hidden name (which
    the agent does not list) and renamed into place, so the agent never packs
    half an image. Names are PREFIX_<start+i>.bmp, or `names`, or with
    awkward=True the AWKWARD_NAMES (count is then ignored). Contents are
    random bytes (`size` each, so gzip cannot shrink them), or data(i)."""
    directory = image_dir(root, camera, detect, kind)
    os.makedirs(directory, exist_ok=True)
    if awkward:
        names = list(AWKWARD_NAMES)
    if names is None:
        names = ["%s_%06d.bmp" % (prefix, start + i) for i in range(count)]
    paths = []
    for i, name in enumerate(names):
        path = os.path.join(directory, name)
        hidden = os.path.join(directory, ".writing-%d-%d" % (os.getpid(), threading.get_ident()))
        with open(hidden, "wb") as f:
            f.write(data(i) if data is not None else os.urandom(size))
        os.replace(hidden, path)
        paths.append(path)
    return paths


# ---- camera frame buffers -----------------------------------------------------
#
# The application keeps each camera's newest frame in a System V shared memory
# segment guarded by a set of one semaphore, and tells the agent their ids in a
# type-9 message (memoryinfo); the agent attaches and copies frames out for its
# encoder while it holds the semaphore. The application makes both with
# ftok("/tmp", 100<c>) and ftok("/tmp", 200<c>), <c> the camera number written
# after the digits (camera 0: 1000, camera 12: 10012; ftok keeps the low 8
# bits), creates them with IPC_CREAT|0666 and sets the semaphore to 1. Frames
# are planar YUV 4:2:0 (I420): Y (w*h), then U and V (w*h/4 each).

KEY_DIR = "/tmp"
DEFAULT_FPS = 20
IPC_CREAT = 0o1000
IPC_RMID = 0
IPC_STAT = 2
GETVAL = 12
SETVAL = 16
SEM_UNDO = 0x1000
# offset of shm_segsz in struct shmid_ds on 64-bit Linux (after struct ipc_perm)
_SHM_SEGSZ_OFFSET = 48
_SHMID_DS_SIZE = 256        # larger than the 112 bytes of the structure


class _SemBuf(ctypes.Structure):
    _fields_ = [("sem_num", ctypes.c_ushort), ("sem_op", ctypes.c_short), ("sem_flg", ctypes.c_short)]


class _Deadline(ctypes.Structure):
    _fields_ = [("tv_sec", ctypes.c_long), ("tv_nsec", ctypes.c_long)]


_libc = None


def _sysv():
    """libc with the System V calls typed (loaded on first use)."""
    global _libc
    if _libc is None:
        libc = ctypes.CDLL(ctypes.util.find_library("c") or "libc.so.6", use_errno=True)
        libc.ftok.argtypes, libc.ftok.restype = [ctypes.c_char_p, ctypes.c_int], ctypes.c_int
        libc.shmget.argtypes, libc.shmget.restype = [ctypes.c_int, ctypes.c_size_t, ctypes.c_int], ctypes.c_int
        libc.shmat.argtypes, libc.shmat.restype = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int], ctypes.c_void_p
        libc.shmdt.argtypes, libc.shmdt.restype = [ctypes.c_void_p], ctypes.c_int
        libc.shmctl.argtypes, libc.shmctl.restype = [ctypes.c_int, ctypes.c_int, ctypes.c_void_p], ctypes.c_int
        libc.semget.argtypes, libc.semget.restype = [ctypes.c_int, ctypes.c_int, ctypes.c_int], ctypes.c_int
        libc.semtimedop.argtypes = [ctypes.c_int, ctypes.POINTER(_SemBuf), ctypes.c_size_t,
                                    ctypes.POINTER(_Deadline)]
        libc.semtimedop.restype = ctypes.c_int
        libc.semctl.restype = ctypes.c_int      # variadic: arguments passed as c_int
        _libc = libc
    return _libc


def _check(result, what):
    if result == -1 or result is None:
        err = ctypes.get_errno()
        raise OSError(err, "%s: %s" % (what, os.strerror(err)))
    return result


def ftok(path, proj):
    return _check(_sysv().ftok(os.fsencode(path), proj), "ftok(%s, %d)" % (path, proj))


def shm_key(camera):
    """The key of camera `camera`'s frame segment."""
    return ftok(KEY_DIR, int("100" + str(camera)))


def sem_key(camera):
    """The key of camera `camera`'s semaphore set."""
    return ftok(KEY_DIR, int("200" + str(camera)))


def segment_size(shmid):
    """The size the kernel gives segment `shmid` (IPC_STAT)."""
    buf = ctypes.create_string_buffer(_SHMID_DS_SIZE)
    _check(_sysv().shmctl(shmid, IPC_STAT, buf), "shmctl(%d, IPC_STAT)" % shmid)
    return ctypes.c_size_t.from_buffer(buf, _SHM_SEGSZ_OFFSET).value


def semaphore_value(semid):
    return _check(_sysv().semctl(ctypes.c_int(semid), ctypes.c_int(0), ctypes.c_int(GETVAL)),
                  "semctl(%d, GETVAL)" % semid)


_owned = set()      # frame buffers this process created, removed at exit at the latest


class FrameBuffer:
    """One camera's segment and semaphore: created as the application does
    (create=True), or looked up by key and attached as the agent does (size
    0: any size, reads then need a length)."""

    def __init__(self, camera, size, create=True):
        libc = _sysv()
        self.camera, self.size, self.owner = camera, size, create
        self.addr = None
        self._guard = threading.Lock()      # no copy runs while the segment is detached
        flags = IPC_CREAT | 0o666 if create else 0
        self.shmid = _check(libc.shmget(shm_key(camera), size, flags),
                            "shmget for camera %d (%d bytes)" % (camera, size))
        try:
            self.semid = _check(libc.semget(sem_key(camera), 1 if create else 0, flags),
                                "semget for camera %d" % camera)
            if create:
                _check(libc.semctl(ctypes.c_int(self.semid), ctypes.c_int(0), ctypes.c_int(SETVAL),
                                   ctypes.c_int(1)), "semctl(SETVAL)")
            addr = libc.shmat(self.shmid, None, 0)
            if addr is None or addr == ctypes.c_void_p(-1).value:
                _check(-1, "shmat(%d)" % self.shmid)
            self.addr = addr
        except OSError:
            if create:
                libc.shmctl(self.shmid, IPC_RMID, None)
            raise
        if create:
            _owned.add(self)

    @classmethod
    def attach(cls, camera, size=0):
        return cls(camera, size, create=False)

    def _semop(self, op, timeout):
        ops = _SemBuf(0, op, SEM_UNDO)
        ts = None
        if timeout is not None:
            ts = _Deadline(int(timeout), int(timeout % 1 * 1e9))
        if _sysv().semtimedop(self.semid, ctypes.byref(ops), 1, None if ts is None else ctypes.byref(ts)) == 0:
            return True
        err = ctypes.get_errno()
        if err == errno.EAGAIN:
            return False
        raise OSError(err, "semop(%d, %d): %s" % (self.semid, op, os.strerror(err)))

    def acquire(self, timeout=None):
        """P (-1 with SEM_UNDO); False if `timeout` seconds passed first."""
        return self._semop(-1, timeout)

    def release(self):
        """V (+1 with SEM_UNDO)."""
        self._semop(1, None)

    @contextlib.contextmanager
    def locked(self, timeout=5.0):
        """Hold the semaphore for the block (AssertionError when it stays taken)."""
        if not self.acquire(timeout):
            raise AssertionError("camera %d: semaphore %d still taken after %.1fs"
                                 % (self.camera, self.semid, timeout))
        try:
            yield self
        finally:
            self.release()

    def write(self, data, offset=0):
        with self._guard:
            ctypes.memmove(self._address() + offset, data, len(data))

    def read(self, length=None, offset=0):
        with self._guard:
            return ctypes.string_at(self._address() + offset, self.size if length is None else length)

    def _address(self):
        if self.addr is None:
            raise ValueError("camera %d: frame buffer closed" % self.camera)
        return self.addr

    def close(self):
        """Detach; the creator also removes the segment and the semaphore set."""
        libc = _sysv()
        with self._guard:
            if self.addr is not None:
                libc.shmdt(self.addr)
                self.addr = None
        if self.owner and self in _owned:
            _owned.discard(self)
            libc.shmctl(self.shmid, IPC_RMID, None)
            libc.semctl(ctypes.c_int(self.semid), ctypes.c_int(0), ctypes.c_int(IPC_RMID))


@atexit.register
def _remove_owned():
    for fb in list(_owned):
        fb.close()


def frame_size(width, height):
    return width * height * 3 // 2


class TestPicture:
    """Frames of a moving test picture, cheap to make: a diagonal gradient
    that scrolls, a bright bar (tinted in U and V) that moves down, and the
    frame number as 16 blocks in a band at the top (bright = 1, lowest bit
    left). Each frame is joined from slices of planes built once."""

    BITS = 16
    ON, OFF, BAR = 235, 16, 235

    def __init__(self, width, height):
        if width < 2 * self.BITS or height < 32 or width % 2 or height % 2:
            raise ValueError("test picture wants even sizes of at least %dx32, not %dx%d"
                             % (2 * self.BITS, width, height))
        self.width, self.height = width, height
        w, h = width, height
        self.band = max(8, h // 16) & ~1
        self.bar_rows = max(4, h // 12) & ~1
        self.block = w // self.BITS
        ramp = bytes(16 + (i * 3) % 220 for i in range(w + 2 * h))
        one = b"".join(ramp[y:y + w] for y in range(h))
        self.background = one + one         # two copies: any window of h rows scrolls through
        self.on = bytes([self.ON]) * self.block
        self.off = bytes([self.OFF]) * self.block
        self.tail = bytes([self.OFF]) * (w - self.block * self.BITS)
        self.bar = bytes([self.BAR]) * (self.bar_rows * w)
        cw, ch = w // 2, h // 2
        self.u_plane = b"\x80" * (cw * ch)
        self.v_plane = self.u_plane
        self.u_bar = b"\x5a" * (self.bar_rows // 2 * cw)
        self.v_bar = b"\xf0" * (self.bar_rows // 2 * cw)

    def bar_top(self, n):
        """First row of the bar in frame `n` (even, below the number band)."""
        return (self.band + (n * 8) % (self.height - self.band - self.bar_rows)) & ~1

    def frame(self, n):
        w, h = self.width, self.height
        top = self.bar_top(n)
        low = top + self.bar_rows
        base = (n * 4) % h * w
        bits = b"".join(self.on if n >> i & 1 else self.off for i in range(self.BITS)) + self.tail
        bg = self.background
        cw = w // 2
        return b"".join((
            bits * self.band, bg[base + self.band * w:base + top * w], self.bar, bg[base + low * w:base + h * w],
            self.u_plane[:top // 2 * cw], self.u_bar, self.u_plane[low // 2 * cw:],
            self.v_plane[:top // 2 * cw], self.v_bar, self.v_plane[low // 2 * cw:]))


def frame_number(frame, width, height):
    """The number a TestPicture frame shows (its lowest 16 bits)."""
    band = max(8, height // 16) & ~1
    block = width // TestPicture.BITS
    row = frame[band // 2 * width:band // 2 * width + width]
    return sum(1 << i for i in range(TestPicture.BITS) if row[i * block + block // 2] > 128)


class Camera:
    """One camera as the application runs it: its frame buffer, and a thread
    that writes a TestPicture frame `fps` times a second under the semaphore
    (deadlines from the start, so there is no drift; frames that could not be
    written in time are skipped, not caught up). For each frame it records how
    long it waited for the semaphore: the agent holds it while it copies."""

    def __init__(self, number, width, height, fps=DEFAULT_FPS, lock_timeout=1.0):
        self.number, self.width, self.height, self.fps = number, width, height, fps
        self.picture = TestPicture(width, height)
        self.lock_timeout = lock_timeout
        self.buffer = FrameBuffer(number, frame_size(width, height))
        self.frames = 0             # frames written
        self.skipped = 0            # deadlines missed by more than a frame
        self.lock_timeouts = 0      # frames dropped: the semaphore stayed taken
        self.last_frame = None      # number shown by the newest frame
        self._waits = []            # seconds waited for the semaphore, per attempt
        self._cpu = 0.0
        self._started = None
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self._paused = threading.Event()
        self._thread = None

    @property
    def shmid(self):
        return self.buffer.shmid

    @property
    def semid(self):
        return self.buffer.semid

    @property
    def size(self):
        return self.buffer.size

    def element(self):
        """This camera's entry in the memoryinfo announcement."""
        return {"shmid": self.shmid, "semid": self.semid, "cameraid": self.number, "size": self.size,
                "width": self.width, "height": self.height, "fps": self.fps}

    def write_frame(self, n):
        """Write frame `n` under the semaphore; False if it stayed taken."""
        data = self.picture.frame(n)
        t0 = time.perf_counter()
        got = self.buffer.acquire(self.lock_timeout)
        waited = time.perf_counter() - t0
        if got:
            try:
                self.buffer.write(data)
            finally:
                self.buffer.release()
        with self._lock:
            self._waits.append(waited)
            if got:
                self.frames += 1
                self.last_frame = n
            else:
                self.lock_timeouts += 1
        return got

    def start(self):
        if self._thread is None:
            self._stop.clear()
            self._thread = threading.Thread(target=self._run, daemon=True, name="camera-%d" % self.number)
            self._thread.start()
        return self

    def pause(self):
        """Keep the last frame in the buffer (the writer thread idles)."""
        self._paused.set()

    def resume(self):
        self._paused.clear()

    def stop(self):
        """Stop writing (the buffer stays)."""
        self._stop.set()
        if self._thread is not None:
            self._thread.join(timeout=5)
            self._thread = None

    def close(self):
        """Stop writing and remove the segment and the semaphore set."""
        self.stop()
        self.buffer.close()

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.close()

    def wait_stats(self):
        """How the writer fared: frames, skipped, lock_timeouts, max_ms and
        p99_ms of the semaphore waits, and cpu (share of one core, by the
        writer thread's own processor time)."""
        with self._lock:
            waits = sorted(self._waits)
            stats = {"frames": self.frames, "skipped": self.skipped, "lock_timeouts": self.lock_timeouts}
        stats["max_ms"] = waits[-1] * 1000 if waits else 0.0
        stats["p99_ms"] = waits[min(len(waits) - 1, int(len(waits) * 0.99))] * 1000 if waits else 0.0
        elapsed = time.monotonic() - self._started if self._started else 0.0
        stats["cpu"] = self._cpu / elapsed if elapsed > 0 else 0.0
        return stats

    def _run(self):
        period = 1.0 / self.fps
        self._started = start = time.monotonic()
        cpu0 = time.thread_time()
        n = 0
        while not self._stop.is_set():
            late = time.monotonic() - (start + n * period)
            if late < 0:
                if self._stop.wait(-late):
                    break
            elif late >= period:
                missed = int(late / period)
                with self._lock:
                    self.skipped += missed
                n += missed
                continue
            if not self._paused.is_set():
                try:
                    self.write_frame(n)
                except (OSError, ValueError):
                    break           # the buffer went away (closed, or removed at exit)
            n += 1
            self._cpu = time.thread_time() - cpu0


def memory_info(cameras):
    """The announcement's elements: a dict per Camera (dicts are copied as
    they are), to be edited before announcement() when a test wants a bad one."""
    return [c.element() if isinstance(c, Camera) else dict(c) for c in cameras]


def announcement(cameras):
    """The type-9 body the application sends: {"memoryinfo":[...]} of Cameras or dicts."""
    return json.dumps({"memoryinfo": memory_info(cameras)}, separators=(",", ":"))


def parse_cameras(text):
    """"0:1280x1024,1:640x480" -> [(0, 1280, 1024), (1, 640, 480)]."""
    out = []
    for item in text.split(","):
        m = re.fullmatch(r"\s*(\d+):(\d+)x(\d+)\s*", item)
        if not m:
            raise ValueError("camera %r is not NUMBER:WIDTHxHEIGHT" % item)
        out.append(tuple(int(g) for g in m.groups()))
    return out


class AppSim:
    """The inspection application as the agent sees it (see module docstring)."""

    def __init__(self, port=DEFAULT_PORT, gap_ms=100, on_notice=None, record=None, greeting=None):
        """greeting: a message (bytes or text, sent as it is) written first on
        every new connection, e.g. the camera announcement."""
        self._port = port
        self.gap_ms = gap_ms
        self.greeting = greeting.encode("utf-8") if isinstance(greeting, str) else greeting
        self._lock = threading.RLock()
        self._send_lock = threading.Lock()
        self._cond = threading.Condition(self._lock)
        self._listener = None
        self._conn = None
        self._conn_seq = 0
        self._notices = []
        self._sent = []
        self._raw = bytearray()
        self._last_send = 0.0
        self._stopping = False
        self._threads = []
        self._on_notice = on_notice
        self._record_path = record
        self._record_file = None

    # ---- life cycle -------------------------------------------------------

    def start(self):
        if self._record_path and self._record_file is None:
            self._record_file = open(self._record_path, "w", encoding="utf-8")
        self.up()
        return self

    def up(self):
        """Listen (again) on the same port."""
        with self._lock:
            if self._listener is not None:
                return
            s = bind_listener(self._port, 8)
            self._port = s.getsockname()[1]
            self._listener = s
            t = threading.Thread(target=self._accept_loop, args=(s,), daemon=True, name="app-accept")
            self._threads.append(t)
            t.start()

    def down(self):
        """Stop listening and drop the connection: the agent's connects are refused."""
        with self._lock:
            s, self._listener = self._listener, None
            if s is not None:
                close_listening(s)
        self.disconnect()

    def disconnect(self):
        """Close the agent's current connection (the listener stays)."""
        with self._lock:
            conn = self._conn
        if conn is not None:
            try:
                conn.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def stop(self):
        with self._lock:
            self._stopping = True
        self.down()
        for t in list(self._threads):
            t.join(timeout=2)
        with self._lock:
            if self._record_file:
                self._record_file.close()
                self._record_file = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    @property
    def port(self):
        return self._port

    # ---- connection -------------------------------------------------------

    def connected(self):
        with self._lock:
            return self._conn is not None

    def connection_count(self):
        """How many connections the agent has made so far."""
        with self._lock:
            return self._conn_seq

    def wait_connected(self, timeout=10, count=None):
        """Wait for a connection (or for the `count`-th one); True or AssertionError."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while not (self._conn is not None and (count is None or self._conn_seq >= count)):
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError("app sim: no agent connection on port %d after %.1fs "
                                         "(%d so far)" % (self._port, timeout, self._conn_seq))
                self._cond.wait(min(left, 0.5))
            return True

    # ---- sending ----------------------------------------------------------

    def send(self, msg_type, body, field="x", timeout=10):
        """Write one typed message in one write; returns the bytes sent."""
        return self.send_raw(format_message(msg_type, body, field).encode("utf-8"), timeout)

    def send_raw(self, data, timeout=10):
        """Write `data` (bytes or text) in one write, at least gap_ms after the last one."""
        if isinstance(data, str):
            data = data.encode("utf-8")
        self.wait_connected(timeout)
        with self._send_lock:
            wait = self._last_send + self.gap_ms / 1000.0 - time.monotonic()
            if wait > 0:
                time.sleep(wait)
            with self._lock:
                conn = self._conn
            if conn is None:
                raise AssertionError("app sim: agent connection lost before sending")
            conn.sendall(data)
            self._last_send = time.monotonic()
            with self._lock:
                self._sent.append((time.time(), data))
        return data

    def sent(self):
        with self._lock:
            return list(self._sent)

    def announce(self, cameras, timeout=10):
        """Send the type-9 camera announcement (Cameras or memoryinfo dicts)."""
        return self.send(9, announcement(cameras), timeout=timeout)

    # Images go to disk, not over the link; here for scripts that hold an AppSim.
    write_images = staticmethod(write_images)
    image_dir = staticmethod(image_dir)

    # ---- notices ----------------------------------------------------------

    def mark(self):
        """Current number of notices; pass as `since` to look only at newer ones."""
        with self._lock:
            return len(self._notices)

    def notices(self, kind=None, since=0):
        with self._lock:
            return [n for n in self._notices[since:] if _kind_matches(n, kind)]

    def wait_notice(self, kind=None, timeout=10, count=1, since=0, predicate=None):
        """Wait until `count` notices of `kind` ("back", "heart", "reline", "raw",
        or a request path) arrived after index `since`; returns them."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                found = [n for n in self._notices[since:] if _kind_matches(n, kind)
                         and (predicate is None or predicate(n))]
                if len(found) >= count:
                    return found
                left = deadline - time.monotonic()
                if left <= 0:
                    seen = [n["kind"] for n in self._notices[since:]][-15:]
                    raise AssertionError("app sim: %d of %d %r notices after %.1fs; seen: %s"
                                         % (len(found), count, kind, timeout, seen or "none"))
                self._cond.wait(min(left, 0.5))

    def raw_bytes(self):
        """Everything the agent has written, across connections."""
        with self._lock:
            return bytes(self._raw)

    # ---- internals --------------------------------------------------------

    def _accept_loop(self, listener):
        # The new connection is taken once the lock is released: greeting it
        # writes to it.
        accept_loop(self._lock, lambda: not self._stopping and self._listener is listener, listener,
                    lambda conn, peer: lambda: self._take(conn))

    def _take(self, conn):
        conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if self.greeting is not None:
            self._greet(conn)
        with self._cond:
            old = self._conn
            self._conn = conn
            self._conn_seq += 1
            cid = self._conn_seq
            self._cond.notify_all()
        if old is not None:
            try:
                old.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        t = threading.Thread(target=self._read_loop, args=(conn, cid), daemon=True,
                             name="app-conn-%d" % cid)
        self._threads.append(t)
        t.start()

    def _greet(self, conn):
        # before the connection is published, so that nothing overtakes it
        with self._send_lock:
            try:
                conn.sendall(self.greeting)
            except OSError:
                return
            self._last_send = time.monotonic()
            with self._lock:
                self._sent.append((time.time(), self.greeting))

    def _read_loop(self, conn, cid):
        parser = NoticeParser()
        last_data = time.monotonic()
        try:
            while not self._stopping:
                try:
                    ready, _, _ = select.select([conn], [], [], 0.05)
                except (OSError, ValueError):
                    break
                if not ready:
                    if parser.buf and time.monotonic() - last_data >= QUIET_SECONDS:
                        self._add(parser.feed(b"", final=True), cid)
                    continue
                try:
                    data = conn.recv(65536)
                except OSError:
                    break
                if not data:
                    break
                last_data = time.monotonic()
                with self._lock:
                    self._raw += data
                self._add(parser.feed(data), cid)
        finally:
            self._add(parser.feed(b"", final=True), cid)
            with self._cond:
                if self._conn is conn:
                    self._conn = None
                self._cond.notify_all()
            try:
                conn.close()
            except OSError:
                pass

    def _add(self, items, cid):
        if not items:
            return
        now = time.time()
        with self._cond:
            for n in items:
                n["time"] = now
                n["conn"] = cid
                n["index"] = len(self._notices)
                self._notices.append(n)
                if self._record_file:
                    line = {k: v for k, v in n.items() if k != "raw_bytes"}
                    self._record_file.write(json.dumps(line, ensure_ascii=False) + "\n")
                    self._record_file.flush()
            self._cond.notify_all()
        if self._on_notice:
            for n in items:
                try:
                    self._on_notice(n)
                except Exception as e:  # printing must never stop the reader
                    sys.stderr.write("qel_app_sim: printer failed: %s\n" % e)


def _kind_matches(n, kind):
    if kind is None:
        return True
    return n["kind"] == kind or n["path"] == kind


# ---- command line ---------------------------------------------------------


def parse_script_line(line):
    """One script line -> ("send", bytes) | ("sleep", s) | ("wait", kind, s) |
    ("images", root, keywords) | None."""
    line = line.rstrip("\r\n")
    stripped = line.strip()
    if not stripped or stripped.startswith("#"):
        return None
    word, _, rest = stripped.partition(" ")
    if word == "sleep":
        return ("sleep", float(rest) / 1000.0)
    if word == "wait":
        parts = rest.split()
        return ("wait", parts[0], float(parts[1]) if len(parts) > 1 else 10.0)
    if word == "raw":
        return ("send", unescape(line.split("raw ", 1)[1]))
    if word == "images":
        return ("images",) + parse_images_args(rest)
    if SEPARATOR in line:
        return ("send", line.encode("utf-8"))
    if re.fullmatch(r"-?\d+", word):
        body = line.split(word, 1)[1]
        return ("send", format_message(word, body[1:] if body.startswith(" ") else body).encode("utf-8"))
    raise ValueError("cannot read script line %r" % line)


def parse_images_args(text):
    """"ROOT [camera=C] [detect=D] [kind=NG|OK|template] [count=N] [size=BYTES]
    [prefix=P] [start=N] [awkward=1]" -> (root, keyword arguments of write_images)."""
    words = text.split()
    if not words:
        raise ValueError("images wants a root directory")
    kw = {}
    for word in words[1:]:
        key, sep, value = word.partition("=")
        if not sep or key not in ("camera", "detect", "kind", "count", "size", "prefix", "start", "awkward"):
            raise ValueError("images: cannot read %r" % word)
        kw[key] = value if key in ("kind", "prefix") else (value not in ("0", "no") if key == "awkward"
                                                           else int(value))
    return words[0], kw


def parse_message_arg(arg):
    """A command-line message: raw when it holds the separator, else TYPE:BODY."""
    if SEPARATOR in arg:
        return arg.encode("utf-8")
    msg_type, sep, body = arg.partition(":")
    if not sep or not re.fullmatch(r"-?\d+", msg_type):
        raise ValueError("message %r is neither TYPE:BODY nor a raw message" % arg)
    return format_message(msg_type, body).encode("utf-8")


def _format_notice(n):
    stamp = time.strftime("%H:%M:%S", time.localtime(n["time"])) + ".%03d" % (n["time"] % 1 * 1000)
    extra = " [%s]" % ",".join(n["flags"]) if n["flags"] else ""
    if n["kind"] == "raw":
        return "%s raw %s%s" % (stamp, json.dumps(n["raw"], ensure_ascii=False), extra)
    return "%s %s %s SessionId=%s body=%s%s" % (stamp, n["kind"], n["method"], n["session"],
                                                json.dumps(n["body"], ensure_ascii=False), extra)


def main(argv=None):
    ap = argparse.ArgumentParser(description="Inspection-application simulator for the qel_net "
                                 "agent (listens on 127.0.0.1).")
    ap.add_argument("--port", type=int, default=DEFAULT_PORT)
    ap.add_argument("--script", help="messages to send, one per line (see tools/README.md)")
    ap.add_argument("--gap-ms", type=int, default=100, help="least time between two messages")
    ap.add_argument("--duration", type=float, help="stop after this many seconds")
    ap.add_argument("--connect-timeout", type=float, default=60.0,
                    help="how long to wait for the agent before sending")
    ap.add_argument("--record", help="write every notice here (JSON lines)")
    ap.add_argument("--quiet", action="store_true", help="do not print notices")
    ap.add_argument("--cameras", metavar="C:WxH,...",
                    help="camera frame buffers to create and write, e.g. 0:1280x1024,1:640x480; "
                    "their announcement (type 9) goes first on every agent connection")
    ap.add_argument("--fps", type=float, default=DEFAULT_FPS, help="frames a second per camera")
    ap.add_argument("messages", nargs="*", metavar="TYPE:BODY",
                    help='messages to send, e.g. 7:{"a":1}; an argument holding ":..!" goes raw')
    a = ap.parse_args(argv)

    steps = []
    try:
        for arg in a.messages:
            steps.append(("send", parse_message_arg(arg)))
        if a.script:
            with open(a.script, encoding="utf-8") as f:
                for line in f:
                    step = parse_script_line(line)
                    if step:
                        steps.append(step)
        camera_sizes = parse_cameras(a.cameras) if a.cameras else []
    except ValueError as e:
        ap.error(str(e))

    cameras = []
    try:
        for number, width, height in camera_sizes:
            cameras.append(Camera(number, width, height, fps=a.fps))
    except (OSError, ValueError) as e:
        print("qel_app_sim: camera %d: %s" % (number, e), file=sys.stderr)
        for cam in cameras:
            cam.close()
        return 1
    greeting = format_message(9, announcement(cameras)).encode("utf-8") if cameras else None
    printer = None if a.quiet else (lambda n: print(_format_notice(n), flush=True))
    app = AppSim(a.port, gap_ms=a.gap_ms, on_notice=printer, record=a.record, greeting=greeting)
    try:
        app.start()
    except OSError as e:
        print("qel_app_sim: cannot listen on %s:%d: %s" % (LOOPBACK, a.port, e), file=sys.stderr)
        for cam in cameras:
            cam.close()
        return 1
    print("qel_app_sim: listening on %s:%d" % (LOOPBACK, app.port), flush=True)
    for cam in cameras:
        cam.start()
        print("qel_app_sim: camera %d %dx%d at %g fps: shmid %d semid %d (%d bytes)"
              % (cam.number, cam.width, cam.height, cam.fps, cam.shmid, cam.semid, cam.size), flush=True)

    done = stop_event()
    started = time.monotonic()
    status = 0
    mark = 0
    try:
        if steps:
            app.wait_connected(a.connect_timeout)
            print("qel_app_sim: agent connected", flush=True)
        for step in steps:
            if done.is_set():
                break
            if step[0] == "send":
                mark = app.mark()
                app.send_raw(step[1])
                print("qel_app_sim: sent %s" % json.dumps(step[1].decode("utf-8", "replace"),
                                                          ensure_ascii=False), flush=True)
            elif step[0] == "sleep":
                done.wait(step[1])
            elif step[0] == "images":
                written = write_images(step[1], **step[2])
                print("qel_app_sim: wrote %d image(s) into %s" % (len(written), os.path.dirname(written[0])
                                                                 if written else step[1]), flush=True)
            elif step[0] == "wait":
                app.wait_notice(step[1], timeout=step[2], since=mark)
    except AssertionError as e:
        print("qel_app_sim: %s" % e, file=sys.stderr)
        status = 1
    if status == 0:
        left = None if a.duration is None else max(0.0, a.duration - (time.monotonic() - started))
        done.wait(left)
    app.stop()
    for cam in cameras:
        cam.close()
        st = cam.wait_stats()
        print("qel_app_sim: camera %d: %d frames, %d skipped, %d dropped on a taken semaphore; "
              "semaphore wait max %.1f ms, p99 %.1f ms; writer %.1f%% of a core"
              % (cam.number, st["frames"], st["skipped"], st["lock_timeouts"], st["max_ms"], st["p99_ms"],
                 st["cpu"] * 100), flush=True)
    return status


if __name__ == "__main__":
    sys.exit(main())
