"""Which firmware slot boots.

A slot that an upgrade has installed is on trial until its agent has stayed alive for a while: it gets a
few boots, and when these are used up, or nothing bootable is in it, the other slot boots again. The
files are those of router/image/usr/lib/router/slots.sh.
"""
from router.virtual.state import replace_file


def trial_seconds(speed):
    """After how long a boot on trial that has not proved itself is ended, as a watchdog would do it. A busy
    machine is not quicker in fast time."""
    return max(10, 60 / speed)


def slot_of(data):
    """The firmware slot to boot: "1", or "2" when the boot files say so."""
    return "2" if read(data, "slot") == "2" else "1"


def read(data, name):
    try:
        return (data / "boot" / name).read_text().strip()
    except FileNotFoundError:
        return ""


def write(data, name, text):
    (data / "boot").mkdir(exist_ok=True)
    replace_file(data / "boot" / name, text + "\n")


def is_bootable(root):
    return (root / "usr/sbin/init").is_symlink() or (root / "usr/sbin/init").exists()


class BootLoader:
    def __init__(self, data, slots):
        self.data = data
        self.slots = slots

    def choose(self):
        """Takes one try of a slot on trial; returns the slot, and what to tell of it, if anything."""
        slot = slot_of(self.data)
        if not self.on_trial():
            return slot, None
        tries = int(read(self.data, "trial").split()[1])
        if tries > 0 and is_bootable(self.slots / slot):
            write(self.data, "trial", f"{slot} {tries - 1}")
            return slot, f"tries slot {slot}, {tries - 1} more"
        other = "1" if slot == "2" else "2"
        write(self.data, "slot", other)
        self.end_trial()
        return other, f"slot {slot} does not come up: back to slot {other}"

    def on_trial(self):
        """Whether the slot to boot has still to prove itself; a trial of the other one is over."""
        words = read(self.data, "trial").split()
        if len(words) == 2 and words[0] == slot_of(self.data) and words[1].isdigit():
            return True
        self.end_trial()
        return False

    def end_trial(self):
        (self.data / "boot/trial").unlink(missing_ok=True)
