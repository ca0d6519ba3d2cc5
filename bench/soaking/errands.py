"""What the cloud has done in a soak: one function an errand, which sends it and returns what it should come to.

Each job's script says in RUNS that it ran; RUNS lies on this machine's own disk, so that no cut takes it.
"""
from dataclasses import dataclass, field

from cloud.jobs import changed, config_job, firmware_job

RUNS = "/mnt/outside/runs"
PORT = 8000
SERVER = f"http://cloud.example:{PORT}"
VERSIONS = ("1.0.0", "1.1.0")


@dataclass
class Sent:
    """jobs: the status that each should end with. May more than one run of a script be seen, does a reboot belong
    to it, and which configuration is to run afterwards?"""
    jobs: dict
    runs: dict = field(default_factory=dict)
    reboots: bool = False
    config: dict = None


def say(job):
    return f"echo {job} >> {RUNS}\n"


def script(soak, job):
    soak.cloud.send_script(job, say(job) + "ls /var/data")
    return Sent({job: "success"}, {job: 1})


def two_scripts(soak, job):
    first, second = f"{job}-a", f"{job}-b"
    soak.cloud.send_script(first, say(first) + "sleep 2")
    soak.cloud.send_script(second, say(second))
    return Sent({first: "success", second: "success"}, {first: 1, second: 1})


def script_that_fails(soak, job):
    soak.cloud.send_script(job, say(job) + "exit 3")
    return Sent({job: "failed"}, {job: 1})


def script_over_its_limit(soak, job):
    soak.cloud.send_script(job, "# MAX JOB TIME 5\n" + say(job) + "sleep 1000")
    return Sent({job: "failed"}, {job: 1})


def critical_script(soak, job):
    soak.cloud.send_script(job, "# JOB PRIORITY CRITICAL\n" + say(job))
    return Sent({}, {job: 2})       # it is not stored while it runs, so a cut may have it run again


def script_with_upload(soak, job):
    soak.cloud.send_script(job, say(job) + "df -h; ps", postResults=True)
    return Sent({job: "success"}, {job: 1})


def script_with_reboot(soak, job):
    soak.cloud.send_script(job, say(job), reboot=True)
    return Sent({job: "success"}, {job: 1}, reboots=True)


def configuration(soak, job):
    config = changed(soak.config(), system__general__location=f"Depot {job}")
    soak.cloud.send_job(config_job(job, config))
    return Sent({job: "success"}, config=config)


def address(soak, job):
    config = changed(soak.config(), network__interfaces__wan__address=f"192.0.2.{soak.random.randint(5, 90)}")
    soak.cloud.send_job(config_job(job, config))
    return Sent({job: "success"}, config=config)


def lock_out(soak, job):
    before = soak.config()
    config = changed(before, network__interfaces__wan__gateway="192.0.2.99", system__failsafe__timer=1)
    soak.cloud.send_job(config_job(job, config))
    return Sent({job: "failed"}, config=before)


def invalid_configuration(soak, job):
    before = soak.config()
    soak.cloud.send_job(config_job(job, changed(before, network__interfaces__wan__address="nowhere")))
    return Sent({job: "failed"}, config=before)


def upgrade(soak, job):
    """To the firmware that does not run."""
    config = changed(soak.config(), system__general__location=f"Depot {job}")
    version = VERSIONS[1 - VERSIONS.index(soak.version())]
    url = SERVER + soak.files.serve_image(soak.image(version))
    soak.cloud.send_job(firmware_job(job, url, config))
    return Sent({job: "success"}, reboots=True, config=config)


def upgrade_that_goes_back(soak, job):
    before = soak.config()
    version = VERSIONS[1 - VERSIONS.index(soak.version())]
    url = SERVER + soak.files.serve_image(soak.image(version, "config"))
    soak.cloud.send_job(firmware_job(job, url, before))
    return Sent({job: "failed"}, reboots=True, config=before)


def bad_image(soak, job):
    before = soak.config()
    version = VERSIONS[1 - VERSIONS.index(soak.version())]
    url = SERVER + soak.files.serve_image(soak.image(version, "manifest-signature"))
    soak.cloud.send_job(firmware_job(job, url, before))
    return Sent({job: "failed"}, config=before)


def nonsense(soak, job):
    """On every topic, what no handler can use. The clears are left out: each costs a descriptor by design."""
    payload = soak.random.choice(["", "{", "[]", "null", '{"action":"CMD"}', '{"jobId":"x/../y"}', "\0" * 100])
    for topic in ("job/77/apply", "job/77/update", "job/77/pub_ack", "cmd/checkin/ack", "iot/job/update"):
        soak.cloud.publish(f"v1/device/{topic}", payload)
    return Sent({})


# How often, among a hundred or so.
ERRANDS = {script: 30, two_scripts: 10, script_that_fails: 5, script_over_its_limit: 4, critical_script: 4,
           script_with_upload: 15, script_with_reboot: 1, configuration: 8, address: 4, lock_out: 2,
           invalid_configuration: 3, upgrade: 1, upgrade_that_goes_back: 1, bad_image: 2, nonsense: 4}
