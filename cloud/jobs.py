"""Configuration and firmware jobs, as the cloud makes them."""
import copy
import hashlib
import json


def changed(config, **values):
    """A copy of a configuration with other values: a double underscore in a name stands for a dot, None takes
    a member out."""
    result = copy.deepcopy(config)
    for name, value in values.items():
        *folders, last = name.split("__")
        place = result
        for folder in folders:
            place = place[folder]
        if value is None:
            del place[last]
        else:
            place[last] = value
    return result


def config_hash(config):
    """Of the sorted text without blanks, sensitive fields in plain."""
    text = json.dumps(config, sort_keys=True, separators=(",", ":"), ensure_ascii=False)
    return hashlib.sha256(text.encode()).hexdigest()


def config_job(job_id, config, **params):
    return {"jobId": job_id, "action": "CFG", "value": config,
            "params": {"configHash": config_hash(config), "configLevel": 0, **params}}


def firmware_job(job_id, url, config, **params):
    """config: what is to run, and to be verified, under the new firmware."""
    return {"jobId": job_id, "action": "FW", "value": url,
            "params": {"cfg": config, "hashAtFwVer": config_hash(config), **params}}
