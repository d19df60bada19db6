"""What every benchmark here prints and computes the same way."""


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


def terminated(signum, frame):
    """SIGTERM handler: unshare --kill-child sends SIGTERM when it is itself
    killed; clean up as for ^C."""
    raise KeyboardInterrupt("signal %d" % signum)
