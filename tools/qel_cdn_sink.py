#!/usr/bin/env python3
"""Stream sink for the qel_net agent's live video.

The push address that the video server hands out sends the agent to an
ingest point: the agent connects, writes

    PUT http://a.b.c.d:port/path\\r\\nHost:127.0.0.1\\r\\n\\r\\n

and then an endless MPEG-TS byte stream, without framing and without ever
reading. This sink listens on 127.0.0.1, takes any number of such
connections at once, records each head byte for byte, writes the stream bytes
after it to one file per connection and counts them. It can also refuse
connections, go down, cut each connection after N stream bytes, stop reading
(so that the sender's buffers fill and its writes block) or read slowly.

Usable as a program (see --help and tools/README.md) or in-process:

    from qel_cdn_sink import CdnSink, put_head
    with CdnSink(port=0, directory="/tmp/streams") as sink:
        srv.set_cdn_port(sink.port)          # the server sim's push addresses
        c = sink.wait_connections(1, path="/live/cam1")[0]
        assert c["head"] == put_head(srv.push_address(1))
        sink.wait_bytes(188 * 1000, path="/live/cam1")
        sink.stall(); ...; sink.resume()

Standard library only.
"""

import argparse
import json
import os
import re
import select
import socket
import struct
import sys
import threading
import time
from urllib.parse import urlsplit

from qel_simnet import (DEFAULT_CDN_PORT, LOOPBACK, accept_loop, add_shell_options, bind_listener,
                        close_listening, run_simulator, shell_command_status, stamp)

HEAD_END = b"\r\n\r\n"
# A head that has not ended after this many bytes is taken as it is; what
# follows counts as stream.
MAX_HEAD = 64 * 1024
# The first stream bytes of each connection are kept in memory for quick checks.
KEEP_FIRST = 64 * 1024
TS_PACKET = 188
TS_SYNC = 0x47
_RECV_BYTES = 256 * 1024

MODES = ("normal", "down", "refusing", "close-after")


def put_head(url):
    """The head the agent writes before its stream, for `url` (a push address)."""
    return ("PUT %s\r\nHost:127.0.0.1\r\n\r\n" % url).encode("utf-8")


def ts_packets(data):
    """(whole 188-byte packets in `data`, how many of them lack the 0x47 sync byte)."""
    whole = len(data) // TS_PACKET
    return whole, sum(1 for b in data[0:whole * TS_PACKET:TS_PACKET] if b != TS_SYNC)


def _file_name(n, path):
    name = re.sub(r"[^A-Za-z0-9._-]", "_", (path or "").lstrip("/"))
    return "%d-%s.ts" % (n, name) if name else "%d.ts" % n


class _Conn:
    """One sender's connection and what it has delivered."""

    def __init__(self, n, sock, peer):
        self.n = n
        self.sock = sock
        self.peer = peer
        self.accepted = time.time()
        self.buf = bytearray()      # the head while it comes in
        self.head = None
        self.head_complete = None
        self.head_time = None
        self.method = self.target = self.path = self.host = None
        self.first_byte = None
        self.last_byte = None
        self.bytes = 0
        self.first = bytearray()
        self.file = None
        self.out = None
        self.closed = None
        self.closed_by = None
        self.refused = False
        self.shut = False

    def shut_down(self, reset=False):
        self.shut = True
        try:
            if reset:
                self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def info(self):
        return {"conn": self.n, "peer": self.peer, "accepted": self.accepted, "head": self.head,
                "head_complete": self.head_complete, "head_time": self.head_time, "method": self.method,
                "target": self.target, "path": self.path, "host": self.host, "first_byte": self.first_byte,
                "last_byte": self.last_byte, "bytes": self.bytes, "first_bytes": bytes(self.first),
                "file": self.file, "open": self.closed is None, "closed": self.closed,
                "closed_by": self.closed_by, "refused": self.refused}


def _parse_head(head):
    """(method, target, path, Host value) of a PUT head."""
    text = head.decode("utf-8", "replace")
    lines = [ln[:-1] if ln.endswith("\r") else ln for ln in text.split("\n")]
    method, _, target = lines[0].partition(" ")
    target = target.strip() or None
    host = None
    for line in lines[1:]:
        name, sep, value = line.partition(":")
        if sep and name.strip().lower() == "host":
            host = value.strip()
    path = None
    if target:
        parts = urlsplit(target)
        path = (parts.path or "/") + ("?" + parts.query if parts.query else "") if parts.scheme else target
    return method or None, target, path, host


class CdnSink:
    """The ingest point the agent streams to (see module docstring)."""

    def __init__(self, port=0, directory=None, record=None, mode="normal", arg=None, on_event=None,
                 recv_buffer=None):
        """directory: where the stream files go (None: bytes are only counted);
        record: JSON-lines event log; recv_buffer: SO_RCVBUF for each connection
        (small: a stall fills the sender's buffers sooner)."""
        self._port = port
        self._dir = directory
        self._record_path = record
        self._record_file = None
        self._on_event = on_event
        self._recv_buffer = recv_buffer
        self._lock = threading.RLock()
        self._cond = threading.Condition(self._lock)
        self._listener = None
        self._conns = []            # every connection, in accept order
        self._events = []
        self._threads = []
        self._stopping = False
        self._reading = threading.Event()     # clear while stalled
        self._reading.set()
        self._read_rate = None
        self.mode, self.arg = "normal", None
        self._initial_mode = (mode, arg)

    # ---- life cycle -------------------------------------------------------

    def start(self):
        if self._dir:
            os.makedirs(self._dir, exist_ok=True)
        if self._record_path:
            self._record_file = open(self._record_path, "w", encoding="utf-8")
        self._open()
        if self._initial_mode != ("normal", None):
            self.set_mode(*self._initial_mode)
        return self

    def stop(self):
        with self._lock:
            self._stopping = True
            self._close_listener()
            for c in self._conns:
                c.shut_down()
        self._reading.set()
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

    @property
    def directory(self):
        return self._dir

    # ---- behaviours -------------------------------------------------------

    def set_mode(self, mode, arg=None):
        """normal       read and save every connection's stream
        down         no listener: connects are refused; open connections are
                     closed (arg "reset": with RST)
        refusing     accept each connection and close it at once (open ones too)
        close-after  close each connection once it has delivered `arg` stream
                     bytes (exactly that many are kept)"""
        if mode == "up":
            mode = "normal"
        if mode not in MODES:
            raise ValueError("unknown mode %r" % (mode,))
        if mode == "close-after":
            arg = int(arg)
            if arg < 0:
                raise ValueError("close-after wants a byte count >= 0")
        elif mode != "down":
            arg = None
        with self._lock:
            self.mode, self.arg = mode, arg
            if mode == "down":
                self._close_listener()
                self._drop(reset=(arg == "reset"))
            else:
                if self._listener is None:
                    self._open()
                if mode == "refusing":
                    self._drop()
                self._cond.notify_all()
            self._event({"event": "mode", "mode": mode, "arg": arg})

    def normal(self):
        self.set_mode("normal")

    def up(self):
        self.set_mode("normal")

    def down(self, reset=False):
        self.set_mode("down", "reset" if reset else None)

    def refusing(self):
        self.set_mode("refusing")

    def close_after(self, count):
        self.set_mode("close-after", count)

    def stall(self):
        """Stop reading every connection (new ones too) but keep them open: the
        sender's buffers fill up and its writes block. The behaviour is kept."""
        self._reading.clear()
        self._event({"event": "mode", "mode": "stall", "arg": None})

    def resume(self):
        """Read again after stall()."""
        self._reading.set()
        self._event({"event": "mode", "mode": "resume", "arg": None})

    def stalled(self):
        return not self._reading.is_set()

    def throttle(self, kib_per_s):
        """Read at most `kib_per_s` KiB a second from each connection (0 or
        None: as fast as it comes), like a slow uplink."""
        with self._lock:
            self._read_rate = int(kib_per_s * 1024) if kib_per_s else None
        self._event({"event": "mode", "mode": "throttle", "arg": kib_per_s or 0})

    def drop(self, reset=False):
        """Close the open connections, keep the behaviour."""
        with self._lock:
            self._drop(reset)

    # ---- what arrived -----------------------------------------------------

    def connections(self, path=None):
        """A snapshot of every connection (to `path`), in accept order."""
        with self._lock:
            return [c.info() for c in self._conns if path is None or c.path == path]

    def connection(self, n):
        with self._lock:
            return self._conns[n - 1].info()

    def wait_connections(self, count=1, path=None, timeout=10):
        """Wait until `count` connections (whose head named `path`) came; returns them."""
        return self._wait(lambda: self._matching(path), count, timeout,
                          "%d connection(s)%s" % (count, "" if path is None else " to " + path))

    def wait_bytes(self, count, path=None, conn=None, timeout=10):
        """Wait until one connection (number `conn`, or to `path`, or any) has
        delivered `count` stream bytes; returns its snapshot."""
        def ready():
            return [c for c in self._matching(path, conn) if c.bytes >= count]
        return self._wait(ready, 1, timeout, "%d stream bytes on %s" % (
            count, "connection %d" % conn if conn else path or "any connection"))[0]

    def wait_closed(self, conn, timeout=10):
        return self._wait(lambda: [c for c in self._matching(None, conn) if c.closed is not None], 1,
                          timeout, "connection %d closed" % conn)[0]

    def bytes_received(self, conn):
        with self._lock:
            return self._conns[conn - 1].bytes

    def last_data_time(self, conn):
        """When stream bytes last arrived on connection `conn` (None: never)."""
        with self._lock:
            return self._conns[conn - 1].last_byte

    def total_bytes(self, path=None):
        """Stream bytes over all connections (to `path`): a stream goes on
        across reconnections."""
        with self._lock:
            return sum(c.bytes for c in self._conns if path is None or c.path == path)

    def stream_files(self, path=None):
        """The stream files of the connections (to `path`), in accept order."""
        with self._lock:
            return [c.file for c in self._conns if c.file and (path is None or c.path == path)]

    def read_stream(self, conn):
        """What connection `conn` delivered after its head, from its file."""
        with self._lock:
            c = self._conns[conn - 1]
            name = c.file
            if c.out is not None:
                c.out.flush()
        if name is None:
            raise AssertionError("cdn sink: connection %d has no stream file (no directory?)" % conn)
        with open(name, "rb") as f:
            return f.read()

    def events(self):
        with self._lock:
            return list(self._events)

    # ---- text commands ----------------------------------------------------

    def command(self, line):
        """Apply one control command; returns "ok ..." or "error: ..."."""
        words = line.strip().split(None, 1)
        if not words:
            return "error: empty command"
        cmd, rest = words[0].lower(), (words[1].strip() if len(words) > 1 else "")
        try:
            if cmd in MODES or cmd == "up":
                if cmd == "close-after" and not rest:
                    raise ValueError("close-after wants a byte count")
                self.set_mode(cmd, rest or None)
            elif cmd == "stall":
                self.stall()
            elif cmd == "resume":
                self.resume()
            elif cmd == "throttle":
                self.throttle(0 if rest in ("", "off") else float(rest))
            elif cmd == "drop":
                self.drop(reset=(rest == "reset"))
            elif cmd == "connections":
                return "ok %d" % len(self.connections())
            elif cmd != "status":
                return "error: unknown command %r" % cmd
            return "ok " + self.status()
        except ValueError as e:
            return "error: %s" % e

    def status(self):
        with self._lock:
            mode = self.mode + ("" if self.arg is None else " %s" % self.arg)
            open_conns = sum(1 for c in self._conns if c.closed is None)
            return "cdn:%d %s%s%s conns=%d | connections=%d bytes=%d" % (
                self._port, mode, " stalled" if self.stalled() else "",
                " throttle=%gKiB/s" % (self._read_rate / 1024.0) if self._read_rate else "",
                open_conns, len(self._conns), sum(c.bytes for c in self._conns))

    # ---- internals --------------------------------------------------------

    def _matching(self, path=None, conn=None):
        return [c for c in self._conns if (path is None or c.path == path) and (conn is None or c.n == conn)]

    def _wait(self, find, count, timeout, what):
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                found = find()
                if len(found) >= count:
                    return [c.info() for c in found]
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError("cdn sink: no %s after %.1fs (%s)" % (what, timeout, self.status()))
                self._cond.wait(min(left, 0.5))

    def _event(self, ev):
        ev.setdefault("time", time.time())
        with self._cond:
            self._events.append(ev)
            if self._record_file:
                line = dict(ev)
                if isinstance(line.get("head"), bytes):
                    line["head"] = line["head"].decode("utf-8", "backslashreplace")
                self._record_file.write(json.dumps(line, ensure_ascii=False) + "\n")
                self._record_file.flush()
            self._cond.notify_all()
        if self._on_event:
            try:
                self._on_event(ev)
            except Exception as e:  # printing must never stop the sink
                sys.stderr.write("qel_cdn_sink: printer failed: %s\n" % e)

    def _open(self):
        s = bind_listener(self._port, 64)
        if self._recv_buffer:
            # accepted connections take the listener's buffer size (and the
            # window it allows) from the first packet on
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, self._recv_buffer)
        self._port = s.getsockname()[1]
        self._listener = s
        t = threading.Thread(target=self._accept_loop, args=(s,), daemon=True, name="cdn-accept")
        self._threads.append(t)
        t.start()

    def _close_listener(self):
        s, self._listener = self._listener, None
        if s is not None:
            close_listening(s)

    def _drop(self, reset=False):
        for c in self._conns:
            if c.closed is None:
                c.shut_down(reset)

    def _accept_loop(self, listener):
        accept_loop(self._lock, lambda: not self._stopping and self._listener is listener, listener,
                    self._accept)

    def _accept(self, sock, peer):
        """Under the lock: a new connection; returns what starts it."""
        c = _Conn(len(self._conns) + 1, sock, "%s:%d" % peer)
        self._conns.append(c)
        if self.mode == "refusing":
            sock.close()
            c.closed, c.closed_by, c.refused = c.accepted, "sink", True
            self._event({"event": "refused", "conn": c.n, "peer": c.peer})
            return None
        t = threading.Thread(target=self._serve, args=(c,), daemon=True, name="cdn-conn-%d" % c.n)
        self._threads.append(t)

        def start():
            self._event({"event": "connect", "conn": c.n, "peer": c.peer})
            t.start()
        return start

    def _serve(self, c):
        closed_by = "peer"
        next_read = time.monotonic()
        try:
            while not self._stopping and not c.shut:
                if not self._reading.wait(0.1):
                    continue                   # stalled: leave the bytes in the kernel's buffers
                try:
                    ready, _, _ = select.select([c.sock], [], [], 0.1)
                except (OSError, ValueError):
                    break
                if not ready or not self._reading.is_set():
                    continue
                with self._lock:
                    rate, limit = self._read_rate, self.arg if self.mode == "close-after" else None
                want = _RECV_BYTES if not rate else max(1024, min(_RECV_BYTES, rate // 20))
                try:
                    data = c.sock.recv(want)
                except OSError:
                    break
                if not data:
                    break
                if not self._take(c, data, limit):
                    closed_by = "sink"
                    break
                if rate:
                    next_read = max(next_read, time.monotonic() - 0.1) + len(data) / float(rate)
                    while not self._stopping and time.monotonic() < next_read:
                        time.sleep(min(0.05, next_read - time.monotonic()))
        finally:
            if c.shut:
                closed_by = "sink"
            try:
                c.sock.close()
            except OSError:
                pass
            with self._lock:
                if c.out is not None:
                    c.out.close()
                    c.out = None
                c.closed, c.closed_by = time.time(), closed_by
            self._event({"event": "close", "conn": c.n, "peer": c.peer, "path": c.path, "by": closed_by,
                         "bytes": c.bytes, "head_bytes": len(c.head or c.buf)})

    def _take(self, c, data, limit):
        """Count and save one read; False once the connection must close."""
        now = time.time()
        if c.head is None:
            c.buf += data
            end = c.buf.find(HEAD_END)
            if end < 0 and len(c.buf) <= MAX_HEAD:
                return True
            cut = end + len(HEAD_END) if end >= 0 else MAX_HEAD
            head, data = bytes(c.buf[:cut]), bytes(c.buf[cut:])
            c.buf = bytearray()
            method, target, path, host = _parse_head(head)
            with self._lock:
                c.head, c.head_complete, c.head_time = head, end >= 0, now
                c.method, c.target, c.path, c.host = method, target, path, host
                if self._dir:
                    c.file = os.path.join(self._dir, _file_name(c.n, path))
                    c.out = open(c.file, "wb")
            self._event({"event": "head", "conn": c.n, "peer": c.peer, "head": head, "path": path,
                         "complete": end >= 0})
        if limit is not None:
            data = data[:max(0, limit - c.bytes)]
        if data:
            with self._cond:
                if c.out is not None:
                    c.out.write(data)
                if len(c.first) < KEEP_FIRST:
                    c.first += data[:KEEP_FIRST - len(c.first)]
                if c.first_byte is None:
                    c.first_byte = now
                c.last_byte = now
                c.bytes += len(data)
                self._cond.notify_all()
        return limit is None or c.bytes < limit


# ---- command line ---------------------------------------------------------

def _format_event(ev):
    at = stamp(ev["time"])
    kind = ev["event"]
    if kind == "mode":
        return "%s mode %s%s" % (at, ev["mode"], "" if ev["arg"] is None else " %s" % ev["arg"])
    if kind == "head":
        return "%s #%d head %s%s" % (at, ev["conn"], json.dumps(ev["head"].decode("utf-8", "replace")),
                                     "" if ev["complete"] else " (never ended)")
    if kind == "close":
        return "%s #%d close by %s after %d stream bytes (%s)" % (at, ev["conn"], ev["by"], ev["bytes"],
                                                                   ev["path"])
    return "%s #%d %s %s" % (at, ev["conn"], kind, ev["peer"])


def main(argv=None):
    ap = argparse.ArgumentParser(description="Stream sink for the qel_net agent's live video "
                                 "(binds 127.0.0.1 only).")
    ap.add_argument("--port", type=int, default=DEFAULT_CDN_PORT, help="listening port (0: any free)")
    ap.add_argument("--dir", help="write each connection's stream to DIR/<n>-<path>.ts")
    ap.add_argument("--record", help="write connection events here (JSON lines)")
    ap.add_argument("--mode", default="normal", help='initial behaviour, e.g. "close-after 100000"')
    ap.add_argument("--stall", action="store_true", help="start without reading")
    ap.add_argument("--recv-buffer", type=int, metavar="BYTES", help="receive buffer of each connection")
    ap.add_argument("--quiet", action="store_true", help="do not print connection events")
    add_shell_options(ap, "sink")
    a = ap.parse_args(argv)
    status = shell_command_status(ap, a, MODES)
    if status is not None:
        return status

    printer = None if a.quiet else (lambda ev: print(_format_event(ev), flush=True))
    sink = CdnSink(a.port, directory=a.dir, record=a.record, on_event=printer, recv_buffer=a.recv_buffer)
    if a.stall:
        sink.stall()
    return run_simulator(
        "qel_cdn_sink", sink, a.mode, a.control_port, a.stdin, a.duration,
        lambda control: "qel_cdn_sink: listening on %s:%d%s" % (
            LOOPBACK, sink.port, "" if control is None else " control %s:%d" % (LOOPBACK, control)),
        on_end=lambda: print("qel_cdn_sink: %s" % sink.status(), flush=True))


if __name__ == "__main__":
    sys.exit(main())
