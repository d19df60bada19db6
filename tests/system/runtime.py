"""Common set-up of the messaging scenarios: a server simulator on free
loopback ports, the application simulator on the fixed port 8890, and the
agent between them with its own database."""

import sqlite3
import time
from contextlib import closing

from qeltest import AgentTestCase

APP_PORT = 8890
HOST = "qel-test-host"
STATS = "/vmu/device/monitor/statistics/upload"
FAILHISTORY_CREATE = "CREATE TABLE info_failhistory(发送时间 BIGINT NOT NULL,内容 TEXT NOT NULL)"


def request_text(path, session, body, port):
    """A request as the agent writes it to the information port (and keeps it
    in the failure history)."""
    return ("POST %s HTTP/1.1\r\nContent-type: application/json\r\nConnection: keep-alive\r\n"
            "SessionId: %d\r\nUser-Agent: INFO\r\nContent-Length: %d\r\nHost: 127.0.0.1:%d\r\n\r\n%s"
            % (path, session, len(body.encode("utf-8")), port, body))


def seed_failhistory(db, texts, ms=1700000000000):
    """Rows left over from an earlier run, as if it had stored them."""
    with closing(sqlite3.connect(db)) as con:
        con.execute(FAILHISTORY_CREATE.replace("CREATE TABLE", "CREATE TABLE IF NOT EXISTS"))
        con.executemany("insert into info_failhistory values (?, ?)", [(ms, t) for t in texts])
        con.commit()


class RuntimeCase(AgentTestCase):

    def start_all(self, server=True, app=True, wait_login=True, server_kw=None, db_overrides=None,
                  before_start=None):
        """`before_start(srv)` runs once the server simulator is up, before the agent starts."""
        self.srv = self.server_sim(**(server_kw or {})) if server else None
        if before_start is not None:
            before_start(self.srv)
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

    def restart(self, db=None):
        """A new run of the agent on the same database (the old one must have ended)."""
        self.ag = self.agent(db=db or self.db)
        self.ag.start()
        self.ag.wait_log(r"config success")
        return self.ag

    def assert_clean(self, agent=None):
        agent = agent or self.ag
        self.assertTrue(agent.is_running(), "agent is not running any more")
        self.assert_quiet(agent)

    def assert_quiet(self, agent):
        """For a run that has ended too (killed or stopped)."""
        agent.assert_no_qt_thread_warnings()
        agent.assert_no_sanitizer_reports()
