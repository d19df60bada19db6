"""Loopback socket and command-line helpers shared by the simulators."""

import argparse
import errno
import os
import select
import signal
import socket
import sys
import threading
import time

LOOPBACK = "127.0.0.1"

# Where the video server sends the agent's stream unless told otherwise:
# the port the stream sink listens on by default.
DEFAULT_CDN_PORT = 8889


def bind_listener(port, backlog):
    """A listening socket on 127.0.0.1:port (0: any free port)."""
    deadline = time.monotonic() + 2.0
    while True:
        s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            s.bind((LOOPBACK, port))
            s.listen(backlog)
            return s
        except OSError as e:
            s.close()
            # a listener closed a moment ago may linger briefly
            if e.errno != errno.EADDRINUSE or port == 0 or time.monotonic() >= deadline:
                raise
            time.sleep(0.05)

def close_listening(s):
    # shutdown() stops a listening socket at once, even while another thread
    # still polls it; close() alone would leave it listening until then.
    try:
        s.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass
    try:
        s.close()
    except OSError:
        pass

def unescape(text):
    return text.encode("utf-8").decode("unicode_escape").encode("latin-1")


def stamp(t):
    """HH:MM:SS.mmm of an epoch time, for the printed event lines."""
    return time.strftime("%H:%M:%S", time.localtime(t)) + ".%03d" % (t % 1 * 1000)


# ---- control commands -------------------------------------------------------
#
# A simulator with a command(line) -> "ok ..."/"error: ..." method can take its
# commands from a control port (one per line, one answer line each), from
# standard input, or from "--ctl PORT COMMAND..." of another run of the program.
# "quit" stops the simulator's process.

def serve_control(sim, port):
    """Answer commands on 127.0.0.1:port (0: any free port) from a thread of
    its own; returns the port in use."""
    srv = bind_listener(port, 8)
    threading.Thread(target=_control_accept, args=(sim, srv), daemon=True, name="control").start()
    return srv.getsockname()[1]


def _control_accept(sim, srv):
    while True:
        try:
            conn, _ = srv.accept()
        except OSError:
            return
        threading.Thread(target=_control_client, args=(sim, conn), daemon=True).start()


def _control_client(sim, conn):
    with conn, conn.makefile("rw", encoding="utf-8", newline="\n") as f:
        for line in f:
            if line.strip() == "quit":
                f.write("ok bye\n")
                f.flush()
                os.kill(os.getpid(), signal.SIGTERM)
                return
            f.write(sim.command(line) + "\n")
            f.flush()


def read_stdin_commands(sim):
    """Apply the commands typed on standard input, from a thread of its own."""
    def loop():
        for line in sys.stdin:
            if line.strip() == "quit":
                os.kill(os.getpid(), signal.SIGTERM)
                return
            if line.strip():
                print(sim.command(line), flush=True)
    threading.Thread(target=loop, daemon=True, name="stdin").start()


def send_control(port, words):
    """Send one command to a running simulator, print its answer; exit status."""
    with socket.create_connection((LOOPBACK, port), timeout=5) as s:
        s.sendall((" ".join(words) + "\n").encode("utf-8"))
        reply = s.makefile("r", encoding="utf-8").readline().strip()
    print(reply)
    return 0 if reply.startswith("ok") else 1


def stop_event():
    """An event that SIGINT or SIGTERM sets: the program's cue to stop."""
    done = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: done.set())
    return done


def run_simulator(name, sim, mode, control_port, use_stdin, duration, banner, on_end=None):
    """The life of a simulator run from the command line: start `sim`, switch
    it to `mode`, take commands on `control_port` (None: none) and on stdin,
    print banner(control port or None), and run for `duration` seconds or
    until SIGINT/SIGTERM; then on_end(), if given, and stop. Exit status."""
    try:
        sim.start()
    except OSError as e:
        print("%s: cannot listen: %s" % (name, e), file=sys.stderr)
        return 1
    if mode != "normal":
        reply = sim.command(mode)
        if not reply.startswith("ok"):
            print("%s: %s" % (name, reply), file=sys.stderr)
            sim.stop()
            return 2
    try:
        control = None if control_port is None else serve_control(sim, control_port)
    except OSError as e:
        print("%s: cannot listen for commands: %s" % (name, e), file=sys.stderr)
        sim.stop()
        return 1
    print(banner(control), flush=True)
    if use_stdin:
        read_stdin_commands(sim)
    stop_event().wait(duration)
    if on_end is not None:
        on_end()
    sim.stop()
    return 0


def accept_loop(lock, listening, listener, accept):
    """Accepts connections on `listener` for as long as listening() holds
    (asked under `lock`). accept(sock, peer) runs under `lock` and returns
    what to do once the lock is released (a callable), or None."""
    while True:
        with lock:
            if not listening():
                return
        try:
            ready, _, _ = select.select([listener], [], [], 0.1)
        except (OSError, ValueError):
            return
        if not ready:
            continue
        with lock:
            if not listening():
                return
            try:
                sock, peer = listener.accept()
            except OSError:
                continue
            after = accept(sock, peer)
        if after is not None:
            after()


def add_shell_options(ap, what):
    """The options of a simulator run from a shell: commands while it runs,
    how long it runs, and --ctl to talk to one that runs already."""
    ap.add_argument("--control-port", type=int, help="accept one-line commands on 127.0.0.1:PORT")
    ap.add_argument("--stdin", action="store_true", help="also read commands from standard input")
    ap.add_argument("--duration", type=float, help="stop after this many seconds")
    ap.add_argument("--ctl", type=int, metavar="PORT",
                    help="send the remaining words as one command to a running %s and exit" % what)
    ap.add_argument("words", nargs="*", help=argparse.SUPPRESS)


def shell_command_status(ap, a, modes):
    """For parsed shell options: the exit status of a --ctl call, or None
    when the simulator is to run (its --mode checked against `modes`)."""
    if a.ctl is not None:
        return send_control(a.ctl, a.words)
    if a.words:
        ap.error("unexpected arguments: %s" % " ".join(a.words))
    mode_word = a.mode.split(None, 1)[0]
    if mode_word not in modes and mode_word != "up":
        ap.error("unknown mode %r (one of %s)" % (mode_word, ", ".join(modes)))
    return None
