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


def is_number(text):
    return text.replace(".", "", 1).isdigit()


# What each word of a fault takes, and which services know it; None: all.
FAULTS = {
    "slow": (is_number, "SECONDS", None),
    "held": (bool, "REASON", None),
    "fail": (str.isdigit, "STATUS", None),
    "connect": (lambda value: value == "never" or is_number(value), "SECONDS|never", ("qtel-mgr",)),
    "wait-in-install": (is_number, "SECONDS", ("orv-upgradefw",)),
    "wait-before-switch": (is_number, "SECONDS", ("orv-upgradefw",)),
    "wait-before-mark": (is_number, "SECONDS", ("orv-upgradefw",)),
    "wait-before-reboot": (is_number, "SECONDS", ("orv-upgradefw",)),
}


def check_faults(service, faults):
    """Raises ValueError for a service that there is not, and for a fault that it does not know."""
    if service not in FAULTY:
        raise ValueError(f"no service {service}: {', '.join(FAULTY)}")
    known = {word: rule for word, rule in FAULTS.items() if rule[2] is None or service in rule[2]}
    for fault in faults:
        word, _, value = fault.partition(" ")
        if word not in known or not known[word][0](value):
            forms = ", ".join(f"{word} {takes}" for word, (_, takes, _) in known.items())
            raise ValueError(f"{service} knows no fault {fault!r}: {forms}")


def set_faults(outside, service, faults):
    """Each a text, a word of FAULTS and its value: "slow 20"; none clears them."""
    check_faults(service, faults)
    folder = outside / "faults"
    folder.mkdir(exist_ok=True)
    new = folder / ".new"
    new.write_text("".join(f"{fault}\n" for fault in faults))
    new.rename(folder / service)


def forget(outside):
    (outside / "journal").unlink(missing_ok=True)
    shutil.rmtree(outside / "faults", ignore_errors=True)
