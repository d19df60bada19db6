"""From an application message to the server and back, for every item."""

import json
import re
import time
import unittest

from qeltest import read_failhistory
from runtime import HOST, RuntimeCase

# type, body, path of the request it becomes, method
SIMPLE_ITEMS = [
    (1, "device_id=%s&operater=op&utc=1&description=上料" % HOST, "/vmu/device/operate/log", "POST"),
    (2, '{"exposure":12,"名称":"相机"}', "/vmu/device/sysparam/upload", "POST"),
    (7, '{"total":3,"ng":1}', "/vmu/device/monitor/statistics/upload", "POST"),
    (8, '{"roi":[1,2,3,4]}', "/vmu/area/param/upload", "POST"),
    (10, '{"stop":1}', "/vmu/device/stop/statistics/upload", "POST"),
    (12, '{"title":"clean"}', "/vmu/reminder/add", "POST"),
    (13, '{"id":1}', "/vmu/reminder/delete", "POST"),
    (15, "ngorok=1", "/vmu/device/ngorok", "POST"),
    (16, "tel=123", "/service/vcode/alarm/send", "POST"),
    (18, '{"result":"OK"}', "/vmu/device/detect_result", "POST"),
    (20, '{"cancel":1}', "/vmu/device/detect_terminate", "POST"),
]


class MessageRoad(RuntimeCase):

    def test_every_simple_item_reaches_the_server_in_order(self):
        srv, app, ag = self.start_all()
        for msg_type, body, _, _ in SIMPLE_ITEMS:
            app.send(msg_type, body)
        got = srv.wait_request(lambda r: r["session"] not in (3, 4), count=len(SIMPLE_ITEMS), timeout=20)
        for (msg_type, body, path, method), req in zip(SIMPLE_ITEMS, got):
            self.assertEqual(req["session"], msg_type)
            self.assertEqual(req["method"], method)
            self.assertEqual(req["path"], path)
            self.assertEqual(req["body"], body)
            self.assertEqual(int(dict(req["headers"])["Content-Length"]), len(body.encode("utf-8")))
            ag.wait_log(r"recv:%d\(result:-- success --\)" % msg_type)
        for msg_type, _, _, _ in SIMPLE_ITEMS:
            self.assertIn("Inline:%d(get info from application)" % msg_type, ag.log_text())
            self.assertIn("send:%d(info write to socket alread)" % msg_type, ag.log_text())
        # every message acknowledged once, before anything else
        app.wait_notice("back", count=len(SIMPLE_ITEMS))
        self.assertEqual(len(app.notices("back")), len(SIMPLE_ITEMS))
        back = app.notices("back")[0]["raw_bytes"]
        self.assertEqual(back, b"POST /back/ HTTP/1.1\r\nContent-type: application/json\r\n"
                               b"Connection: keep-alive\r\nSessionId: 0\r\nUser-Agent: INFO\r\n"
                               b"Content-Length: 0\r\n\r\n")
        self.assert_clean()

    def test_one_request_in_flight_with_the_pause(self):
        srv, app, ag = self.start_all()
        srv.slow(200)
        for i in range(4):
            app.send(7, '{"n":%d}' % i)
        got = srv.wait_request(path="/vmu/device/monitor/statistics/upload", count=4, timeout=20)
        self.assertEqual([r["body"] for r in got], ['{"n":%d}' % i for i in range(4)])
        # each request goes out only after the previous answer (200 ms) and the 50 ms pause
        gaps = [b["time"] - a["time"] for a, b in zip(got, got[1:])]
        self.assertTrue(all(g >= 0.24 for g in gaps), gaps)
        self.assert_clean()

    def test_delete_template_goes_to_the_file_port_and_closes_it(self):
        srv, app, ag = self.start_all()
        app.send(11, "name=t1.bmp")
        req = srv.wait_request(path="/videowatch/picture/removeTemplate", timeout=10)[0]
        self.assertEqual(req["port_name"], "file")
        self.assertEqual(req["body"], "name=t1.bmp")
        headers = dict(req["headers"])
        self.assertEqual(headers["User-Agent"], "INFO")
        self.assertEqual(headers["Host"], "127.0.0.1:%d" % self.file_port)
        ag.wait_log(r"recv:11\(result:-- success --\)")
        self.wait_until(lambda: srv.open_connections("file") == 0, 5, "file connection closed")
        ag.wait_log(r"socket:\(the socket FILE disconnected\)")
        self.assert_clean()

    def test_query_items_forward_the_answer_to_the_application(self):
        srv, app, ag = self.start_all()
        for msg_type, path in ((14, "/vmu/device/initial"), (17, "/vmu/device/reminder")):
            app.send(msg_type, "q")
            req = srv.wait_request(path=path, timeout=10)[0]
            self.assertEqual(req["method"], "GET")
            self.assertEqual(req["path"], "%s?device_id=%s" % (path, HOST))
            fwd = app.wait_notice(path, timeout=10)[0]
            data = json.loads(fwd["body"])
            self.assertEqual(data["code"], 0)
            self.assertIn("data", data)
            self.assertEqual(fwd["session"], msg_type)
            length = int(dict(fwd["headers"])["Content-Length"])
            self.assertEqual(length, len(fwd["body"].encode("utf-8")))
        self.assert_clean()

    def test_run_state_adds_the_measurements(self):
        srv, app, ag = self.start_all()
        app.send(19, '{"state":"running","产线":2}')
        req = srv.wait_request(path="/vmu/device/runstate", timeout=15)[0]
        body = json.loads(req["body"])
        self.assertEqual(list(body), ["state", "产线", "cpu", "memory", "nearstart"])
        self.assertTrue(-1 <= body["cpu"] <= 10000)
        self.assertTrue(0 <= body["memory"] <= 10000, body)     # procps top is installed
        self.assertGreater(body["nearstart"], 0)
        self.assertIn("\n", req["body"])                          # the formatted printer
        # an invalid body queues nothing
        app.send(19, "{not json")
        app.send(7, '{"after":1}')
        srv.wait_request(path="/vmu/device/monitor/statistics/upload", timeout=10)
        self.assertEqual(len(srv.requests(path="/vmu/device/runstate")), 1)
        self.assert_clean()

    def test_malformed_and_foreign_messages_are_acknowledged_and_dropped(self):
        srv, app, ag = self.start_all()
        junk = ["3:..!p", "3:a:b:..!p", "3:a:..!x:..!y", "21:a:..!p", "-1:a:..!p",
                ":a:..!x", "0:a:..!x", "garbage without separator"]
        for text in junk:
            app.send_raw(text.encode("utf-8"))
        app.send_raw(b"\x00\xff\xfe binary \x00 zeros")
        app.send_raw(bytes(range(256)) * 256)      # a 64 KiB read
        app.send(9, "shm description")
        # Texts that merely mention an image directory read as the image
        # items' work, which the INFO thread does not do: each is dropped as
        # damaged, and what follows is not held up (in this run or the next).
        foreign = ['{"note":"/x/qel_alarmimage/y"}', '{"note":"qel_tempimage"}']
        app.send(2, foreign[0])
        app.send(7, foreign[1])
        app.send(7, '{"last":1}')
        req = srv.wait_request(path="/vmu/device/monitor/statistics/upload", timeout=10)[0]
        self.assertEqual(req["body"], '{"last":1}')
        time.sleep(0.5)
        self.assertEqual([r["session"] for r in srv.requests() if r["session"] not in (3, 4)], [7])
        self.assertGreaterEqual(len(app.notices("back")), len(junk) + 6)
        log = ag.log_text()
        self.assertIn("Inline:0(get info from application)", log)
        self.assertIn("Inline:9(sharedMemory get ready)", log)
        self.assertNotIn("Inline:21", log)
        self.assertEqual(log.count("error:11(damaged info)"), len(foreign))
        self.assertEqual([t for _, t in read_failhistory(self.db)], [])
        self.assert_clean()

    def test_failed_code_still_removes_and_reply_for_another_item_resends(self):
        srv, app, ag = self.start_all()
        srv.set_reply({"code": 1}, path="/vmu/area/param/upload", times=1)
        app.send(8, '{"roi":1}')
        ag.wait_log(r"recv:8\(result:-- fail --\)")
        time.sleep(0.3)
        self.assertEqual(len(srv.requests(path="/vmu/area/param/upload")), 1)
        # an answer naming another item removes nothing: the same request goes again
        srv.set_reply({"code": 0}, path="/vmu/reminder/add", times=1, reply_session=13)
        app.send(12, '{"t":1}')
        got = srv.wait_request(path="/vmu/reminder/add", count=2, timeout=10)
        self.assertEqual(got[0]["body"], got[1]["body"])
        ag.wait_log(r"recv:12\(result:-- success --\)")
        # a string "0" counts as success too; a SessionId outside 1..20 is dropped
        srv.set_reply('{"code":"0"}', path="/vmu/device/detect_result", times=1)
        app.send(18, "{}")
        ag.wait_log(r"recv:18\(result:-- success --\)")
        srv.set_reply({"code": 0}, path="/vmu/device/stop/statistics/upload", times=1, reply_session=9)
        app.send(10, "{}")
        srv.wait_request(path="/vmu/device/stop/statistics/upload", count=2, timeout=40)
        ag.wait_log(r"recv:10\(result:-- success --\)")
        self.assertNotRegex(ag.log_text(), r"recv:9\(")
        self.assert_clean()

    def test_login_identifies_the_machine_by_host_name(self):
        srv, app, ag = self.start_all(db_overrides={"useInlineName": "stored-name"})
        req = srv.requests(path="/vmu/device/login")[0]
        self.assertEqual(req["body"], "device_id=%s" % HOST)
        self.assertEqual(req["session"], 3)
        self.assertRegex(ag.log_text(), r"socket:\(the socket INFO connected\)")
        self.assert_clean()


if __name__ == "__main__":
    unittest.main()
