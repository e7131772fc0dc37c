"""Progress of a reader or writer that opens its file itself (meshio's): a thread looks at
the file from outside while the call works, so the call runs as it would without it.

- Reading: how far this process's descriptor of the file has got (Linux's
  /proc/self/fdinfo), over the file's size: exact for the readers that read a file from
  start to end, as meshio's text and binary readers do. Readers that jump about in the
  file (HDF5's, for .xdmf and .med) leave the position alone: nothing is reported then.
- Writing: the file's size so far over the size the arrays take in binary (an estimate:
  text is larger, so the fraction stops short of 1 until the call returns).

The thread wakes every `period` seconds, holds no lock the call needs and never raises;
where /proc is missing it reports nothing."""

import os
import threading


class FileWatch:
    """with FileWatch(path, progress, expected_size=None): a call that reads (no
    expected_size) or writes (expected_size in bytes) the file at `path`."""

    def __init__(self, path, progress, expected_size=None, period=0.25):
        self.path, self.progress, self.expected, self.period = str(path), progress, expected_size, period
        self.real_path = os.path.realpath(self.path)
        self.size = None
        self.descriptors = []
        self.reported = 0.0
        self.done = threading.Event()

    def fraction(self):
        """The fraction done now, or None when it cannot be told."""
        try:
            if self.expected is not None:
                return os.stat(self.path).st_size / self.expected if self.expected > 0 else None
            if self.size is None:
                self.size = os.stat(self.path).st_size
            position = self._position()
            return position / self.size if position is not None and self.size > 0 else None
        except (OSError, ValueError):
            return None

    def _position(self):
        for descriptor in self.descriptors or self._find_descriptors():
            try:
                with open(f"/proc/self/fdinfo/{descriptor}") as info:
                    for line in info:
                        if line.startswith("pos:"):
                            return int(line.split()[1])
            except OSError:
                self.descriptors = []  # closed: look again next time
        return None

    def _find_descriptors(self):
        found = []
        try:
            for name in os.listdir("/proc/self/fd"):
                try:
                    if os.readlink(f"/proc/self/fd/{name}") == self.real_path:
                        found.append(name)
                except OSError:
                    continue
        except OSError:
            return []
        self.descriptors = found
        return found

    def _watch(self):
        while not self.done.wait(self.period):
            fraction = self.fraction()
            if fraction is not None and self.reported < fraction:
                self.reported = min(fraction, 0.99)  # 1 is for the caller, once the call returned
                try:
                    self.progress(self.reported)
                except Exception:  # a display that failed must not fail the reading
                    return

    def __enter__(self):
        if self.progress is not None:
            self.thread = threading.Thread(target=self._watch, daemon=True)
            self.thread.start()
        return self

    def __exit__(self, *exception):
        self.done.set()
        if self.progress is not None:
            self.thread.join()
        return False
