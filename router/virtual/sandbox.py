"""What bubblewrap is asked for: the namespaces and mounts of one boot."""
import json
import os
import subprocess


def command_line(state, image, data, fds):
    live = state / "live"
    return [
        "bwrap", "--unshare-user", "--uid", "0", "--gid", "0", "--cap-add", "ALL",
        "--unshare-pid", "--unshare-net", "--unshare-uts", "--unshare-ipc",
        "--hostname", "router", "--die-with-parent", "--as-pid-1",
        "--info-fd", str(fds["info"]), "--block-fd", str(fds["block"]),
        "--ro-bind", str(image), "/",
        "--proc", "/proc", "--ro-bind", str(state / "etc/cmdline"), "/proc/cmdline",
        "--dev", "/dev", "--symlink", "/mnt/outside/log.sock", "/dev/log",
        "--bind", str(live / "run"), "/run",
        "--bind", str(live / "tmp"), "/tmp",
        "--bind", str(live / "volatile"), "/var/volatile",
        "--bind", str(data), "/var/data",
        "--bind", str(state / "outside"), "/mnt/outside",
        "--bind", str(state / "slots"), "/mnt/slots",
        "--ro-bind", str(state / "etc/ca-certificates.crt"), "/etc/ssl/certs/ca-certificates.crt",
        "--clearenv", "--setenv", "PATH", "/usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin",
        "--chdir", "/", "/sbin/init",
    ]


class Sandbox:
    """One boot. ended() is the file descriptor that becomes readable when it is over."""

    def __init__(self, state, image, data, console):
        info_read, info_write = os.pipe()
        block_read, self.start_signal = os.pipe()
        fds = {"info": info_write, "block": block_read}
        self.process = subprocess.Popen(command_line(state, image, data, fds), stdin=subprocess.DEVNULL,
                                        stdout=console, stderr=console, pass_fds=fds.values())
        os.close(info_write)
        os.close(block_read)
        with os.fdopen(info_read) as info:
            text = info.read()
        if not text:
            raise RuntimeError("bubblewrap could not make the router's namespaces: "
                               "see log/console in the state folder")
        self.init_pid = json.loads(text)["child-pid"]
        self.ended_fd = os.pidfd_open(self.process.pid)

    def start(self):
        os.write(self.start_signal, b"1")
        os.close(self.start_signal)

    def ended(self):
        return self.ended_fd

    def wait(self):
        """Why it ended: reboot(2) in a process namespace ends its init by a signal that tells."""
        status = self.process.wait()
        os.close(self.ended_fd)
        return {129: "reboot", 130: "halt", 137: "power cut"}.get(status, f"init crashed, status {status}")
