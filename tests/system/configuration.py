"""The router's configuration, as a test reads and changes it."""
import json

from cloud.jobs import changed, config_hash, config_job

RUNNING = "/var/volatile/config/config.running"
STORED = "/var/data/orv/config.json"
FAILSAFE = "/var/data/orv/config.failsafe"
CANDIDATE = "/var/volatile/config/config.new"


def read(router, path=RUNNING):
    return json.loads(router.live(path).read_text())


def write(router, document, path=RUNNING):
    router.live(path).write_text(json.dumps(document))


def change(router, path=RUNNING, **values):
    write(router, changed(read(router, path), **values), path)


APPLY_STATUS = "/var/volatile/config/apply.status"
# An apply and its verification, in fast time.
LONG = 60


def job(cfg, job_id="cfg", **params):
    """A configuration job as the cloud sends it, for the firmware that the tests boot."""
    return config_job(job_id, cfg, **{"fwVer": "1.0.0", **params})


def send(router, cloud, job_id="cfg", **values):
    """Sends the running configuration with other values as a job; returns it."""
    cfg = changed(read(router), **values)
    cloud.send_job(job(cfg, job_id))
    return cfg


def place(router, cfg):
    """A candidate, as a component of the router places it before it asks for the apply."""
    write(router, cfg, CANDIDATE)


def request(cloud):
    cloud.publish("v1/device/cmd/config/apply", {"source": "test"})


def progress(router):
    """The progress texts of this apply so far."""
    text = router.text(APPLY_STATUS)
    return [entry["text"] for entry in json.loads(text)["history"]] if text else []


def times(router):
    """When each progress text was first told, in the router's time."""
    entries = json.loads(router.text(APPLY_STATUS))["history"]
    return {entry["text"]: entry["time"] for entry in reversed(entries)}


def wait_for_progress(router, text, seconds=LONG):
    router.wait_until(lambda: text in progress(router), seconds, f"the progress text {text!r}")


def wait_for_end(router, seconds=LONG):
    """Until no apply is in progress any more; for those that have begun."""
    def ended():
        text = router.text(APPLY_STATUS)
        return text and not json.loads(text)["in_progress"]
    router.wait_until(ended, seconds, "the end of the apply")


def reaches_cloud(router):
    return "yes" in router.run("ping -c 1 -W 1 cloud.example >/dev/null && echo yes", check=False)


def in_force(router):
    """The configuration that runs, when it is also the persistent one, fits its hash, and nothing is left of
    the apply; else what is wrong."""
    running, stored = read(router), read(router, STORED)
    if running != stored:
        return "running and persistent configuration differ"
    for path in (RUNNING, STORED, FAILSAFE):
        if router.live(path).exists() and router.text(hash_path(path)).strip() != config_hash(read(router, path)):
            return f"{path} does not fit its hash"
    left = router.run("ls -d /var/data/orv/config.new /var/data/orv/ACTIVE_JOB /var/data/orv/FAILSAFE_TIMER "
                      "/var/volatile/config/config.new* /var/volatile/orv/CONFIG_JOB_EXECUTING "
                      "/var/volatile/orv/FW_JOBID /run/CONFIG_MODIFIED 2>/dev/null", check=False)
    return f"left: {left}" if left else running


def hash_path(path):
    return {STORED: "/var/data/orv/config.hash"}.get(path, f"{path}.hash")
