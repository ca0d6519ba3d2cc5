"""A configuration that cuts the router off from its cloud, and how it comes back."""
import json
import threading

from cloud.jobs import changed, config_job
from router.stories.configuration import history, read, tell_progress, tell_reach
from router.stories.start import begin

JOB = "demo-lock-out"


def watch_for_the_silence(stage):
    """Once the verification has begun, tries the router from the cloud."""
    stage.router.wait_until(lambda: "performing connection test" in history(stage)[1], 60, "the verification")
    tell_reach(stage)
    timer = json.loads(stage.router.live("/var/data/orv/FAILSAFE_TIMER").read_text())
    stage.says("router", f"has {timer['end_time'] - timer['start_time']} seconds to reach its cloud with it")


def tell(stage):
    stage.narrator.title(
        "Locked out, and back", "The cloud sends a configuration with a wrong gateway. It is valid, and applied; and",
        "the router is gone. Nobody has to drive there: the agent cannot verify it, and takes it back in time.")
    begin(stage)
    before = read(stage)
    tell_reach(stage)
    config = changed(before, network__interfaces__wan__gateway="192.0.2.99", system__failsafe__timer=1)
    stage.says("cloud", f"sends job {JOB}: gateway 192.0.2.99 instead of "
                        f"{before['network']['interfaces']['wan']['gateway']}, one minute to verify")
    stage.cloud.send_job(config_job(JOB, config))
    watcher = threading.Thread(target=watch_for_the_silence, args=(stage,))
    watcher.start()
    tell_progress(stage)
    watcher.join()
    stage.says("router", "runs the configuration from before" if read(stage) == before else "runs another one!")
    tell_reach(stage)
    stage.cloud.wait_for_status(JOB, "failed", 60)
    stage.log_until(f"archiving job file {JOB}", 60)
    stage.says("agent", "archives the job")
    stage.show_log("local0.*(start failsafe|failsafe config: |failsafe restart|after failsafe)")
