"""A script job, from the broker to the archive."""
import json

from desk.stories.stage import ARCHIVE
from desk.stories.start import begin

JOB = "demo-job"
SCRIPT = """echo "This is $(hostname), firmware $(sysdb get SYS_FW_VER)"
ip -br address show dev wan0
df -h /var/data | tail -n 1
"""


def use_https(stage):
    """In the running and in the persistent configuration: a later story may bring the latter back."""
    for path in ("/var/volatile/config/config.running", "/var/data/orv/config.json"):
        file = stage.router.live(path)
        config = json.loads(file.read_text())
        config["iot"]["vantrel_iot"].update(protocol="HTTPS", port=443)
        file.write_text(json.dumps(config))


def tell(stage):
    stage.narrator.title(
        "A job", "The cloud sends a shell script. The agent stores it, reports it, runs it, posts its output over",
        "HTTPS, reports the end, and files the job away as soon as the cloud has acknowledged that.")
    begin(stage)
    use_https(stage)
    with stage.receive_uploads(stage.folder) as server:
        stage.says("cloud", f"sends job {JOB}:\n{SCRIPT}")
        stage.cloud.send_script(JOB, SCRIPT, postResults=True)
        upload = server.wait_for_upload(stage.router.patience(60))
        tell_upload(stage, upload)
        stage.cloud.wait_for_status(JOB, "success", stage.router.patience(60))
        stage.wait_for_archived(JOB)
        stage.says("agent", f"archives the job: {ARCHIVE}/{JOB}")
        record = json.loads(stage.router.live(f"{ARCHIVE}/{JOB}").read_text())
        kept = {key: record[key] for key in ("status", "ack", "timestamp", "ackId") if key in record}
        stage.says("router", f"keeps of it {json.dumps(kept)}")
        stage.cloud.wait(lambda cloud: "v1/device/cmd/checkin/apply" in [m.topic for m in cloud.messages],
                         stage.router.patience(60), "the check-in")
    stage.show_log("execute command job script rc")


def tell_upload(stage, upload):
    first, file = upload.parts
    where = upload.path.split("/")
    where[3] = where[3][:4] + "..."     # the token is nobody's business
    stage.says("server", f"receives POST {'/'.join(where)}: an empty {first.content_type} part, and the file "
                         f"{file.file_name}:\n{file.data.decode()}")
