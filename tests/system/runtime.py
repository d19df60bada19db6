"""Common set-up of the messaging scenarios: a server simulator on free
loopback ports, the application simulator on the fixed port 8890, and the
agent between them with its own database."""

import time

from qeltest import AgentTestCase

APP_PORT = 8890
HOST = "qel-test-host"


class RuntimeCase(AgentTestCase):

    def start_all(self, server=True, app=True, wait_login=True, server_kw=None, db_overrides=None):
        self.srv = self.server_sim(**(server_kw or {})) if server else None
        info = self.srv.info_port if server else self.reserve_port()
        files = self.srv.file_port if server else self.reserve_port()
        self.info_port, self.file_port = info, files
        self.app = self.app_sim(port=APP_PORT) if app else None
        self.db = self.make_db(info_port=info, file_port=files, overrides=db_overrides)
        self.ag = self.agent(db=self.db)
        self.ag.start()
        self.ag.wait_log(r"config success")
        if app:
            self.app.wait_connected(10)
        if server and wait_login:
            self.srv.wait_request(path="/vmu/device/login", timeout=10)
            self.ag.wait_log(r"recv:3\(result:-- success --\)")
        return self.srv, self.app, self.ag

    def reserve_port(self):
        from qeltest import free_port
        return free_port()

    def send_and_ack(self, msg_type, body, within=1.0):
        """Send one message; return the time its "/back/" notice took."""
        mark = self.app.mark()
        t0 = time.monotonic()
        self.app.send(msg_type, body)
        self.app.wait_notice("back", since=mark, timeout=within + 5)
        return time.monotonic() - t0

    def assert_clean(self):
        self.assertTrue(self.ag.is_running(), "agent is not running any more")
        self.ag.assert_no_qt_thread_warnings()
        self.ag.assert_no_sanitizer_reports()
