"""An upgrade whose configuration the new firmware finds wrong."""
import json

from desk.stories.stage import ARCHIVE
from desk.stories.start import begin
from desk.stories.upgrade import say_firmware, tell_end, upgrade

JOB = "demo-back"


def tell(stage):
    stage.narrator.title(
        "An upgrade that goes back",
        "This firmware wants something of every configuration that the job's does not have.",
        "It cannot be verified, so the router boots the former firmware again, with the former configuration.")
    begin(stage)
    say_firmware(stage)
    upgrade(stage, JOB, "1.2.0", "config")
    tell_end(stage, JOB, "failed")
    record = json.loads(stage.router.live(f"{ARCHIVE}/{JOB}").read_text())
    stage.says("router", f"keeps the reason: {record['validation_result'].strip()}")
    stage.show_log("local0.(alert|notice).*(validation failed|FW upgrade config|finalise)")
