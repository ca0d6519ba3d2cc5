"""Reading on in a file that others append lines to."""
import os


class Tail:
    """Whole lines only; nothing is missed when the file is replaced by another of its name.

    The file that was opened stays open, so that what was still written to it after it had lost its name is
    read before the next one, and so that no other file can have its inode meanwhile.
    """

    def __init__(self, path):
        self.path = path
        self.file = None
        self.rest = b""
        self.replaced = 0       # how many times another file had the name

    def lines(self):
        """The lines, as bytes without their ends, that are new since the last call."""
        found = []
        while self.file or self.open():
            gone = not self.has_name()
            found += self.read_on()
            if not gone:
                break
            self.close()
            self.replaced += 1
        return found

    def open(self):
        try:
            self.file = open(self.path, "rb", buffering=0)      # pylint: disable=consider-using-with
        except FileNotFoundError:
            return False
        return True

    def has_name(self):
        """False when another file has it; a name that leads nowhere is still this one's."""
        try:
            return os.path.samestat(os.stat(self.path), os.fstat(self.file.fileno()))
        except FileNotFoundError:
            return True

    def read_on(self):
        *whole, self.rest = (self.rest + self.file.read()).split(b"\n")
        return whole

    def close(self):
        if self.file:
            self.file.close()
        self.file, self.rest = None, b""
