"""The router's configuration, as a test reads and changes it."""
import copy
import hashlib
import json

RUNNING = "/var/volatile/config/config.running"
STORED = "/var/data/orv/config.json"
FAILSAFE = "/var/data/orv/config.failsafe"
CANDIDATE = "/var/volatile/config/config.new"


def read(router, path=RUNNING):
    return json.loads(router.live(path).read_text())


def write(router, document, path=RUNNING):
    router.live(path).write_text(json.dumps(document))


def changed(document, **values):
    """A copy with other values: a double underscore in a name stands for a dot. None takes a member out."""
    result = copy.deepcopy(document)
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


def change(router, path=RUNNING, **values):
    write(router, changed(read(router, path), **values), path)


def hash_of(document):
    """The hash that the cloud computes: of the sorted text without blanks."""
    text = json.dumps(document, sort_keys=True, separators=(",", ":"), ensure_ascii=False)
    return hashlib.sha256(text.encode()).hexdigest()
