"""Live video over minutes: a healthy stream is never torn down, a streaming
server that stops reading is left after a minute without a byte taken."""

import time
import unittest

from videocase import VideoCase


class LongVideoTest(VideoCase):

    def test_a_healthy_stream_stays_and_a_stalled_one_is_replaced(self):
        # A small receive window makes a stall fill the agent's send buffers soon.
        self.start_video(cameras=((0, 320, 240),), sink_kw={"recv_buffer": 8192})
        first = self.sink.wait_connections(1, timeout=15)[0]["conn"]
        time.sleep(70)
        self.assertEqual([c["conn"] for c in self.sink.connections()], [first])
        self.assertTrue(self.sink.connection(first)["open"])
        self.assertGreater(time.time() - self.sink.last_data_time(first), -1)
        self.assertLess(time.time() - self.sink.last_data_time(first), 2, "stream bytes keep arriving")
        self.assertEqual(len(self.queries()), 1)

        stalled_at = time.monotonic()
        self.sink.stall()
        # Nothing moves for a minute once the buffers are full; then a new
        # query and a new connection (which the sink also does not read).
        self.wait_until(lambda: len(self.sink.connections()) > 1, 150, "a new connection after the stall")
        took = time.monotonic() - stalled_at
        self.assertGreater(took, 60)
        self.assertEqual(len(self.queries()), 2)
        self.ag.wait_log(r"took no stream bytes for 60 s")
        # Reading again, the sink finds the old connection closed by the agent.
        self.sink.resume()
        self.sink.wait_closed(first, timeout=10)
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
