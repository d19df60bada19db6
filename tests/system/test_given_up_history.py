"""A request the server never answers is given up after two sends, but its
row stays in the failure history, through the periodic rewrite, until a
later run delivers it. (About 95 s: two 30 s waits, then the next rewrite.)"""

import re
import time
import unittest

from qeltest import read_failhistory
from runtime import STATS, RuntimeCase

SILENT_BODY = '{"unanswered":1}'
REMIND_ADD = "/vmu/reminder/add"


class GivenUpHistory(RuntimeCase):

    def rows_with(self, fragment):
        return [text for _, text in read_failhistory(self.db) if fragment in text]

    def test_given_up_request_stays_until_delivered(self):
        srv, app, ag = self.start_all()
        srv.set_reply(None, path=STATS)         # this endpoint never answers
        app.send(7, SILENT_BODY)
        self.wait_until(lambda: self.rows_with(SILENT_BODY), 2, "queued request stored at once")
        ag.wait_log(r"error:12\(tims out range to send by 7\)", timeout=75)
        self.assertEqual(len(srv.requests(path=STATS)), 2)
        ticks = len(re.findall(r"savefail:\(update info_failhistory ok\)", ag.log_text()))

        # the queue moves on; what is delivered leaves the history
        app.send(12, '{"next":1}')
        srv.wait_request(path=REMIND_ADD, timeout=10)
        ag.wait_log(r"recv:12\(result:-- success --\)")
        self.wait_until(lambda: not self.rows_with('{"next":1}'), 2, "answered request removed")

        ag.wait_log(r"savefail:\(update info_failhistory ok\)", count=ticks + 1, timeout=35)
        time.sleep(0.5)
        self.assertEqual(len(self.rows_with(SILENT_BODY)), 1, read_failhistory(self.db))
        self.assertEqual(len(srv.requests(path=STATS)), 2)      # not sent again in this run
        self.assert_clean()
        ag.kill9()

        srv.clear_replies()
        ag = self.restart()
        got = srv.wait_request(path=STATS, count=3, timeout=15)
        self.assertEqual(got[2]["body"], SILENT_BODY)
        ag.wait_log(r"recv:7\(result:-- success --\)")
        self.wait_until(lambda: read_failhistory(self.db) == [], 5, "failure history emptied")
        time.sleep(1)
        self.assertEqual(len(srv.requests(path=STATS)), 3)      # delivered once
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
