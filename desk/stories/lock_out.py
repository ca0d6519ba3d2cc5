"""A configuration that cuts the router off from its cloud, and how it comes back."""
from cloud.jobs import changed, config_job
from desk.stories.configuration import read, tell_progress, tell_reach
from desk.stories.stage import StoryError
from desk.stories.start import begin

JOB = "demo-lock-out"


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
    tell_progress(stage, 300, "performing connection test", lambda: tell_reach(stage))
    if read(stage) != before:
        raise StoryError("the router runs another configuration than the one before")
    stage.says("router", "runs the configuration from before")
    if not tell_reach(stage):
        raise StoryError("the router cannot be reached again")
    stage.cloud.wait_for_status(JOB, "failed", stage.router.patience(60))
    stage.wait_for_archived(JOB)
    stage.says("agent", "archives the job")
    stage.show_log("local0.*(start failsafe|failsafe config: |failsafe restart|after failsafe)")
