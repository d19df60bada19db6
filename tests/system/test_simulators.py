"""The simulator fault modes that would let a scenario pass while doing
nothing: each is checked against a plain Python client (no agent)."""

import os
import socket
import time
import unittest

from qeltest import AgentTestCase


def request(path, session):
    return ("POST %s HTTP/1.1\r\nSessionId: %d\r\nContent-Length: 0\r\n\r\n" % (path, session)).encode()


def reads(sock, quiet=0.4):
    """(seconds since the call, bytes) of each recv until `quiet` s pass without data."""
    start, out = time.monotonic(), []
    sock.settimeout(quiet)
    try:
        while True:
            data = sock.recv(65536)
            if not data:
                break
            out.append((time.monotonic() - start, data))
    except socket.timeout:
        pass
    return out


class SimulatorFaults(AgentTestCase):

    def test_answer_shapes_arrive_as_the_scenarios_assume(self):
        srv = self.server_sim()
        for mode, want_reads in (("duplicate 300", 2), ("split 300", 2), ("garbage", 1), ("silent", 0)):
            with self.subTest(mode), socket.create_connection(("127.0.0.1", srv.info_port)) as c:
                srv.command("info " + mode)
                c.sendall(request("/vmu/device/runstate", 19))
                got = reads(c)
                self.assertEqual(len(got), want_reads, got)
                if mode.startswith("split"):
                    self.assertTrue(got[0][1].endswith(b"\r\n\r\n") and b"\r\n\r\n" not in got[1][1], got)
                if want_reads == 2:
                    self.assertGreaterEqual(got[1][0] - got[0][0], 0.25)
        srv.hold(port="info")
        with socket.create_connection(("127.0.0.1", srv.info_port)) as c:
            c.sendall(request("/vmu/device/runstate", 19) + request("/vmu/reminder/add", 12))
            srv.wait_request(count=6)
            self.assertEqual(reads(c, 0.3), [])
            self.assertEqual(srv.flush(port="info"), 2)
            self.assertEqual(len(reads(c)), 1)      # both answers in one write

    def test_a_stalled_peer_stops_reading(self):
        srv, sink = self.server_sim(), self.cdn_sink()
        srv.throttle(0.001, port="file")
        sink.command("stall")
        for port in (srv.file_port, sink.port):
            with self.subTest(port=port), socket.create_connection(("127.0.0.1", port)) as c:
                c.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 64 * 1024)
                c.sendall(b"PUT /live/cam1 HTTP/1.1\r\nSessionId: 5\r\nContent-Length: 99999999\r\n\r\n")
                c.setblocking(False)
                sent, deadline = 0, time.monotonic() + 5
                try:
                    while sent < (64 << 20) and time.monotonic() < deadline:
                        sent += c.send(os.urandom(65536))
                except BlockingIOError:
                    pass
                self.assertLess(sent, 64 << 20, "the peer kept reading")


if __name__ == "__main__":
    unittest.main()
