"""Progress of the command line's long steps, on stderr.

    with progress("writing out.vtu") as update:
        io.write("out.vtu", mesh, progress=update)      # update(fraction in [0, 1])

Nothing is shown for a step shorter than `delay` seconds, nor when stderr is not a
terminal (unless a style is asked for). After the delay: a bar with the percentage, the
elapsed time and an estimate of the time left (tqdm), or without tqdm a line rewritten in
place every tenth of the work. A step that reports no fraction (one library call) shows
its elapsed time. A step that ends well leaves one line saying how long it took; one that
fails erases its bar, so that the error stays the only line.
"""

import importlib.util
import sys
import threading
import time


def _tqdm():
    """tqdm, imported when a bar is first drawn (not by every run of a command), or None
    (plain lines instead of a bar)."""
    try:
        import tqdm
    except ImportError:
        return None
    return tqdm


def _has_tqdm():
    return importlib.util.find_spec("tqdm") is not None


_MEASURED = "{desc}: {percentage:3.0f}%|{bar}| {elapsed}<{remaining}"


class progress:
    """A step with an optional fraction done; the instance is the update callable."""

    def __init__(self, label, stream=None, delay=1.0, style=None):
        """style: "bar", "lines" or None (a bar, or lines without tqdm, on a terminal;
        nothing otherwise)."""
        self.label, self.stream, self.delay = label, stream or sys.stderr, delay
        self.terminal = getattr(self.stream, "isatty", lambda: False)()
        if style is None:
            style = None if not self.terminal else "bar"
        self.style = "lines" if style == "bar" and not _has_tqdm() else style
        self.bar_wanted = self.style == "bar"
        self.fraction, self.bar, self.shown, self.last_tenth = None, None, False, 0
        self.lock = threading.Lock()
        self.done = threading.Event()

    def __call__(self, fraction):
        try:
            fraction = min(max(float(fraction), 0.0), 1.0)
        except (TypeError, ValueError):
            return
        with self.lock:
            self.fraction = fraction
            if self.shown:
                self._draw()

    def _estimate(self):
        elapsed = time.monotonic() - self.start
        if self.fraction:
            left = elapsed * (1 / self.fraction - 1)
            return f"{100 * self.fraction:3.0f} %, {elapsed:.0f} s, about {left:.0f} s left"
        return f"{elapsed:.0f} s"

    def _draw(self):
        if self.bar is not None:
            if self.fraction is not None:
                if self.bar.total is None:
                    self.bar.total, self.bar.bar_format = 100, _MEASURED
                self.bar.n = round(100 * self.fraction, 1)
            self.bar.refresh()
        elif self.fraction is not None and int(10 * self.fraction) > self.last_tenth:
            self.last_tenth = int(10 * self.fraction)
            self._line(f"tessel3d: {self.label}: {self._estimate()}")

    def _line(self, text):
        """A line of its own, or on a terminal the line rewritten in place."""
        if self.terminal:
            print(f"\r\033[K{text}", end="", file=self.stream, flush=True)
        else:
            print(text, file=self.stream, flush=True)

    def _watch(self):
        if self.style is None or self.done.wait(self.delay):
            return
        with self.lock:
            self.shown = True
            bars = _tqdm() if self.bar_wanted else None
            if bars is not None:
                self.bar = bars.tqdm(total=100 if self.fraction is not None else None, desc=f"tessel3d: {self.label}",
                                     file=self.stream, leave=True, dynamic_ncols=True,
                                     bar_format=_MEASURED if self.fraction is not None else "{desc}: {elapsed}")
                self.bar.start_t -= time.monotonic() - self.start  # the step began before its bar
            else:
                self._line(f"tessel3d: {self.label} ...")
            self._draw()
        while not self.done.wait(0.5):
            with self.lock:
                if self.bar is not None:
                    self._draw()

    def __enter__(self):
        self.start = time.monotonic()
        self.thread = threading.Thread(target=self._watch, daemon=True)
        self.thread.start()
        return self

    def __exit__(self, kind, *rest):
        self.done.set()
        self.thread.join()
        if self.shown:
            took = time.monotonic() - self.start
            if self.bar is not None:
                self.bar.leave = False  # the line below replaces it
                self.bar.close()
            if kind is None:
                self._line(f"tessel3d: {self.label}: {took:.1f} s")
                if self.terminal:
                    print(file=self.stream, flush=True)
            elif self.terminal and self.bar is None:
                print("\r\033[K", end="", file=self.stream, flush=True)
        return False
