"""Replies are framed by their Content-Length: a reply cut over several reads
is put together, several replies in one read are each routed, and a reply of
any size reaches its item whole."""

import json
import re
import unittest

from runtime import HOST, STATS, RuntimeCase

HEART_PATH = "/vmu/device/heartbeat"
PRODUCT_INFO = "/vmu/device/initial"
REMINDER = "/vmu/device/reminder"


def big_answer(tag):
    """About 5 KB of one-line JSON, multi-byte characters included (a length
    counted in characters instead of bytes falls short)."""
    return json.dumps({"code": 0, "data": {"tag": tag, "remark": "检测备注" * 250, "pad": "x" * 2000}},
                      ensure_ascii=False, separators=(",", ":"))


class ReplyFraming(RuntimeCase):

    def test_replies_are_taken_by_their_length(self):
        srv, app, ag = self.start_all()
        # (name, behaviour, item, answer or None for the scripted one)
        cases = [("split reply", "split 100", 7, None),
                 ("split product information", "split 100", 14, None),
                 ("large product information", "normal", 14, big_answer("initial")),
                 ("large reminders", "normal", 17, big_answer("reminder")),
                 ("large split product information", "split 100", 14, big_answer("split"))]
        paths = {7: STATS, 14: PRODUCT_INFO, 17: REMINDER}
        for name, behaviour, item, answer in cases:
            with self.subTest(name):
                srv.command("info " + behaviour)
                if answer is not None:
                    srv.set_reply(answer, path=paths[item], times=1)
                successes = len(re.findall(r"recv:%d\(result:-- success --\)" % item, ag.log_text()))
                mark = app.mark()
                app.send(item, "q" if item != 7 else '{"case":"%s"}' % name)
                ag.wait_log(r"recv:%d\(result:-- success --\)" % item, count=successes + 1, timeout=5)
                if item != 7:
                    sent = srv.requests(path=paths[item])[-1]["reply"]
                    if answer is not None:
                        self.assertEqual(sent, answer)
                    fwd = app.wait_notice(paths[item], since=mark, timeout=5)[0]
                    self.assertEqual(fwd["body"], sent)
                    self.assertEqual(fwd["flags"], [])
                    self.assertEqual(fwd["session"], item)
                    self.assertEqual(app.raw_bytes().count(sent.encode("utf-8")), 1)
                srv.normal()
        # nothing was left half-read: the next request is answered as usual
        app.send(7, '{"after":1}')
        srv.wait_request(path=STATS, predicate=lambda r: r["body"] == '{"after":1}', timeout=5)
        ag.wait_log(r"recv:7\(result:-- success --\)", count=2, timeout=5)
        self.assert_clean()

    def test_two_replies_in_one_read_are_both_routed(self):
        srv, app, ag = self.start_all()
        srv.hold(port="info")
        app.send(7, '{"held":1}')
        srv.wait_request(path=STATS, timeout=5)
        # the timer heartbeat (20 s after start) goes out while the request waits
        beat = srv.wait_request(path=HEART_PATH, timeout=25)[0]
        self.assertEqual(beat["body"], "device_id=%s" % HOST)
        self.assertEqual(srv.flush(port="info"), 2)              # one write, one read
        ag.wait_log(r"recv:7\(result:-- success --\)", timeout=5)
        ag.wait_log(r"heart:\(recv heartpage back r:1\)", timeout=5)
        srv.normal()
        app.send(7, '{"next":1}')
        srv.wait_request(path=STATS, count=2, timeout=5)
        ag.wait_log(r"recv:7\(result:-- success --\)", count=2, timeout=5)
        self.assertEqual(len(srv.requests(path=STATS)), 2)       # nothing went twice
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
