"""Firmware upgrades: one that is verified and stays, one that goes back."""
import re

from cloud.file_server import FileServer
from cloud.jobs import changed, firmware_job
from desk.stories.configuration import read, tell_progress
from desk.stories.start import begin
from router.virtual.firmware import build_image

PORT = 8000


def say_firmware(stage):
    """That of the latest boot, as its log tells: it may be about to end."""
    version = re.findall(r"boot: firmware (\S+) starts", stage.router.log())[-1]
    stage.says("router", f"runs firmware {version}, in slot {stage.router.events('up')[-1]['slot']}")


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
        stage.says("cloud", f"sends job {job}: {url}, and the configuration to run with it")
        stage.cloud.send_job(firmware_job(job, url, config))
        tell_boot(stage, "the router to boot the other slot")
        say_firmware(stage)
        tell_progress(stage, 300)
        tell_boot(stage, "the router to boot after the verification")
        say_firmware(stage)


def tell_boot(stage, what):
    """What the tool and the boot loader do, until the router is up again."""
    def booted():
        for event in stage.next_events():
            if event["kind"] == "service" and event["service"] in ("orv-upgradefw", "boot-loader"):
                stage.says("router", f"{event['service']} {event['text']}")
            if event["kind"] == "up":
                return True
        return False
    stage.router.wait_until(booted, stage.router.patience(120), what)


def tell_end(stage, job, status):
    stage.cloud.wait_for_status(job, status, stage.router.patience(60))
    stage.wait_for_archived(job)
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
