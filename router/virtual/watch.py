"""Being told when files change: Linux's inotify."""
import ctypes
import os

IN_MODIFY, IN_MOVED_TO, IN_CREATE = 0x2, 0x80, 0x100
FLAGS = os.O_NONBLOCK | os.O_CLOEXEC


class Watch:
    """Readable when a file was made, written or renamed in one of the folders."""

    def __init__(self):
        """OSError where this user has no more of these."""
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.file = self.call(self.libc.inotify_init1, FLAGS)

    def call(self, function, *arguments):
        result = function(*arguments)
        if result < 0:
            raise OSError(ctypes.get_errno(), function.__name__)
        return result

    def add(self, folder):
        self.call(self.libc.inotify_add_watch, self.file, os.fsencode(folder), IN_MODIFY | IN_MOVED_TO | IN_CREATE)

    def fileno(self):
        return self.file

    def drain(self):
        try:
            while os.read(self.file, 1 << 16):
                pass
        except BlockingIOError:
            pass
