"""The simulator fault modes that would let a scenario pass while doing
nothing: each is checked against a plain Python client (no agent)."""

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
        """Duplicated and split answers: no scenario could tell if these silently
        arrived as one plain answer."""
        srv = self.server_sim()
        for mode in ("duplicate 300", "split 300"):
            with self.subTest(mode), socket.create_connection(("127.0.0.1", srv.info_port)) as c:
                srv.command("info " + mode)
                c.sendall(request("/vmu/device/runstate", 19))
                got = reads(c)
                self.assertEqual(len(got), 2, got)
                self.assertGreaterEqual(got[1][0] - got[0][0], 0.25)
                self.assertEqual(got[0][1] == got[1][1], mode.startswith("duplicate"))


if __name__ == "__main__":
    unittest.main()
