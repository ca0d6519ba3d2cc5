"""Every error of the upgrade tool, through a firmware job, by an image, a server or a router with that fault."""
import configuration
import firmware
import pytest
from bed import PATIENCE

from cloud.jobs import firmware_job

NO_IMAGE = "http://cloud.example:8000/firmware/nothing.img"


class Upgrades:
    """One failing upgrade after the other on the same router."""

    def __init__(self, router, cloud, files):
        self.router, self.cloud, self.files = router, cloud, files
        self.cfg = configuration.read(router)
        self.begun = 0

    def of_url(self, url):
        self.begun += 1
        job_id = f"fw{self.begun}"
        self.cloud.send_job(firmware_job(job_id, url, self.cfg))
        report = self.cloud.wait_for_status(job_id, "failed", 2 * PATIENCE)
        self.check_nothing_changed()
        return report.msg

    def of(self, *faults, version="1.1.0"):
        path = self.files.serve_image(firmware.image(version, *faults))
        return self.of_url(firmware.SERVER + path)

    def check_nothing_changed(self):
        assert firmware.running(self.router) == ("1.0.0", "1")
        assert self.router.boots() == 1
        left = self.router.run("ls /var/run/FW_ERR_CODE /var/data/boot/trial /var/data/orv/FIRMWARE_UPDATED "
                               "/mnt/slots/*.* /var/volatile/orv/FW_JOB_EXECUTING 2>/dev/null", check=False)
        assert left == ""
        assert self.router.run("test -e /var/data/boot/slot && cat /var/data/boot/slot", check=False) != "2\n"

    def codes(self):
        return [text.split(": ")[1] for text in self.router.texts() if text.startswith("FW upgrade error code: ")]


def test_images_of_a_version_that_is_none(router, cloud, files):
    upgrades = Upgrades(router, cloud, files)
    assert upgrades.of("empty-root", version="one.1.0") == "invalid firmware version (major)"
    assert upgrades.of("empty-root", version="1..0") == "invalid firmware version (minor)"
    assert upgrades.of("empty-root", version="1.1.0-rc1") == "invalid firmare version (rev)"
    assert upgrades.codes() == ["100", "101", "102"]


def test_images_that_do_not_go_with_this_router(router, cloud, files):
    upgrades = Upgrades(router, cloud, files)
    assert upgrades.of("python3") == "python3 not installed on device"
    assert upgrades.of("migration") == "config migration failed"
    assert upgrades.of("too-new") == "cannot upgrade to firmware version"
    assert upgrades.of("device") == "incompatible firmware for device"
    assert upgrades.of("empty") == "incompatible firmware for device"
    assert upgrades.of("ports") is None
    assert upgrades.codes() == ["103", "104", "105", "110", "110", "118"]
    assert router.texts()[-1 - router.texts()[::-1].index("firmware update failed")] == "firmware update failed"


def test_images_that_somebody_else_signed(router, cloud, files):
    upgrades = Upgrades(router, cloud, files)
    assert upgrades.of("manifest-signature") == "firmware signature mismatch"
    assert upgrades.of("rootfs-signature", "empty-root") == "firmware signature mismatch"
    assert upgrades.of("kernel-signature") == "kernel signature mismatch"
    assert upgrades.of("install-signature") == "install script signature mismatch"
    assert upgrades.of("apps-signature") == "app platform signature mismatch"
    assert upgrades.of("python3-signature") == "python3 package signature mismatch"
    assert upgrades.codes() == ["111", "111", "112", "113", "114", "115"]


def test_images_that_do_not_install(router, cloud, files):
    upgrades = Upgrades(router, cloud, files)
    assert upgrades.of("archive") == "firmware install failed"
    assert upgrades.of("install") == "firmware install failed"
    assert upgrades.codes() == ["117", "117"]


def test_servers_that_do_not_deliver(router, cloud, files):
    upgrades = Upgrades(router, cloud, files)
    assert upgrades.of_url(firmware.SERVER + "/firmware/") == "no firmware specified in download URL"
    assert upgrades.of_url("") == "no firmware specified in download URL"
    assert upgrades.of_url(NO_IMAGE) == "firmware download failed"
    assert upgrades.of_url("no-slash.img") == "firmware download failed"
    for fault in (500, "cut"):
        files.fault = fault
        assert upgrades.of("kernel-signature") == "firmware download failed"
    files.fault, files.token = None, "another token"
    assert upgrades.of("kernel-signature") == "firmware download failed"
    files.token, files.fault = None, "corrupt"
    assert upgrades.of("kernel-signature") == "firmware image checksum mismatch"
    assert upgrades.codes() == ["107", "107", "108", "108", "108", "108", "108", "109"]


def test_a_server_that_is_not_there(router, cloud):
    upgrades = Upgrades(router, cloud, None)
    assert upgrades.of_url("http://192.0.2.200:8000/firmware/router.img") == "firmware download failed"


def test_routers_whose_boot_files_are_broken(router, cloud, files):
    upgrades = Upgrades(router, cloud, files)
    router.run("echo broken > /var/data/boot/slot")
    assert upgrades.of("kernel-signature") == "detected invalid uBoot environment"
    router.run("rm /var/data/boot/slot")
    # The loader's line, as the router sees it.
    with open(router.state / "etc/cmdline", "w") as line:
        line.write("console=ttyS0 ro quiet\n")
    assert upgrades.of("kernel-signature") == "cannot determine rootfs partition"
    assert upgrades.codes() == ["106", "116"]


def test_a_tool_that_leaves_no_code(router, cloud, files):
    router.fault("orv-upgradefw", "fail 9")
    upgrades = Upgrades(router, cloud, files)
    assert upgrades.of("kernel-signature") is None
    assert upgrades.codes() == []


@pytest.mark.router(device_type=3)
def test_a_device_that_takes_no_upgrades(router, cloud):
    cloud.send_job({"jobId": "fw", "action": "FW", "value": NO_IMAGE, "params": {}})
    cloud.wait_for_status("fw", "failed")
    assert "Unsupported device type" in router.texts()
    assert router.journal("orv-upgradefw") == []


def test_versions_are_compared_by_their_numbers(router):
    def is_older_or_same(one, other):
        return "yes" in router.run(f". /usr/lib/router/firmware.sh; is_older_or_same {one} {other} && echo yes",
                                   check=False)
    assert is_older_or_same("1.9.0", "1.10.0") and not is_older_or_same("1.10.0", "1.9.0")
    assert is_older_or_same("1.2.3", "1.2.3")
    assert is_older_or_same("9.0.0", "10.0.0") and not is_older_or_same("1.0.10", "1.0.9")
