"""A job that is cut by a power loss in mid-script."""
from desk.stories.start import begin

JOB = "demo-cut"


def tell(stage):
    stage.narrator.title(
        "The power fails in mid-script", "What the script had done is unknown, so it is not run a second time: the "
        "job is found", "interrupted at the next start, and reported failed.")
    begin(stage)
    stage.says("cloud", f"sends job {JOB}: echo started; sleep 600; echo done")
    stage.cloud.send_script(JOB, "echo started; sleep 600; echo done")
    stage.cloud.wait_for_status(JOB, "executed", stage.router.patience(60))
    stage.router.wait_until(lambda: stage.router.run(f"cat /tmp/cli_output_{JOB}.txt 2>/dev/null; true"),
                            stage.router.patience(60), "the script to start")
    stage.says("router", "loses its power")
    stage.router.power_cut(off=True)
    stage.says("router", "gets it back")
    stage.boot()
    stage.cloud.wait_for_status(JOB, "failed", stage.router.patience(60))
    stage.wait_for_archived(JOB)
    stage.says("agent", "archives the job")
    stage.show_log("interrupted by reboot")
