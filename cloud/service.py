"""What the vendor's cloud does with one device: sends it jobs, and answers its reports.

Everything that the device publishes is recorded with its time of arrival. How a job's reports are
answered is a rule per job, ACCEPT unless another was given:

    ACCEPT          rc 200 at once
    REFUSE          rc 500
    IGNORE          no answer
    TWICE           rc 200, two times
    Late(seconds)   rc 200 after a while
    any function    called with (service, report); it answers by service.answer(...) or not
"""
import json
import threading
import time
from dataclasses import dataclass, field

from cloud.broker_link import BrokerLink
from router.virtual.waiting import wait_for

RC_ACCEPTED = 200
RC_REFUSED = 500


@dataclass
class Message:
    """Something that the device published. payload is the parsed JSON, or the text as it came."""
    at: float
    topic: str
    payload: object


@dataclass
class Report(Message):
    """A job's status report."""
    job: str = ""
    status: str = ""
    session: int = 0
    msg: str = field(default=None)


def ACCEPT(service, report):
    service.answer(report)


def REFUSE(service, report):
    service.answer(report, RC_REFUSED)


def IGNORE(service, report):
    pass


def TWICE(service, report):
    service.answer(report)
    service.answer(report)


class Late:
    def __init__(self, seconds):
        self.seconds = seconds

    def __call__(self, service, report):
        timer = threading.Timer(self.seconds, service.answer, (report,))
        timer.daemon = True
        timer.start()


class Service:
    def __init__(self, socket_path, client_id="cloud", on_message=None):
        self.messages = []
        self.changed = threading.Condition()
        self.rules = {}
        self.default_rule = ACCEPT
        self.on_message = on_message
        self.link = BrokerLink(socket_path, client_id)
        self.link.on_connect = self.subscribe
        self.link.on_message = self.receive

    def __enter__(self):
        self.link.open()
        return self

    def __exit__(self, *_):
        self.link.close()

    def subscribe(self, client, *_):
        client.subscribe("v1/device/#")

    # --- what the device said

    def receive(self, _client, _userdata, packet):
        message = parse(packet.topic, packet.payload)
        if message is None:
            return
        with self.changed:
            self.messages.append(message)
            self.changed.notify_all()
        if self.on_message:
            self.on_message(message)
        if isinstance(message, Report):
            self.rules.get(message.job, self.default_rule)(self, message)

    def wait(self, found, seconds, what):
        """What found(self) returns, as soon as that is true."""
        begun = len(self.messages)
        return wait_for(self.changed, lambda: found(self), seconds, what, lambda: (
            f"meanwhile the device published {self.summary(begun) or 'nothing'}, "
            f"before that {self.summary()[:begun][-10:]}"))

    def reports(self, job=None):
        return [m for m in list(self.messages) if isinstance(m, Report) and job in (None, m.job)]

    def statuses(self, job):
        """The job's reported statuses in their order, repeats left out."""
        seen = []
        for report in self.reports(job):
            if (report.status, report.session) not in seen:
                seen.append((report.status, report.session))
        return [status for status, _ in seen]

    def wait_for_status(self, job, status, seconds=30):
        """The job's first report of that status."""
        def found(_):
            return next((r for r in self.reports(job) if r.status == status), None)
        return self.wait(found, seconds, f"job {job} to be reported {status}")

    def summary(self, since=0):
        return [f"{m.job} {m.status}" if isinstance(m, Report) else m.topic for m in self.messages[since:]]

    # --- what the cloud says

    def publish(self, topic, payload):
        text = payload if isinstance(payload, (str, bytes)) else json.dumps(payload)
        self.link.publish(topic, text).wait_for_publish(10)

    def send_job(self, job, rule=None):
        if rule:
            self.rules[job["jobId"]] = rule
        self.publish(f"v1/device/job/{job['jobId']}/apply", job)

    def send_script(self, job_id, script, rule=None, **params):
        self.send_job({"jobId": job_id, "action": "CMD", "value": "SCRIPT",
                       "params": {"script": script, **params}}, rule)

    def answer(self, report, rc=RC_ACCEPTED, session=None):
        self.link.publish(f"v1/device/job/{report.job}/pub_ack", json.dumps(
            {"jobId": report.job, "session": report.session if session is None else session, "rc": rc}))


def parse(topic, payload):
    """The message, or None when it is one that this side itself publishes. What is no JSON, or too deep for the
    parser, or no report where one should be, is a message all the same: nothing ends the receiving thread."""
    now = time.time()
    parts = topic.split("/")
    if parts[:3] == ["v1", "device", "job"] and parts[-1] in ("apply", "pub_ack", "update"):
        return None
    try:
        content = json.loads(payload)
    except (ValueError, RecursionError):
        content = payload.decode(errors="replace")
    if parts[:3] == ["v1", "device", "job"] and parts[-1] == "ack" and is_report(content):
        params = content["params"]
        return Report(now, topic, content, params["jobId"], params["status"], content["session"],
                      params.get("msg"))
    return Message(now, topic, content)


def is_report(content):
    if not isinstance(content, dict) or not isinstance(content.get("params"), dict):
        return False
    return "session" in content and {"jobId", "status"} <= content["params"].keys()


def socket_of(router):
    return router.state / "outside/mqtt.sock"
