"""An answer releases the request in flight and nothing else: a repeated
answer, or one that comes after the request was sent again, never removes a
request of the same kind that has not been sent yet. (About 50 s.)"""

import unittest

from runtime import STATS, RuntimeCase


class AnswerMatching(RuntimeCase):

    def assert_all_delivered(self, bodies, timeout):
        def missing():
            seen = {r["body"] for r in self.srv.requests(path=STATS)}
            return [b for b in bodies if b not in seen]
        try:
            self.wait_until(lambda: not missing(), timeout, "every message delivered")
        except AssertionError:
            self.fail("never delivered: %s" % missing())

    def test_duplicated_answers(self):
        srv, app, ag = self.start_all()
        srv.duplicate(10)
        # the first answer comes after 1 s, so the others queue up behind it
        srv.set_reply({"code": 0}, path=STATS, times=1, delay_ms=1000)
        bodies = ['{"dup":%d}' % i for i in range(8)]
        for body in bodies:
            self.send_and_ack(7, body)
        self.assert_all_delivered(bodies, 15)
        ag.wait_log(r"recv:7\(result:-- success --\)", count=len(bodies), timeout=5)
        self.assert_clean()

    def test_late_answer(self):
        srv, app, ag = self.start_all()
        # answered after 31 s: the request has been sent again by then
        srv.set_reply({"code": 0}, path=STATS, times=1, delay_ms=31000)
        bodies = ['{"late":%d}' % i for i in range(41)]
        for body in bodies:
            self.send_and_ack(7, body)
        # about 2 s of draining after the second send: the late answer falls in it
        self.assert_all_delivered(bodies, 45)
        self.assertGreaterEqual(len(srv.requests(path=STATS)), len(bodies) + 1)   # the first went twice
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
