"""Loopback socket helpers shared by the two simulators."""

import errno
import socket
import time

LOOPBACK = "127.0.0.1"


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
