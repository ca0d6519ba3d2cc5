"""A /var/data that forgets at a power cut what was not flushed to it: ext4 on a loop device.

Killing a router's processes loses nothing of what they wrote: this machine's page cache survives. Here
the file system itself is shut down first, its journal not flushed, and mounted anew. Only root can.
"""
import ctypes
import fcntl
import os
import struct
import subprocess

SHUTDOWN = 0x8004587D       # FS_IOC_SHUTDOWN
WITHOUT_FLUSH = 2
# Without these ext4 flushes a replaced file by itself, and hides a flush that was forgotten.
OPTIONS = "loop,noauto_da_alloc,commit=60"
CLONE_NEWNS = 0x20000


def enter_own_mounts():
    """What this process mounts from here on is its own: a router that another process starts meanwhile
    would take a copy of the mount with it, and keep the file system in use."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNS) != 0:
        raise OSError(ctypes.get_errno(), "unshare")
    run("mount", "--make-rprivate", "/")


def run(*command):
    subprocess.run([*map(str, command)], check=True, capture_output=True)


class RealDisk:
    def __init__(self, router):
        self.router = router
        self.image = router.state / "disk.img"
        self.folder = router.state / "data"
        enter_own_mounts()
        router.state.make()
        run("truncate", "-s", "32M", self.image)
        run("mkfs.ext4", "-q", "-F", self.image)
        self.mount()

    def mount(self):
        run("mount", "-o", OPTIONS, self.image, self.folder)

    def unmount(self):
        """Until it is gone for the dying processes of the router too: mounted before that, it would be
        the one that was shut down."""
        self.router.wait_until(self.unmounted, 20, "the folder to be unused")
        self.router.wait_until(lambda: not self.loop_devices(), 20, "the file system to be let go")

    def unmounted(self):
        return subprocess.run(["umount", self.folder], capture_output=True, check=False).returncode == 0

    def loop_devices(self):
        return subprocess.run(["losetup", "-j", self.image], check=True, capture_output=True).stdout

    def cut(self):
        """The power goes, and comes back."""
        folder = os.open(self.folder, os.O_RDONLY)
        fcntl.ioctl(folder, SHUTDOWN, struct.pack("I", WITHOUT_FLUSH))
        os.close(folder)
        self.router.down()
        self.unmount()
        self.mount()
        self.router.boot()
