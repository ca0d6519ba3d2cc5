"""Command jobs, from the broker to the archive."""
import json
import time

import pytest
from bed import ACTIVE, HELD, PATIENCE

from cloud.service import IGNORE, REFUSE, TWICE, Late

TOKEN_FILE = "/var/data/factory/token"
POST_ERROR = "Error posting job results file"
REPEAT = "sending repeat job status"


def wait_archived(router, *jobs):
    router.wait_until(lambda: set(jobs) <= set(router.archived_jobs()), PATIENCE, f"{jobs} in the archive")


def test_a_script_job_goes_its_whole_way(router, cloud, uploads):
    cloud.send_script("42", "echo hello; echo trouble >&2", postResults=True)
    upload = uploads.wait_for_upload()
    empty, file = upload.parts
    token = router.run(f"cat {TOKEN_FILE}").strip()
    assert upload.path == f"/api/v2/{token}/jobResults?jobId=42"
    assert (empty.content_type, empty.name, empty.data) == ("application/json", None, b"")
    assert (file.name, file.file_name, file.data) == ("file", "cli_output_42.txt", b"hello\ntrouble\n")
    assert "Expect" not in upload.headers
    cloud.wait_for_status("42", "success")
    wait_archived(router, "42")
    assert cloud.statuses("42")[-2:] == ["executed", "success"]
    assert router.active_jobs() == []
    assert (router.archived_job("42")["status"], router.archived_job("42")["ack"]) == ("success", True)
    cloud.wait(lambda c: any(m.topic == "v1/device/cmd/checkin/apply" and m.payload == {"session": "iot-client"}
                             for m in c.messages), PATIENCE, "the check-in")
    assert token not in router.log().replace(f"/api/v2/{token}/", ""), "only in the line that names the URL"


@pytest.mark.router(speed=1)
def test_a_script_job_goes_its_whole_way_in_real_time(router, cloud, uploads):
    cloud.send_script("42", "echo hello", postResults=True)
    assert uploads.wait_for_upload(60).parts[1].data == b"hello\n"
    cloud.wait_for_status("42", "success")
    wait_archived(router, "42")


def test_results_go_over_https(router, cloud, secure_uploads):
    router.set_cloud(protocol="HTTPS", port=443)
    cloud.send_script("42", "echo hello", postResults=True)
    assert secure_uploads.wait_for_upload().parts[1].data == b"hello\n"
    assert cloud.wait_for_status("42", "success").msg is None


def test_a_server_that_nobody_vouches_for_gets_nothing(router, cloud, secure_uploads):
    bundle = router.state / "etc/ca-certificates.crt"
    bundle.write_text("")
    router.set_cloud(protocol="HTTPS", port=443)
    cloud.send_script("42", "echo hello", postResults=True)
    assert cloud.wait_for_status("42", "success").msg == POST_ERROR
    assert secure_uploads.uploads == []


def test_https_in_lower_case_means_http_on_that_port(router, cloud, uploads):
    router.set_cloud(protocol="https", port=80)
    cloud.send_script("42", "echo hello", postResults=True)
    assert uploads.wait_for_upload().parts[1].data == b"hello\n"


def test_a_failed_script_still_posts_its_output(router, cloud, uploads):
    cloud.send_script("42", "echo before; false; echo after", postResults=True)
    assert uploads.wait_for_upload().parts[1].data == b"before\n"
    assert cloud.wait_for_status("42", "failed").msg is None


@pytest.mark.parametrize("status", [404, 500])
def test_a_server_that_answers_with_an_error_counts_as_served(router, cloud, uploads, status):
    uploads.fault = status
    cloud.send_script("42", "echo hello", postResults=True)
    assert cloud.wait_for_status("42", "success").msg is None
    assert uploads.uploads


@pytest.mark.parametrize("fault", ["stall", "cut"])
def test_a_server_that_stalls_or_breaks_off_is_reported(router, cloud, uploads, fault):
    uploads.fault = fault
    cloud.send_script("42", "echo hello", postResults=True)
    uploads.wait_for_request()
    assert cloud.wait_for_status("42", "success", 60).msg == POST_ERROR


def test_no_server_at_all_is_reported(router, cloud):
    cloud.send_script("42", "echo hello", postResults=True)
    assert cloud.wait_for_status("42", "success").msg == POST_ERROR


def test_a_script_over_its_time_limit_fails_with_its_children(router, cloud):
    cloud.send_script("42", "# MAX JOB TIME 1\nsh -c 'sleep 5555' ; echo never")
    cloud.wait_for_status("42", "failed")
    router.wait_for_log("execute command job script rc:124")
    assert "sleep 5555" not in router.run("ps")


def test_a_status_is_repeated_with_its_session_until_it_is_acknowledged(router, cloud):
    cloud.send_script("42", "true", rule=IGNORE)
    report = cloud.wait_for_status("42", "success")
    router.wait_for_log(REPEAT, times=2)
    cloud.wait(lambda c: [r.session for r in c.reports("42")].count(report.session) >= 2, PATIENCE, "a repeat")
    assert router.active_jobs() == ["42"]
    cloud.answer(report)
    wait_archived(router, "42")


def test_a_late_acknowledgement_counts(router, cloud):
    cloud.send_script("42", "true", rule=Late(1.5))
    wait_archived(router, "42")
    assert cloud.statuses("42")[-1] == "success"


def test_an_acknowledgement_for_another_session_does_not_count(router, cloud):
    cloud.send_script("42", "true", rule=lambda service, report: service.answer(report, session=7))
    cloud.wait_for_status("42", "success")
    router.wait_for_log(REPEAT)
    assert router.active_job("42")["ack"] is False


def test_a_refused_status_is_repeated(router, cloud):
    cloud.send_script("42", "true", rule=REFUSE)
    report = cloud.wait_for_status("42", "success")
    before = len(cloud.reports("42"))
    cloud.wait(lambda c: len(c.reports("42")) > before, PATIENCE, "a repeat")
    assert router.active_job("42")["ack_attempts"] == 0
    cloud.answer(report)
    wait_archived(router, "42")


def test_a_doubled_acknowledgement_is_harmless(router, cloud):
    cloud.send_script("42", "true", rule=TWICE)
    cloud.send_script("43", "true", rule=TWICE)
    wait_archived(router, "42", "43")
    assert router.count_in_log("archiving job: 42") == 1


def test_a_job_delivered_twice_runs_once(router, cloud):
    cloud.send_script("42", f"echo ran >> /tmp/runs; {HELD}")
    router.wait_until(lambda: router.run("cat /tmp/runs 2>/dev/null; true"), PATIENCE, "the script")
    cloud.send_script("42", "echo again >> /tmp/runs")
    router.wait_for_log("job 42 received from IOT already exists and is active")
    router.let_go()
    wait_archived(router, "42")
    assert router.run("cat /tmp/runs") == "ran\n"


def test_queued_jobs_run_oldest_first(router, cloud):
    for job in ("b", "c", "a"):
        cloud.send_script(job, f"echo {job} >> /tmp/order")
    wait_archived(router, "a", "b", "c")
    assert router.run("cat /tmp/order").split() == ["b", "c", "a"]


def test_a_critical_job_does_not_wait(router, cloud):
    cloud.send_script("slow", "sleep 1000")
    cloud.wait_for_status("slow", "executed")
    cloud.send_script("now", "# JOB PRIORITY CRITICAL\necho here > /tmp/critical")
    cloud.wait_for_status("now", "success")
    assert [r.status for r in cloud.reports("now")] == ["received", "executed", "success"]
    assert router.run("cat /tmp/critical") == "here\n"
    assert router.run("ls /var/volatile/orv/CRITICAL_JOB_EXECUTING 2>/dev/null; true") == ""
    assert "now" in router.archived_jobs()


def run_for_long(router, cloud, job):
    """A job whose script runs, and whose file is not written any more before that ends."""
    cloud.send_script(job, "sleep 1000")
    router.wait_until(lambda: router.text(f"/var/volatile/orv/{job}.pid"), PATIENCE, "the script to start")
    router.wait_for_log(f"{ACTIVE}/{job} set ACK: true for job status:executed")
    written = int(router.live(f"{ACTIVE}/{job}").stat().st_mtime)
    router.wait_until(lambda: time.time() >= written + 1, PATIENCE, "`ls` to tell a younger file from it")


def test_clear_all_fails_every_job_and_ends_the_script(router, cloud):
    run_for_long(router, cloud, "101")
    cloud.send_script("102", "true")
    router.wait_until(lambda: router.active_jobs() == ["101", "102"], PATIENCE, "both jobs")
    cloud.publish("v1/device/job/CLEAR_ACTIVE_JOBS/apply", "not json")
    cloud.wait_for_status("101", "failed")
    cloud.wait_for_status("102", "failed")
    router.wait_for_log("execute command job script rc:137")
    router.wait_until(lambda: router.active_jobs() == [], PATIENCE, "the queue to be empty")
    assert "102" not in router.archived_jobs(), "cleared, not archived"


def test_clear_running_removes_the_oldest(router, cloud):
    run_for_long(router, cloud, "101")
    cloud.send_script("102", "true")
    router.wait_until(lambda: router.active_jobs() == ["101", "102"], PATIENCE, "both jobs")
    cloud.publish("v1/device/job/CLEAR_RUNNING_JOB/apply", "")
    cloud.wait_for_status("101", "failed")
    wait_archived(router, "102")
    assert cloud.statuses("102")[-1] == "success"


def test_clear_running_does_not_find_a_job_with_a_short_id(router, cloud):
    run_for_long(router, cloud, "1")
    cloud.publish("v1/device/job/CLEAR_RUNNING_JOB/apply", "")
    router.wait_for_log("clear_running_job exit")
    assert router.active_jobs() == ["1"]


def test_clear_running_with_nothing_to_clear(router, cloud):
    cloud.publish("v1/device/job/CLEAR_RUNNING_JOB/apply", "")
    router.wait_for_log("clear_running_job exit")
    assert "active job is:" not in router.log()


def test_a_corrupt_job_file_is_reported_failed(router, cloud):
    router.run(f"echo '{{ broken' > {ACTIVE}/77")
    cloud.wait_for_status("77", "failed")
    wait_archived(router, "77")
    assert ("alert", "repairing and failing corrupt or missing job 77") in router.log_lines()


def test_the_cloud_coming_back_starts_a_pass_at_once(router, cloud):
    cloud.publish("v1/device/job/all/update", {"connected": False})
    cloud.send_script("42", "true")
    cloud.publish("v1/device/job/all/update", {"connected": True})
    wait_archived(router, "42")


def test_the_record_carries_what_the_cloud_sent(router, cloud):
    cloud.send_job({"jobId": "42", "action": "cmd", "extra": {"kept": [1, 2]}})
    report = cloud.wait_for_status("42", "failed")
    assert report.msg == "job contains no action property"
    wait_archived(router, "42")
    assert router.archived_job("42")["extra"] == {"kept": [1, 2]}
    assert json.dumps(report.payload["params"]["jobId"]) == '"42"'
