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


def apply_events(router):
    """Those of the latest apply that has begun since the test last booted the router."""
    events = [event for event in router.events()[router.acted:]
              if event["kind"] in ("apply-begin", "progress", "apply-end")]
    begun = [i for i, event in enumerate(events) if event["kind"] == "apply-begin"]
    return events[begun[-1]:] if begun else events


def progress(router):
    """The progress texts of this apply so far."""
    return [event["text"] for event in apply_events(router) if event["kind"] != "apply-end"]


def times(router):
    """When each progress text was first told, in the router's time."""
    told = [event for event in apply_events(router) if event["kind"] != "apply-end"]
    return {event["text"]: event["time"] for event in reversed(told)}


def wait_for_progress(router, text, seconds=LONG):
    router.wait_until(lambda: text in progress(router), seconds, f"the progress text {text!r}")


def wait_for_end(router, seconds=LONG):
    """Until no apply is in progress any more; for those that have begun."""
    def ended():
        return [event["kind"] for event in apply_events(router)][-1:] == ["apply-end"]
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
