"""What stories about configurations share: the progress of an apply, told as it happens."""
import json

RUNNING = "/var/volatile/config/config.running"


def read(stage, path=RUNNING):
    return json.loads(stage.router.live(path).read_text())


def tell_progress(stage, router_seconds, at_text=None, do=None):
    """Says each progress text of the story's next apply, a repeated one once, until it has ended. At the first
    text `at_text` it calls do()."""
    texts = []

    def ended():
        for event in stage.next_events():
            if event["kind"] == "apply-end":
                return True
            if event["kind"] in ("apply-begin", "progress"):
                tell_text(event["text"])
        return False

    def tell_text(text):
        if [text] != texts[-1:]:
            stage.says("agent", f"... {text}")
        if text == at_text and text not in texts:
            do()
        texts.append(text)
    stage.router.wait_until(ended, stage.router.patience(router_seconds), "the end of the apply")


def tell_reach(stage):
    """Whether the two can still talk: tried from the cloud's own address, which lies beyond the gateway. Returns it.
    """
    address = read(stage)["network"]["interfaces"]["wan"]["address"]
    found = stage.router.cloud_run("ping", "-c", "1", "-W", "1", "-I", "198.51.100.1", address).returncode == 0
    stage.says("cloud", f"pings the router at {address}: {'it answers' if found else 'no answer'}")
    return found
