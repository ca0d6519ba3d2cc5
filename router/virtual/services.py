"""The journal of the router's services, and the faults that they can be given."""
import shutil
import time
from dataclasses import dataclass

FAULTY = ("cmd_netgen", "cmd_firewall", "cmd_wifi", "cmd_ipsec", "qtel-mgr", "vtr-netwd", "vtr-app-mgr",
            "vtr-iot", "vtr-system", "orv-upgradefw", "qtel-dfota", "file-transfer", "config-push")


@dataclass(frozen=True)
class Entry:
    """at: this machine's time, in seconds."""
    at: int
    service: str
    text: str

    def __str__(self):
        return f"{self.service} {self.text}"


def read_journal(outside):
    """All entries since the router was made, oldest first."""
    try:
        lines = (outside / "journal").read_text(errors="replace").splitlines()
    except FileNotFoundError:
        return []
    return [Entry(int(at), service, text) for at, service, text in (line.split("\t", 2) for line in lines)]


def note(outside, service, text):
    with open(outside / "journal", "a") as journal:
        journal.write(f"{int(time.time())}\t{service}\t{text}\n")


def set_faults(outside, service, faults):
    """Each a text: "slow SECONDS", "fail STATUS", or another that the service knows; none clears them."""
    if service not in FAULTY:
        raise ValueError(f"no service {service}: {', '.join(FAULTY)}")
    folder = outside / "faults"
    folder.mkdir(exist_ok=True)
    new = folder / ".new"
    new.write_text("".join(f"{fault}\n" for fault in faults))
    new.rename(folder / service)


def forget(outside):
    (outside / "journal").unlink(missing_ok=True)
    shutil.rmtree(outside / "faults", ignore_errors=True)
