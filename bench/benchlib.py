"""What every benchmark here prints, computes and sets up the same way."""

import os
import shutil
import signal
import sys
import tempfile
import time


def say(text=""):
    print(text, flush=True)


def table(headers, rows):
    """Right-aligned columns, a rule under the headers."""
    widths = [max(len(str(x)) for x in col) for col in zip(headers, *rows)]
    line = lambda cells: "  ".join(str(c).rjust(w) for c, w in zip(cells, widths))
    say(line(headers))
    say(line(["-" * w for w in widths]))
    for r in rows:
        say(line(r))


def percentile(values, p):
    """The nearest-rank p-th percentile; NaN for no values."""
    values = sorted(values)
    if not values:
        return float("nan")
    return values[min(len(values) - 1, max(0, int(round(p / 100.0 * (len(values) - 1)))))]


def proc_stat(pid):
    """(CPU seconds so far, RssAnon KiB, VmRSS KiB) of `pid`."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    cpu = (int(fields[11]) + int(fields[12])) / float(os.sysconf("SC_CLK_TCK"))
    mem = {}
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            key, _, value = line.partition(":")
            mem[key] = value.split()[0] if value.split() else "0"
    return cpu, int(mem.get("RssAnon", 0)), int(mem.get("VmRSS", 0))


def proc_kib(pid, name="status", field="VmRSS"):
    """A KiB figure of `pid` from /proc/<pid>/<name> ("Pss" in
    "smaps_rollup", say); 0 once the process is gone."""
    try:
        with open("/proc/%d/%s" % (pid, name)) as f:
            for line in f:
                if line.startswith(field + ":"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


def in_namespaces(script, body):
    """Runs `body()` in private namespaces (re-executing `script` with its
    arguments inside them first), after a line naming the run. ^C, and the
    SIGTERM unshare --kill-child sends, end it cleanly. Returns the exit
    code: 0, or 130 when interrupted."""
    import nsrun       # tests/system, on the path of every bench
    if os.environ.get("QEL_IN_NS") != "1":
        nsrun.reexec(os.path.abspath(script), sys.argv[1:])
    signal.signal(signal.SIGTERM, terminated)
    name = os.path.splitext(os.path.basename(script))[0]
    say("%s: %s" % (name, " ".join([os.path.basename(sys.argv[0])] + sys.argv[1:])))
    try:
        nsrun.enter()
        body()
    except KeyboardInterrupt as e:
        say("interrupted (%s)" % (e or "SIGINT"))
        return 130
    finally:
        nsrun.leave()
    return 0


def terminated(signum, frame):
    """SIGTERM handler: unshare --kill-child sends SIGTERM when it is itself
    killed; clean up as for ^C."""
    raise KeyboardInterrupt("signal %d" % signum)


class AgentRuns:
    """A work directory, the simulators a bench started (stopped by close, in
    reverse order) and one agent run at a time, logging into <work>/log/."""

    def __init__(self, binary, keep, name):
        self.binary, self.keep = binary, keep
        self.work = tempfile.mkdtemp(prefix="qel_bench_%s_" % name)
        self.agent = None
        self.started = None         # when the current run was started (time.time())
        self._closers = []

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def on_close(self, closer):
        self._closers.append(closer)

    def make_db(self, info_port, file_port):
        from qeltest import make_db
        return make_db(self.path("sysconf.db"), self.work, info_port, file_port,
                       overrides={"logpath": self.path("log/")})

    def start_agent(self):
        """Ends the current run, if any, and starts a new one on self.db."""
        from qeltest import Agent
        if self.agent is not None:
            self.agent.stop()
        self.agent = Agent(self.work, db=self.db, log_dir="log")
        self.agent.binary = self.binary
        self.started = time.time()
        self.agent.start()
        self.agent.wait_log(r"config success", timeout=30)
        return self.agent

    def close(self):
        if self.agent is not None:
            self.agent.stop()
        for closer in reversed(self._closers):
            closer()
        if self.keep:
            say("work directory kept: %s" % self.work)
        else:
            shutil.rmtree(self.work, ignore_errors=True)
