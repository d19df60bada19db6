"""An unanswered login is sent again after every 30 s wait until the server
answers it; only then does the heartbeat start. (About 85 s.)"""

import unittest

from runtime import HOST, RuntimeCase

LOGIN = "/vmu/device/login"
HEART_PATH = "/vmu/device/heartbeat"


class LoginRetry(RuntimeCase):

    def test_login_unanswered_twice_then_answered(self):
        srv, app, ag = self.start_all(
            wait_login=False, before_start=lambda s: s.set_reply(None, path=LOGIN, times=2))
        logins = srv.wait_request(path=LOGIN, count=3, timeout=75)
        start = logins[0]["time"]
        for r, due in zip(logins, (0, 30, 60)):       # each after a full 30 s wait
            self.assertAlmostEqual(r["time"] - start, due, delta=2)
        self.assertTrue(all(r["body"] == "device_id=%s" % HOST for r in logins))
        ag.wait_log(r"recv:3\(result:-- success --\)")
        early = [r for r in srv.requests(path=HEART_PATH) if r["time"] < logins[2]["time"]]
        self.assertEqual(early, [], "heartbeat before the login was answered")

        beat = srv.wait_request(path=HEART_PATH, timeout=25)[0]
        self.assertEqual(beat["body"], "device_id=%s" % HOST)
        app.wait_notice("heart", timeout=5)
        ag.wait_log(r"heart:\(recv heartpage back r:1\)")
        self.assertEqual(len(srv.requests(path=LOGIN)), 3)
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
