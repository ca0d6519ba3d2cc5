"""Firmware upgrades: one that is verified and stays, one that goes back."""
from cloud.file_server import FileServer
from cloud.jobs import changed, firmware_job
from router.stories.configuration import read, tell_progress
from router.stories.start import begin
from router.virtual.firmware import build_image

PORT = 8000
ARCHIVE = "/var/data/orv/vantrel_iot/jobs/archive"


def say_firmware(stage):
    slot = stage.router.status()["slot"]
    stage.says("router", f"runs firmware {stage.router.run('sysdb get SYS_FW_VER').strip()}, in slot {slot}")


def serve_image(stage, server, version, *faults):
    """Returns its URL."""
    image = build_image(stage.folder / f"router-{version}.img", stage.build, version, faults)
    stage.says("server", f"has {image.name}, {image.stat().st_size / 1e6:.0f} MB, signed by the maker")
    return f"http://cloud.example:{PORT}{server.serve_image(image)}"


def upgrade(stage, job, version, *faults):
    token = stage.router.run("cat /var/data/factory/token").strip()
    with FileServer(stage.router, PORT, token) as server:
        url = serve_image(stage, server, version, *faults)
        config = changed(read(stage), system__general__location=f"Depot, since {version}")
        boots = stage.router.status()["boots"]
        stage.says("cloud", f"sends job {job}: {url}, and the configuration to run with it")
        stage.cloud.send_job(firmware_job(job, url, config))
        tell_installation(stage, boots)
        say_firmware(stage)
        tell_progress(stage)
        stage.router.wait_for_boot(60, beyond=boots + 1)
        say_firmware(stage)


def tell_installation(stage, boots, seconds=60):
    """What the tool and the boot loader do, until the router is up again."""
    told = len(stage.router.journal("orv-upgradefw", "boot-loader"))

    def booted():
        nonlocal told
        entries = stage.router.journal("orv-upgradefw", "boot-loader")
        for entry in entries[told:]:
            stage.says("router", str(entry))
        told = len(entries)
        status = stage.router.status()
        return status["state"] == "up" and status["boots"] > boots
    stage.router.wait_until(booted, seconds, "the router to boot the other slot")


def tell_end(stage, job, status):
    stage.cloud.wait_for_status(job, status, 60)
    stage.log_until(f"archiving job file {job}", 60)
    stage.says("agent", "archives the job")
    stage.says("router", f"is at {read(stage)['system']['general']['location'] or 'no place that was told'!r}")


def tell(stage):
    stage.narrator.title(
        "An upgrade", "The agent has the image fetched, checked, and installed into the slot that does not run. The",
        "router boots it; the new firmware applies the configuration that came with the job, verifies it, and stays.")
    begin(stage)
    say_firmware(stage)
    upgrade(stage, "demo-upgrade", "1.1.0")
    tell_end(stage, "demo-upgrade", "success")
    stage.show_log("local0.alert.*(FW upgrade|firmware update)")
