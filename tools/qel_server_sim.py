#!/usr/bin/env python3
"""Central-server simulator for the qel_net agent.

Listens on 127.0.0.1 on an information port, a file port and a video port,
reads the agent's HTTP/1.1 requests (request line, headers, Content-Length body; many
requests per connection) and answers each with a one-line JSON body that
echoes the request's "SessionId" header. Behaviour can be switched at run
time (down, refusing, silent, slow, closing, garbage, oversize, code N,
blackhole, duplicate, hold, split), reading can be throttled, answers can
be delayed per rule, and every request is recorded. Bodies are read as they
stream in (an archive of hundreds of megabytes is never held in memory); an
upload on the file port is opened as a tar.gz and its members recorded.
The video port answers the agent's push-address query (one request per
connection, answered and closed) with the address of a stream sink.

Usable as a program (see --help and tools/README.md) or in-process:

    from qel_server_sim import ServerSim
    with ServerSim(info_port=0, file_port=0, video_port=0, cdn_port=sink.port) as srv:
        ...                      # point the agent at srv.info_port/file_port/video_port
        srv.wait_request(path="/vmu/device/login")
        srv.silent()
        srv.set_reply({"msg": "ok"}, path="/vmu/device/heartbeat")

Standard library only.
"""

import argparse
import hashlib
import io
import json
import os
import select
import socket
import struct
import shutil
import sys
import tarfile
import tempfile
import threading
import time
import zlib

from qel_simnet import (DEFAULT_CDN_PORT, accept_loop, add_shell_options, bind_listener,
                        close_listening, run_simulator, shell_command_status, stamp, unescape)

LOOPBACK = "127.0.0.1"

LOGIN_PATH = "/vmu/device/login"
HEARTBEAT_PATH = "/vmu/device/heartbeat"
PRODUCT_INFO_PATH = "/vmu/device/initial"
REMINDER_PATH = "/vmu/device/reminder"
PUSH_QUERY_PATH = "/vmu/inlive/pushurl/query"

# Scripted answers per endpoint path (query ignored); anything else gets
# FALLBACK_REPLY.
DEFAULT_REPLIES = {
    LOGIN_PATH: {"code": 0},
    HEARTBEAT_PATH: {"msg": "OK"},
    PRODUCT_INFO_PATH: {"code": 0, "data": {"product": "SIM-PCB-01", "batch": "B20240101",
                                            "program": "sim_program", "remark": "模拟产品"}},
    REMINDER_PATH: {"code": 0, "data": {"id": 1, "title": "sim reminder",
                                        "content": "清洁镜头", "time": "2024-01-01 08:00:00"}},
}
FALLBACK_REPLY = {"code": 0}

# No "HTTP" anywhere in these bytes, no NUL, no CR LF before the JSON-looking tail.
DEFAULT_GARBAGE = b"\x16\x03\x01 garbage, not an answer \xfe\xff{\"code\":0}"
DEFAULT_OVERSIZE = 5000
DEFAULT_DUPLICATE_GAP_MS = 10
DEFAULT_SPLIT_MS = 100

MODES = ("normal", "down", "refusing", "silent", "slow", "closing", "garbage",
         "oversize", "code", "blackhole", "duplicate", "hold", "split")
# Leaving "hold" for one of these discards the held answers (their connections
# are closed or turn silent); any other behaviour sends them first.
_DISCARDING_MODES = ("down", "refusing", "blackhole", "silent")
PORT_NAMES = ("info", "file", "video")

_MAX_HEAD = 1 << 20
# Bodies up to this size are kept in memory (`body_bytes`); larger ones are
# streamed to a file (kept with save_bodies, else only while the archive is
# read) and the record holds their length, digest and members only.
KEEP_BODY_LIMIT = 16 << 20
# The record's `body` text covers at most this many bytes of the body.
BODY_TEXT_LIMIT = 1 << 20
_RECV_BYTES = 1 << 20
ARCHIVE_MEMBERS_SHOWN = 5


def _json_text(obj):
    return json.dumps(obj, ensure_ascii=False, separators=(",", ":"))


def http_reply(body, session=None):
    """One complete reply: status line, headers, one-line body."""
    if isinstance(body, (dict, list)):
        body = _json_text(body)
    data = body.encode("utf-8")
    head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
    if session is not None:
        head += "SessionId: %s\r\n" % session
    head += "Content-Length: %d\r\n\r\n" % len(data)
    return head.encode("utf-8") + data


def header_value(headers, name):
    """Last value of header `name` (case-insensitive) in a [name, value] list."""
    found = None
    for n, v in headers:
        if n.lower() == name.lower():
            found = v
    return found


def parse_head(head):
    """Split a request head (bytes, without the empty line) into its parts."""
    text = head.decode("utf-8", "replace")
    lines = [ln[:-1] if ln.endswith("\r") else ln for ln in text.split("\n")]
    parts = lines[0].split(" ")
    if len(parts) == 3:
        method, target, version = parts
    else:
        method, target, version = None, None, None
    headers = []
    for line in lines[1:]:
        if not line:
            continue
        name, _, value = line.partition(":")
        headers.append([name.strip(), value.strip()])
    return text, method, target, version, headers


def _session_number(value):
    try:
        return int(value.strip())
    except (AttributeError, ValueError):
        return None


def _path_only(target):
    return target.split("?", 1)[0] if target else target


def query_fields(target):
    """{name: value} of a request target's query, as written (no decoding:
    the agent does not encode its values); the last of a repeated name wins."""
    if not target or "?" not in target:
        return {}
    fields = {}
    for part in target.split("?", 1)[1].split("&"):
        if part:
            name, _, value = part.partition("=")
            fields[name] = value
    return fields


def path_matches(req, path):
    return path is None or req.get("path") == path or _path_only(req.get("path")) == path


class _Port:
    """One listening port with its own behaviour and connections."""

    def __init__(self, name, port):
        self.name = name
        self.port = port
        self.mode = "normal"
        self.arg = None
        self.listener = None
        self.blackhole = False
        self.fillers = []
        self.conns = {}      # connection id -> _Conn
        self.read_rate = None   # bytes a second read from each connection (None: no limit)
        # The video server answers one query per connection and then closes
        # it; the information and file servers keep theirs open.
        self.close_after_answer = name == "video"


class _Conn:
    """An accepted connection. Answers may be written from the reading thread
    and from timers (delayed and duplicate answers); `wlock` keeps each answer
    (both halves of a split one, a whole flush) in one piece on the wire."""

    def __init__(self, sock, cid):
        self.sock = sock
        self.cid = cid
        self.wlock = threading.Lock()
        self.held = []       # answers kept back by "hold", oldest first
        self.closed = False
        self.shut = False    # the simulator ended it (not the peer)

    def shut_down(self, reset=False):
        """End the connection from this side (with reset: RST instead of FIN)."""
        self.shut = True
        try:
            if reset:
                self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def write(self, *parts, gap=0.0):
        """Send each part with one send call, `gap` seconds apart; False once
        the connection is gone."""
        with self.wlock:
            for i, part in enumerate(parts):
                if self.closed:
                    return False
                if i and gap > 0:
                    time.sleep(gap)
                try:
                    self.sock.sendall(part)
                except OSError:
                    return False
            return True


class _Body:
    """A request body as it arrives: kept in memory up to a limit, streamed to
    a file when it must be saved or inspected and is too large to keep, and
    digested on the way, so a body of hundreds of megabytes is never held."""

    def __init__(self, length, keep, path, digest):
        self.length = length
        self.remaining = length
        self.mem = bytearray() if keep else None
        self.preview = bytearray()          # the first BODY_TEXT_LIMIT bytes
        self.path = path
        self.file = open(path, "wb") if path else None
        self.sha = hashlib.sha256() if digest else None

    def add(self, chunk):
        if self.mem is not None:
            self.mem += chunk
        elif len(self.preview) < BODY_TEXT_LIMIT:
            self.preview += chunk[:BODY_TEXT_LIMIT - len(self.preview)]
        if self.file is not None:
            self.file.write(chunk)
        if self.sha is not None:
            self.sha.update(chunk)
        self.remaining -= len(chunk)

    def close(self):
        if self.file is not None:
            self.file.close()
            self.file = None

    def discard(self):
        """For a body cut short by the end of its connection."""
        self.close()
        if self.path:
            try:
                os.remove(self.path)
            except OSError:
                pass


class _RequestReader:
    """Splits one connection's bytes into requests: the head up to the empty
    line, then Content-Length body bytes (a missing or negative length counts
    as 0). A head that never ends is taken as it is once it passes _MAX_HEAD."""

    def __init__(self, sim, p, peer, cid):
        self.sim, self.p, self.peer, self.cid = sim, p, peer, cid
        self.buf = bytearray()
        self.head = None
        self.body = None
        self.started = None

    def feed(self, data):
        """Take `data`; returns the requests it completed, oldest first."""
        out = []
        view = memoryview(data)
        while len(view):
            if self.body is None:
                if not self.buf:
                    self.started = time.time()
                searched = max(0, len(self.buf) - 3)
                self.buf += view
                view = view[len(view):]
                end = self.buf.find(b"\r\n\r\n", searched)
                if end < 0:
                    if len(self.buf) > _MAX_HEAD:    # no head in sight: record and drop it
                        out.append(self.sim._make_record(bytes(self.buf), _Body(0, True, None, True), self,
                                                         ended=False))
                        self.buf = bytearray()
                    break
                self.head = bytes(self.buf[:end])
                view = memoryview(bytes(self.buf[end + 4:]))
                self.buf = bytearray()
                _, _, _, _, headers = parse_head(self.head)
                try:
                    length = max(0, int(header_value(headers, "Content-Length") or 0))
                except ValueError:
                    length = 0
                self.body = self.sim._new_body(self.p, length)
            else:
                take = min(len(view), self.body.remaining)
                self.body.add(view[:take])
                view = view[take:]
            if self.body is not None and self.body.remaining == 0:
                body, self.body = self.body, None
                body.close()
                out.append(self.sim._make_record(self.head, body, self))
        return out

    def unfinished(self):
        """What was read of a request the connection ended in the middle of
        (None if it ended between requests); drops its partial body."""
        if self.body is None and not self.buf:
            return None
        _, method, target, _, headers = parse_head(self.head if self.body is not None else bytes(self.buf))
        left = {"method": method, "path": target,
                "session": _session_number(header_value(headers, "SessionId"))}
        if self.body is not None:
            left.update(length=self.body.length, received=self.body.length - self.body.remaining)
            self.body.discard()
            self.body = None
        else:
            left["head_bytes"] = len(self.buf)
        self.buf = bytearray()
        return left


def list_archive(data=None, path=None):
    """[[member name, size], ...] of a gzip-compressed tar archive given as
    bytes or as a file, or None if it is not one."""
    try:
        tf = (tarfile.open(fileobj=io.BytesIO(data), mode="r:gz") if path is None
              else tarfile.open(path, mode="r:gz"))
        with tf:
            return [[m.name, m.size] for m in tf]
    except (tarfile.TarError, OSError, EOFError, zlib.error, ValueError):
        return None


class ServerSim:
    """The central server as the agent sees it (see module docstring)."""

    def __init__(self, info_port=0, file_port=0, record=None, mode="normal", arg=None,
                 heartbeat_msg=None, login_code=None, on_event=None, save_bodies=None,
                 keep_bodies_below=KEEP_BODY_LIMIT, inspect_archives=True, digest_bodies=True,
                 video_port=0, cdn_port=DEFAULT_CDN_PORT):
        self._lock = threading.RLock()
        self._cond = threading.Condition(self._lock)
        self._ports = {name: _Port(name, port) for name, port in
                       (("info", info_port), ("file", file_port), ("video", video_port))}
        self.cdn_port = cdn_port     # where the push address sends the stream
        self._records = []
        self._events = []
        self._rules = []
        self._timers = []
        self._conn_seq = 0
        self._body_seq = 0
        self._stopping = False
        self._threads = []
        self._record_path = record
        self._record_file = None
        self._on_event = on_event
        self._save_bodies = save_bodies
        self._keep_limit = keep_bodies_below
        self._inspect = inspect_archives
        self._digest = digest_bodies
        self._spool = None      # scratch directory for large bodies that are not saved
        self._initial_mode = (mode, arg)
        if heartbeat_msg is not None:
            self.set_reply({"msg": heartbeat_msg}, path=HEARTBEAT_PATH)
        if login_code is not None:
            self.set_reply({"code": login_code}, path=LOGIN_PATH)

    # ---- life cycle -------------------------------------------------------

    def start(self):
        if self._record_path:
            self._record_file = open(self._record_path, "w", encoding="utf-8")
        if self._save_bodies:
            os.makedirs(self._save_bodies, exist_ok=True)
        for p in self._ports.values():
            self._open(p)
        mode, arg = self._initial_mode
        if mode != "normal" or arg is not None:
            self.set_mode(mode, arg)
        return self

    def stop(self):
        with self._lock:
            self._stopping = True
            for t in self._timers:
                t.cancel()
            for p in self._ports.values():
                self._close_listener(p)
                self._drop_connections(p)
        for t in list(self._threads):
            t.join(timeout=2)
        with self._lock:
            if self._record_file:
                self._record_file.close()
                self._record_file = None
            spool, self._spool = self._spool, None
        if spool:
            shutil.rmtree(spool, ignore_errors=True)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    @property
    def info_port(self):
        return self._ports["info"].port

    @property
    def file_port(self):
        return self._ports["file"].port

    @property
    def video_port(self):
        return self._ports["video"].port

    def port_of(self, name):
        return self._ports[name].port

    # ---- behaviours -------------------------------------------------------

    def set_mode(self, mode, arg=None, port=None):
        """Switch behaviour; `port` is "info", "file", "video" or None for all.

        normal     answer every request
        down       close listener and connections; connects are refused
                   (arg "reset": connections are reset instead of closed)
        refusing   accept, then close at once (current connections closed too)
        silent     read and record requests, never answer (`arg` ms: then
                   close each connection that long after its last request)
        slow       answer after `arg` milliseconds
        closing    answer, then close the connection (what the video port
                   always does, unless keep_open())
        garbage    answer with non-HTTP bytes (`arg`: bytes or text to send)
        oversize   answer with a body of more than `arg` bytes (default 5000)
        code       answer every request with {"code": arg}
        blackhole  a listener that never accepts, its queue pre-filled, so new
                   connects hang (dropped SYN); open connections turn silent
        duplicate  answer, then send the same answer again `arg` ms later
                   (default 10) with a write of its own
        hold       keep the answers back until flush() (leaving "hold" sends
                   them too, except for down, refusing, blackhole, silent)
        split      write the answer's head, then its body `arg` ms later
                   (default 100), in two send calls
        """
        if mode == "up":
            mode = "normal"
        if mode not in MODES:
            raise ValueError("unknown mode %r" % (mode,))
        if mode == "slow":
            arg = int(arg if arg is not None else 1000)
        elif mode == "duplicate":
            arg = int(arg if arg is not None else DEFAULT_DUPLICATE_GAP_MS)
        elif mode == "split":
            arg = int(arg if arg is not None else DEFAULT_SPLIT_MS)
        elif mode == "hold":
            arg = None
        elif mode == "silent":
            arg = None if arg is None else int(arg)
        elif mode == "code":
            arg = int(arg if arg is not None else 1)
        elif mode == "oversize":
            arg = int(arg if arg is not None else DEFAULT_OVERSIZE)
        elif mode == "garbage" and arg is not None and isinstance(arg, str):
            arg = arg.encode("utf-8")
        names = PORT_NAMES if port is None else (port,)
        with self._lock:
            for name in names:
                p = self._ports[name]
                if p.mode == "hold" and mode != "hold":
                    if mode in _DISCARDING_MODES:
                        for c in p.conns.values():
                            c.held = []
                    else:
                        self._flush_port(p)
                p.mode, p.arg = mode, arg
                if mode == "down":
                    self._close_listener(p)
                    self._drop_connections(p, reset=(arg == "reset"))
                elif mode == "blackhole":
                    self._close_listener(p)
                    self._open_blackhole(p)
                else:
                    if p.listener is None or p.blackhole:
                        self._close_listener(p)
                        self._open(p)
                    if mode == "refusing":
                        self._drop_connections(p)
            self._event({"event": "mode", "mode": mode, "arg": _printable(arg), "port_name": port})

    def normal(self, port=None):
        self.set_mode("normal", port=port)

    def up(self, port=None):
        self.set_mode("normal", port=port)

    def down(self, port=None, reset=False):
        self.set_mode("down", "reset" if reset else None, port=port)

    def refusing(self, port=None):
        self.set_mode("refusing", port=port)

    def silent(self, port=None, close_ms=None):
        self.set_mode("silent", close_ms, port=port)

    def slow(self, ms, port=None):
        self.set_mode("slow", ms, port=port)

    def closing(self, port=None):
        self.set_mode("closing", port=port)

    def garbage(self, data=None, port=None):
        self.set_mode("garbage", data, port=port)

    def oversize(self, size=DEFAULT_OVERSIZE, port=None):
        self.set_mode("oversize", size, port=port)

    def code(self, n, port=None):
        self.set_mode("code", n, port=port)

    def blackhole(self, port=None):
        self.set_mode("blackhole", port=port)

    def duplicate(self, gap_ms=DEFAULT_DUPLICATE_GAP_MS, port=None):
        self.set_mode("duplicate", gap_ms, port=port)

    def hold(self, port=None):
        self.set_mode("hold", port=port)

    def split(self, ms=DEFAULT_SPLIT_MS, port=None):
        self.set_mode("split", ms, port=port)

    def throttle(self, kib_per_s, port=None):
        """Read at most `kib_per_s` KiB a second from each connection (0 or
        None: as fast as they come), so that an upload takes a while; the
        behaviour is kept."""
        rate = int(kib_per_s * 1024) if kib_per_s else None
        with self._lock:
            for name in PORT_NAMES if port is None else (port,):
                self._ports[name].read_rate = rate
            self._event({"event": "mode", "mode": "throttle", "arg": kib_per_s or 0, "port_name": port})

    def keep_open(self, on=True, port="video"):
        """Whether a connection stays open after an answer. The video port
        closes it by default, as the video server does; keeping it open shows
        whether a client stops reading at Content-Length. The behaviour is kept."""
        with self._lock:
            self._ports[port].close_after_answer = not on
            self._event({"event": "mode", "mode": "keep-open", "arg": "on" if on else "off", "port_name": port})

    def set_cdn_port(self, port):
        """Push addresses from now on name 127.0.0.1:`port`."""
        with self._lock:
            self.cdn_port = int(port)
            self._event({"event": "mode", "mode": "cdn-port", "arg": self.cdn_port, "port_name": "video"})

    def push_address(self, camera_id):
        """The address the video port hands out for `camera_id` (as written
        in the query) while no other answer is set."""
        return "http://%s:%d/live/cam%s" % (LOOPBACK, self.cdn_port, camera_id)

    def answer(self, text, port="video", times=None, delay_ms=None):
        """Answer every request on `port` with `text` as the body, as it is."""
        self.set_reply(text, port=port, times=times, delay_ms=delay_ms)

    def flush(self, port=None):
        """Send the held answers, all those of one connection with one send
        call (the client reads them in one read); returns how many were sent.
        The port keeps holding later answers."""
        with self._lock:
            return sum(self._flush_port(self._ports[n]) for n in (PORT_NAMES if port is None else (port,)))

    def held(self, port=None):
        """How many answers are held back now."""
        with self._lock:
            return sum(len(c.held) for n in (PORT_NAMES if port is None else (port,))
                       for c in self._ports[n].conns.values())

    def mode(self, port="info"):
        p = self._ports[port]
        return p.mode, p.arg

    def set_reply(self, reply, path=None, session=None, times=None, reply_session=None, delay_ms=None,
                  port=None):
        """Override the answer for matching requests (newest rule wins).

        reply: dict/list (sent as one-line JSON), str (sent as the body),
        bytes (sent raw instead of a whole reply), or a callable taking the
        request record and returning one of these, or None for no answer.
        path matches with or without the query; session is the SessionId
        number; times limits how often the rule applies; reply_session puts
        another SessionId into the answer than the request's; delay_ms sends
        the answer that much later, while later requests on the connection
        are read and answered as usual; port limits the rule to one port.
        """
        with self._lock:
            self._rules.append({"path": path, "session": session, "reply": reply,
                                "times": times, "reply_session": reply_session,
                                "delay_ms": delay_ms, "port": port})

    def clear_replies(self, port=None):
        """Back to the scripted answers (on `port` only: drop its own rules)."""
        with self._lock:
            self._rules = [] if port is None else [r for r in self._rules if r["port"] != port]

    def close_connections(self, port=None, reset=False):
        """Drop the current connections without changing the behaviour."""
        with self._lock:
            for name in PORT_NAMES if port is None else (port,):
                self._drop_connections(self._ports[name], reset=reset)

    def open_connections(self, port=None):
        with self._lock:
            return sum(len(self._ports[n].conns) for n in (PORT_NAMES if port is None else (port,)))

    # ---- records ----------------------------------------------------------

    def requests(self, path=None, session=None, port=None):
        with self._lock:
            return [r for r in self._records if _req_matches(r, path, session, port)]

    def archives(self, session=None):
        """The uploads on the file port whose body was a readable tar.gz."""
        with self._lock:
            return [r for r in self._records if r["port_name"] == "file" and r.get("archive") is not None
                    and (session is None or r["session"] == session)]

    def wait_request(self, predicate=None, path=None, session=None, port=None, timeout=10, count=1):
        """Wait until `count` requests match; returns them (all matches)."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                found = [r for r in self._records if _req_matches(r, path, session, port)
                         and (predicate is None or predicate(r))]
                if len(found) >= count:
                    return found
                left = deadline - time.monotonic()
                if left <= 0:
                    seen = ["%s %s SessionId=%s" % (r["method"], r["path"], r["session"])
                            for r in self._records[-10:]]
                    raise AssertionError(
                        "server sim: %d of %d wanted requests (path=%r session=%r port=%r) "
                        "after %.1fs; last requests: %s" % (len(found), count, path, session, port,
                                                           timeout, seen or "none"))
                self._cond.wait(min(left, 0.5))

    def connections(self, port=None):
        """Connection events (accepted connections) so far."""
        with self._lock:
            return [e for e in self._events if e["event"] == "connect"
                    and (port is None or e["port_name"] == port)]

    def wait_connection(self, port=None, timeout=10, count=1):
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                found = self.connections(port)
                if len(found) >= count:
                    return found
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError("server sim: %d of %d connections on %s after %.1fs"
                                         % (len(found), count, port or "any port", timeout))
                self._cond.wait(min(left, 0.5))

    def events(self):
        with self._lock:
            return list(self._events)

    # ---- text commands (control channel) -----------------------------------

    def command(self, line):
        """Apply one control command; returns "ok ..." or "error: ..."."""
        words = line.strip().split(None, 1)
        if not words:
            return "error: empty command"
        try:
            port = None
            if words[0] in PORT_NAMES and len(words) > 1:
                port = words[0]
                words = words[1].split(None, 1)
            cmd, rest = words[0].lower(), (words[1] if len(words) > 1 else "")
            if cmd in MODES or cmd == "up":
                arg = rest.strip() or None
                if cmd == "garbage" and arg is not None:
                    arg = unescape(arg)
                self.set_mode(cmd, arg, port=port)
                return "ok " + self.status()
            if cmd == "status":
                return "ok " + self.status()
            if cmd in ("reply", "reply-once"):
                delay, rest = _delay_option(rest)
                path, body = rest.split(None, 1)
                self.set_reply(_reply_arg(body), path=None if path == "*" else path,
                               times=1 if cmd == "reply-once" else None, delay_ms=delay, port=port)
                return "ok"
            if cmd == "reply-session":
                delay, rest = _delay_option(rest)
                session, body = rest.split(None, 1)
                self.set_reply(_reply_arg(body), session=int(session), delay_ms=delay, port=port)
                return "ok"
            if cmd == "answer":
                delay, rest = _delay_option(rest)
                if not rest.strip():
                    raise ValueError("answer wants a text")
                self.answer(rest.strip(), port=port or "video", delay_ms=delay)
                return "ok"
            if cmd == "keep-open":
                arg = rest.strip() or "on"
                if arg not in ("on", "off"):
                    raise ValueError("keep-open wants on or off")
                self.keep_open(arg == "on", port=port or "video")
                return "ok " + self.status()
            if cmd == "cdn-port":
                self.set_cdn_port(int(rest))
                return "ok " + self.status()
            if cmd == "flush":
                return "ok flushed %d" % self.flush(port=port)
            if cmd == "throttle":
                arg = rest.strip()
                self.throttle(0 if arg in ("", "off") else float(arg), port=port)
                return "ok " + self.status()
            if cmd == "replies-clear":
                self.clear_replies(port=port)
                return "ok"
            if cmd == "drop":
                self.close_connections(port=port, reset=(rest.strip() == "reset"))
                return "ok"
            if cmd == "requests":
                return "ok %d" % len(self.requests(port=port))
            return "error: unknown command %r" % cmd
        except (ValueError, KeyError) as e:
            return "error: %s" % e

    def status(self):
        with self._lock:
            parts = []
            for p in self._ports.values():
                mode = p.mode + ("" if p.arg is None else " " + str(_printable(p.arg)))
                held = sum(len(c.held) for c in p.conns.values())
                closing = p.close_after_answer != (p.name == "video")    # not the port's usual way
                parts.append("%s:%d %s conns=%d%s%s%s" % (
                    p.name, p.port, mode, len(p.conns), " held=%d" % held if p.mode == "hold" or held else "",
                    " throttle=%gKiB/s" % (p.read_rate / 1024.0) if p.read_rate else "",
                    " keep-open=%s" % ("off" if p.close_after_answer else "on") if closing else ""))
            parts.append("cdn=%s:%d" % (LOOPBACK, self.cdn_port))
            parts.append("requests=%d" % len(self._records))
            return " | ".join(parts)

    # ---- internals ----------------------------------------------------------

    def _event(self, ev):
        ev.setdefault("time", time.time())
        with self._cond:
            if ev["event"] == "request":
                self._records.append(ev)
            else:
                self._events.append(ev)
            if self._record_file:
                line = {k: v for k, v in ev.items() if k not in ("body_bytes", "raw_bytes")}
                if isinstance(line.get("body"), str) and len(line["body"]) > 65536:
                    line["body"] = line["body"][:65536]
                    line["body_truncated"] = True
                self._record_file.write(json.dumps(line, ensure_ascii=False) + "\n")
                self._record_file.flush()
            self._cond.notify_all()
        if self._on_event:
            try:
                self._on_event(ev)
            except Exception as e:  # printing must never stop the server
                sys.stderr.write("qel_server_sim: printer failed: %s\n" % e)

    def _new_listener(self, p, backlog):
        s = bind_listener(p.port, backlog)
        p.port = s.getsockname()[1]
        return s

    def _open(self, p):
        s = self._new_listener(p, 64)
        p.listener, p.blackhole = s, False
        t = threading.Thread(target=self._accept_loop, args=(p, s), daemon=True,
                             name="srv-accept-%s" % p.name)
        self._threads.append(t)
        t.start()

    def _open_blackhole(self, p):
        # listen(0) admits one connection into the accept queue; nobody ever
        # accepts it, so once it is full every further SYN is dropped and the
        # client's connect hangs until its own time-out.
        s = self._new_listener(p, 0)
        p.listener, p.blackhole = s, True
        for _ in range(8):
            c = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            c.settimeout(0.2)
            try:
                c.connect((LOOPBACK, p.port))
            except OSError:
                c.close()
                break
            p.fillers.append(c)

    def _close_listener(self, p):
        s, p.listener, p.blackhole = p.listener, None, False
        if s is not None:
            close_listening(s)
        for c in p.fillers:
            c.close()
        p.fillers = []

    def _drop_connections(self, p, reset=False):
        for c in list(p.conns.values()):
            c.held = []
            c.shut_down(reset)

    def _flush_port(self, p):
        """Write each connection's held answers with one send call (under the
        simulator lock: the connections cannot go away meanwhile)."""
        sent = 0
        for c in list(p.conns.values()):
            held, c.held = c.held, []
            if held and c.write(b"".join(held)):
                sent += len(held)
                if p.close_after_answer:
                    c.shut_down()
        return sent

    def _later(self, seconds, c, *parts, close=False):
        """Write `parts` on connection `c` after `seconds`, from a timer; then
        close the connection if `close`."""
        def fire():
            with self._lock:
                if t in self._timers:
                    self._timers.remove(t)
                if self._stopping:
                    return
            if c.write(*parts) and close:
                c.shut_down()
        t = threading.Timer(seconds, fire)
        t.daemon = True
        with self._lock:
            if self._stopping:
                return
            self._timers.append(t)
        t.start()

    def _accept_loop(self, p, listener):
        accept_loop(self._lock, lambda: not self._stopping and p.listener is listener, listener,
                    lambda conn, peer: self._accept(p, conn, peer))

    def _accept(self, p, conn, peer):
        """Under the lock: a new connection on port `p`; returns what starts it."""
        self._conn_seq += 1
        cid = self._conn_seq
        peer_text = "%s:%d" % peer
        if p.mode == "refusing":
            conn.close()
            self._event({"event": "refused", "port": p.port, "port_name": p.name,
                         "peer": peer_text, "conn": cid})
            return None
        conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        p.conns[cid] = _Conn(conn, cid)
        t = threading.Thread(target=self._serve, args=(p, p.conns[cid], peer_text, cid),
                             daemon=True, name="srv-conn-%d" % cid)
        self._threads.append(t)

        def start():
            self._event({"event": "connect", "port": p.port, "port_name": p.name,
                         "peer": peer_text, "conn": cid})
            t.start()
        return start

    def _serve(self, p, c, peer, cid):
        conn = c.sock
        reader = _RequestReader(self, p, peer, cid)
        closed_by = "peer"
        next_read = time.monotonic()
        try:
            while True:
                try:
                    ready, _, _ = select.select([conn], [], [], 0.2)
                except (OSError, ValueError):
                    break
                if self._stopping:
                    closed_by = "server"
                    break
                if not ready:
                    continue
                rate = p.read_rate
                try:
                    data = conn.recv(_RECV_BYTES if not rate else max(1024, min(_RECV_BYTES, rate // 20)))
                except OSError:
                    break
                if not data:
                    break
                keep = True
                for req in reader.feed(data):
                    keep = self._answer(p, c, req)
                    if not keep:
                        break
                if not keep:
                    closed_by = "server"
                    break
                if rate:
                    # a throttled port reads no faster than `rate` on average
                    next_read = max(next_read, time.monotonic() - 0.1) + len(data) / float(rate)
                    while not self._stopping and time.monotonic() < next_read:
                        time.sleep(min(0.05, next_read - time.monotonic()))
        finally:
            with self._lock:
                p.conns.pop(cid, None)
            with c.wlock:
                c.closed = True
            if c.shut:
                closed_by = "server"
            try:
                conn.close()
            except OSError:
                pass
            ev = {"event": "close", "port": p.port, "port_name": p.name, "peer": peer, "conn": cid,
                  "by": closed_by}
            unfinished = reader.unfinished()
            if unfinished is not None:
                ev["unfinished"] = unfinished
            self._event(ev)

    def _new_body(self, p, length):
        """Where the body of a request on port `p` goes (see _Body)."""
        keep = length <= self._keep_limit
        path = None
        with self._lock:
            if self._save_bodies and length:
                self._body_seq += 1
                path = os.path.join(self._save_bodies, "%06d.body" % self._body_seq)
            elif not keep and self._inspect and p.name == "file":
                if self._spool is None:
                    self._spool = tempfile.mkdtemp(prefix="qel_server_sim_")
                self._body_seq += 1
                path = os.path.join(self._spool, "%06d.body" % self._body_seq)
        return _Body(length, keep, path, self._digest)

    def _make_record(self, head, body, reader, ended=True):
        """The record of one request; `ended`: its head ended in an empty line."""
        text, method, target, version, headers = parse_head(head)
        sid = header_value(headers, "SessionId")
        kept = body.mem is not None
        shown = body.mem if kept else body.preview
        record = {
            "event": "request", "time": time.time(), "started": reader.started, "port": reader.p.port,
            "port_name": reader.p.name, "peer": reader.peer, "conn": reader.cid, "method": method,
            "path": target, "query": query_fields(target), "version": version, "headers": headers,
            "head": text + "\r\n\r\n",
            "session_header": sid, "session": _session_number(sid),
            "body": bytes(shown[:BODY_TEXT_LIMIT]).decode("utf-8", "replace"),
            "body_len": body.length,
            "body_sha256": body.sha.hexdigest() if body.sha is not None else None,
            "body_bytes": bytes(body.mem) if kept else None,
            # the request exactly as it came, for byte-exact comparisons
            "raw_bytes": head + (b"\r\n\r\n" if ended else b"") + bytes(body.mem) if kept else None,
        }
        if body.length > BODY_TEXT_LIMIT:
            record["body_truncated"] = True
        if self._inspect and reader.p.name == "file" and body.length:
            record["archive"] = list_archive(record["body_bytes"]) if kept else list_archive(path=body.path)
        if body.path:
            if self._save_bodies and body.path.startswith(self._save_bodies):
                if record.get("archive") is not None:
                    named = body.path[:-len(".body")] + ".tar.gz"
                    os.replace(body.path, named)
                    body.path = named
                record["body_file"] = body.path
            else:
                body.discard()
        return record

    def _reply_for(self, p, req):
        """(bytes to send or None, printable form, delay in ms or None) for one request."""
        with self._lock:
            mode, arg = p.mode, p.arg
            if mode in ("silent", "blackhole"):
                return None, None, None
            if mode == "garbage":
                data = arg if arg is not None else DEFAULT_GARBAGE
                return data, _printable(data), None
            session = req["session_header"]
            if mode == "code":
                body = _json_text({"code": arg})
                return http_reply(body, session), body, None
            reply, reply_session, delay_ms = self._rule_reply(req)
        if callable(reply):
            reply = reply(req)
        if reply is None:
            return None, None, None
        if reply_session is not None:
            session = str(reply_session)
        if isinstance(reply, (bytes, bytearray)):
            return bytes(reply), _printable(bytes(reply)), delay_ms
        if mode == "oversize":
            obj = dict(reply) if isinstance(reply, dict) else dict(FALLBACK_REPLY)
            obj["pad"] = "x" * arg
            reply = obj
        body = reply if isinstance(reply, str) else _json_text(reply)
        return http_reply(body, session), body, delay_ms

    def _rule_reply(self, req):
        for rule in reversed(self._rules):
            if not path_matches(req, rule["path"]):
                continue
            if rule["port"] is not None and rule["port"] != req["port_name"]:
                continue
            if rule["session"] is not None and req["session"] != rule["session"]:
                continue
            if rule["times"] is not None:
                rule["times"] -= 1
                if rule["times"] <= 0:
                    self._rules.remove(rule)
            return rule["reply"], rule["reply_session"], rule.get("delay_ms")
        if _path_only(req["path"]) == PUSH_QUERY_PATH:
            return {"code": 0, "data": self.push_address(req["query"].get("camera_id", ""))}, None, None
        return DEFAULT_REPLIES.get(_path_only(req["path"]), FALLBACK_REPLY), None, None

    def _answer(self, p, c, req):
        """Record and answer one request; False when the connection must end."""
        mode, arg = p.mode, p.arg
        close = mode == "closing" or p.close_after_answer
        data, shown, delay_ms = self._reply_for(p, req)
        req["mode"] = mode
        req["reply"] = shown
        if data is not None and delay_ms:
            req["delay_ms"] = delay_ms
        self._event(req)
        if data is None:
            if mode == "silent" and arg:
                self._later(arg / 1000.0, c, close=True)     # a server that gives up waiting
            return True
        if mode == "slow":
            deadline = time.monotonic() + arg / 1000.0
            while time.monotonic() < deadline:
                if self._stopping or c.closed:
                    return False
                time.sleep(min(0.05, max(0.0, deadline - time.monotonic())))
        if mode == "hold":
            with self._lock:
                if p.mode == "hold":       # not flushed away meanwhile
                    c.held.append(data)
                    return True
        if delay_ms:
            twice = mode == "duplicate"
            self._later(delay_ms / 1000.0, c, data, close=close and not twice)
            if twice:
                self._later((delay_ms + arg) / 1000.0, c, data, close=close)
            return True
        if mode == "split":
            head, sep, body = data.partition(b"\r\n\r\n")
            parts = (head + sep, body) if sep and body else (data,)
            # head and body with a send call each, `arg` ms apart: two reads
            if not c.write(*parts, gap=arg / 1000.0):
                return False
        elif not c.write(data):   # one write: the agent reads one reply per read
            return False
        if mode == "duplicate":
            self._later(arg / 1000.0, c, data, close=close)
            return True
        if close:
            c.shut_down()
            return False
        return True


def _req_matches(r, path, session, port):
    return (path_matches(r, path) and (session is None or r["session"] == session)
            and (port is None or r["port_name"] == port))


def _printable(v):
    if isinstance(v, (bytes, bytearray)):
        return bytes(v).decode("utf-8", "backslashreplace")
    return v



def _delay_option(text):
    """(delay in ms or None, rest) for an optional leading "delay=MS" word."""
    words = text.strip().split(None, 1)
    if words and words[0].startswith("delay="):
        return int(words[0][len("delay="):]), (words[1] if len(words) > 1 else "")
    return None, text


def _reply_arg(text):
    text = text.strip()
    try:
        return json.loads(text)
    except ValueError:
        return text


# ---- command line ---------------------------------------------------------

def _format_event(ev):
    at = stamp(ev["time"])
    kind = ev["event"]
    if kind == "request":
        reply = "(no answer)" if ev["reply"] is None else ev["reply"]
        if ev.get("archive") is not None:
            members = ev["archive"]
            shown = ", ".join("%s (%d)" % (json.dumps(name, ensure_ascii=False), size)
                              for name, size in members[:ARCHIVE_MEMBERS_SHOWN])
            if len(members) > ARCHIVE_MEMBERS_SHOWN:
                shown += ", ... %d more" % (len(members) - ARCHIVE_MEMBERS_SHOWN)
            what = "archive of %d bytes, %d member(s): %s" % (ev["body_len"], len(members), shown)
        else:
            body = ev["body"] if len(ev["body"]) <= 200 else ev["body"][:200] + "...(%d bytes)" % ev["body_len"]
            what = "body=" + json.dumps(body, ensure_ascii=False)
        return "%s %s #%d %s %s SessionId=%s %s -> %s" % (
            at, ev["port_name"], ev["conn"], ev["method"], ev["path"], ev["session_header"], what, reply)
    if kind == "mode":
        return "%s mode %s%s%s" % (at, ev["mode"], "" if ev["arg"] is None else " %s" % ev["arg"],
                                  "" if ev["port_name"] is None else " (%s only)" % ev["port_name"])
    line = "%s %s #%d %s %s" % (at, ev["port_name"], ev["conn"], kind, ev["peer"])
    if ev.get("unfinished"):
        u = ev["unfinished"]
        line += " in the middle of %s %s (%s)" % (u["method"], u["path"], "%d of %d body bytes" % (
            u["received"], u["length"]) if "length" in u else "head incomplete")
    return line


def main(argv=None):
    ap = argparse.ArgumentParser(description="Central-server simulator for the qel_net agent "
                                 "(binds 127.0.0.1 only).")
    ap.add_argument("--info-port", type=int, default=8000, help="information port (0: any free)")
    ap.add_argument("--file-port", type=int, default=8080, help="file port (0: any free)")
    ap.add_argument("--video-port", type=int, default=8888, help="video port (0: any free)")
    ap.add_argument("--cdn-port", type=int, default=DEFAULT_CDN_PORT,
                    help="port of the stream sink that push addresses name (127.0.0.1)")
    ap.add_argument("--bind", default=LOOPBACK, help="must be 127.0.0.1")
    ap.add_argument("--record", help="write every request and connection event here (JSON lines)")
    ap.add_argument("--save-bodies", metavar="DIR", help="also store each request body as a file "
                    "(NNNNNN.tar.gz for archives, NNNNNN.body otherwise)")
    ap.add_argument("--mode", default="normal", help='initial behaviour, e.g. "silent", "slow 500"')
    ap.add_argument("--heartbeat-msg", help='heartbeat answer {"msg": TEXT} (default OK)')
    ap.add_argument("--login-code", type=int, help='login answer {"code": N} (default 0)')
    ap.add_argument("--reply", action="append", default=[], metavar="PATH=JSON",
                    help="answer requests to PATH with this body (repeatable)")
    ap.add_argument("--quiet", action="store_true", help="do not print requests")
    add_shell_options(ap, "simulator")
    a = ap.parse_args(argv)
    if a.bind not in (LOOPBACK, "localhost"):
        ap.error("refusing to bind %s: the simulator serves 127.0.0.1 only" % a.bind)
    status = shell_command_status(ap, a, MODES)
    if status is not None:
        return status

    printer = None if a.quiet else (lambda ev: print(_format_event(ev), flush=True))
    sim = ServerSim(a.info_port, a.file_port, record=a.record, heartbeat_msg=a.heartbeat_msg,
                    login_code=a.login_code, on_event=printer, save_bodies=a.save_bodies,
                    video_port=a.video_port, cdn_port=a.cdn_port)
    for reply_arg in a.reply:
        path, sep, body = reply_arg.partition("=")
        if not sep:
            ap.error("--reply wants PATH=JSON, got %r" % reply_arg)
        sim.set_reply(_reply_arg(body), path=None if path == "*" else path)
    return run_simulator(
        "qel_server_sim", sim, a.mode, a.control_port, a.stdin, a.duration,
        lambda control: "qel_server_sim: info %s:%d file %s:%d video %s:%d%s" % (
            LOOPBACK, sim.info_port, LOOPBACK, sim.file_port, LOOPBACK, sim.video_port,
            "" if control is None else " control %s:%d" % (LOOPBACK, control)))


if __name__ == "__main__":
    sys.exit(main())
