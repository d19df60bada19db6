#!/usr/bin/env python3
"""Inspection-application simulator for the qel_net agent.

The agent is a TCP client of the inspection application on 127.0.0.1:8890.
This simulator listens there, accepts the agent (a new connection replaces
the old one), sends typed messages ("TYPE:FIELD:..!BODY", one message per
write, spaced so that the agent reads them one by one) and reads the notices
the agent writes back: "/back/", "/heart/", "/reline/" and forwarded server
answers. The agent frames nothing, so several notices may arrive in one read;
they are split at their request lines and their Content-Length.

In-process:

    from qel_app_sim import AppSim
    with AppSim(port=0) as app:
        app.wait_connected(10)
        mark = app.mark()
        app.send(7, '{"total":3}')
        app.wait_notice("back", since=mark)
        write_images(alarm_root, camera=1, detect=1, kind="NG", count=3)
        app.send(5, "")          # "new images": the agent looks and uploads

Standard library only.
"""

import argparse
import json
import os
import re
import select
import signal
import socket
import sys
import threading
import time

from qel_simnet import bind_listener, close_listening, unescape

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


class AppSim:
    """The inspection application as the agent sees it (see module docstring)."""

    def __init__(self, port=DEFAULT_PORT, gap_ms=100, on_notice=None, record=None):
        self._port = port
        self.gap_ms = gap_ms
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
        while True:
            with self._lock:
                if self._stopping or self._listener is not listener:
                    return
            try:
                ready, _, _ = select.select([listener], [], [], 0.1)
            except (OSError, ValueError):
                return
            if not ready:
                continue
            try:
                conn, _ = listener.accept()
            except OSError:
                continue
            conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
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
    except ValueError as e:
        ap.error(str(e))

    printer = None if a.quiet else (lambda n: print(_format_notice(n), flush=True))
    app = AppSim(a.port, gap_ms=a.gap_ms, on_notice=printer, record=a.record)
    try:
        app.start()
    except OSError as e:
        print("qel_app_sim: cannot listen on %s:%d: %s" % (LOOPBACK, a.port, e), file=sys.stderr)
        return 1
    print("qel_app_sim: listening on %s:%d" % (LOOPBACK, app.port), flush=True)

    done = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: done.set())
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
    return status


if __name__ == "__main__":
    sys.exit(main())
