"""What stories about configurations share: the progress of an apply, told as it happens."""
import json
import time

RUNNING = "/var/volatile/config/config.running"
APPLY_STATUS = "/var/volatile/config/apply.status"


def read(stage, path=RUNNING):
    return json.loads(stage.router.live(path).read_text())


def history(stage):
    """In progress or not, and the progress texts so far; between two boots there are none."""
    try:
        status = json.loads(stage.router.live(APPLY_STATUS).read_text())
    except (OSError, ValueError, KeyError):
        return False, []
    return status["in_progress"], [entry["text"] for entry in status["history"]]


def tell_progress(stage, seconds=300):
    """Says each progress text of an apply, a repeated one once, until the apply has ended."""
    before, told = "", 0
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        in_progress, texts = history(stage)
        if len(texts) < told:
            before, told = "", 0    # a boot, or another apply
        for text in texts[told:]:
            if text != before:
                stage.says("agent", f"... {text}")
            before = text
        told = len(texts)
        if told and not in_progress:
            return
        time.sleep(0.02)
    raise TimeoutError(f"waited {seconds} s for the end of the apply")


def tell_reach(stage):
    """Whether the two can still talk: tried from the cloud's own address, which lies beyond the gateway."""
    address = read(stage)["network"]["interfaces"]["wan"]["address"]
    found = stage.router.cloud_run("ping", "-c", "1", "-W", "1", "-I", "198.51.100.1", address).returncode == 0
    stage.says("cloud", f"pings the router at {address}: {'it answers' if found else 'no answer'}")
