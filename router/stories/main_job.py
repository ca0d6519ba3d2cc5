"""A script job, from the broker to the archive."""
import json

from router.stories.start import begin

JOB = "demo-job"
SCRIPT = """echo "This is $(hostname), firmware $(sysdb get SYS_FW_VER)"
ip -br address show dev wan0
df -h /var/data | tail -n 1
"""
ARCHIVE = "/var/data/orv/vantrel_iot/jobs/archive"


def use_https(stage):
    path = stage.router.live("/var/volatile/config/config.running")
    config = json.loads(path.read_text())
    config["iot"]["vantrel_iot"].update(protocol="HTTPS", port=443)
    path.write_text(json.dumps(config))


def tell(stage):
    stage.narrator.title(
        "A job", "The cloud sends a shell script. The agent stores it, reports it, runs it, posts its output over",
        "HTTPS, reports the end, and files the job away as soon as the cloud has acknowledged that.")
    begin(stage)
    use_https(stage)
    with stage.receive_uploads(stage.folder) as server:
        stage.says("cloud", f"sends job {JOB}:\n{SCRIPT}")
        stage.cloud.send_script(JOB, SCRIPT, postResults=True)
        upload = server.wait_for_upload()
        tell_upload(stage, upload)
        stage.cloud.wait_for_status(JOB, "success")
        stage.log_until(f"archiving job file {JOB}")
        stage.says("agent", f"archives the job: {ARCHIVE}/{JOB}")
        record = json.loads(stage.router.run(f"cat {ARCHIVE}/{JOB}"))
        kept = {key: record[key] for key in ("status", "ack", "timestamp", "ackId") if key in record}
        stage.says("router", f"keeps of it {json.dumps(kept)}")
        stage.cloud.wait(lambda cloud: "v1/device/cmd/checkin/apply" in [m.topic for m in cloud.messages],
                         30, "the check-in")
    stage.show_log("execute command job script rc")


def tell_upload(stage, upload):
    first, file = upload.parts
    where = upload.path.split("/")
    where[3] = where[3][:4] + "..."     # the token is nobody's business
    stage.says("server", f"receives POST {'/'.join(where)}: an empty {first.content_type} part, and the file "
                         f"{file.file_name}:\n{file.data.decode()}")
