"""What the system tests ask of a router."""
import json
import re

from router.virtual.client import Router

ACTIVE = "/var/data/orv/vantrel_iot/jobs/active"
ARCHIVE = "/var/data/orv/vantrel_iot/jobs/archive"
TOPICS = ["v1/device/job/+/apply", "v1/device/job/+/update", "v1/device/job/+/pub_ack",
          "v1/device/cmd/+/apply", "v1/device/cmd/+/ack", "v1/device/iot/job/update",
          "v1/device/cmd/config/abort/apply"]
# A script that runs until a test lets it go on.
HELD = "while [ ! -e /tmp/go ]; do sleep 1; done"
# Bound of every wait that has no reason for another: this machine may be busy.
PATIENCE = 30


class TestRouter(Router):
    __test__ = False
    build = None
    options = {}

    def boot(self):
        self.up(build=self.build, **self.options)

    def console(self):
        text = ""
        for name in ("console", "launcher"):
            path = self.state / "log" / name
            text += path.read_text(errors="replace") if path.exists() else ""
        return text

    # --- the log

    def log_lines(self):
        """All lines of the agent, oldest first, as (priority, text)."""
        return re.findall(r"^\S+ +\S+ \S+ router local0\.(\w+) iot: (.*)$", self.log(), re.MULTILINE)

    def texts(self):
        return [text for _, text in self.log_lines()]

    def count_in_log(self, text):
        return self.log().count(text)

    def wait_for_log(self, text, seconds=PATIENCE, times=1):
        self.wait_until(lambda: self.count_in_log(text) >= times, seconds, f"{text!r} in the log")

    def subscriptions(self):
        """The topics that the agent subscribed, in order, as the broker saw them."""
        return re.findall(r"mosquitto\[\d+\]: \d+: tessard 0 (\S+)$", self.log(), re.MULTILINE)

    # --- the agent

    def agent_pid(self):
        return int(self.run("cat /run/agent"))

    def let_go(self):
        """What is HELD goes on."""
        self.run("touch /tmp/go")

    def end_agent(self):
        """At once; where that reboots the router, the command does not come back either."""
        self.run(f"kill -9 {self.agent_pid()}", check=False)

    def kill_agent(self):
        """Returns when supervision has started the next one."""
        before = self.agent_pid()
        self.end_agent()
        self.wait_until(lambda: self.agent_pid() != before, PATIENCE, "another agent")

    def wait_connected(self, times=1):
        """Until the agent has made that many rounds of subscriptions."""
        self.wait_until(lambda: self.subscriptions().count(TOPICS[-1]) >= times, PATIENCE,
                        "the agent to subscribe")

    def wait_back(self, cloud):
        """Until, in a boot that nobody waited for, agent and cloud hear of each other again."""
        subscribed = re.compile(f"tessard 0 {re.escape(TOPICS[-1])}$", re.MULTILINE)
        self.wait_until(lambda: subscribed.search(self.log_of_this_boot()) and cloud.link.is_connected(),
                        PATIENCE, "the agent and the cloud to be back")

    def text(self, path):
        """What a file in /var/data or in memory holds; empty when it is not there."""
        try:
            return self.live(path).read_text()
        except (OSError, KeyError):
            return ""

    # --- configuration and jobs

    def set_cloud(self, **settings):
        """Changes settings of the cloud in the running and in the persistent configuration."""
        for path in ("/var/data/orv/config.json", "/var/volatile/config/config.running"):
            config = json.loads(self.live(path).read_text())
            config["iot"]["vantrel_iot"].update(settings)
            self.live(path).write_text(json.dumps(config))

    def active_job(self, job):
        return json.loads(self.live(f"{ACTIVE}/{job}").read_text())

    def archived_job(self, job):
        return json.loads(self.live(f"{ARCHIVE}/{job}").read_text())

    def active_jobs(self):
        return sorted(self.run(f"ls {ACTIVE}").split())

    def archived_jobs(self):
        return sorted(self.run(f"ls {ARCHIVE}").split())

    def boots(self):
        return self.status()["boots"]
