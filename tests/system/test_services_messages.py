"""Jobs that other services of the device carry out: file push and pull, satellite data, configuration push."""
import json

import configuration
import pytest
from bed import PATIENCE

SERVER = "http://cloud.example:8000"


@pytest.fixture
def shelf(files):
    """A server of files that wants no token."""
    files.token = None
    return files


def acks(cloud, command):
    return [m.payload for m in cloud.messages if m.topic == f"v1/device/cmd/{command}/ack"]


def ask(router, cloud, command, message):
    """Sends the message to the service, as the agent does; returns the answer."""
    begun = len(acks(cloud, command))
    router.run(f"mosquitto_pub -t v1/device/cmd/{command}/apply -s", stdin=message)
    return cloud.wait(lambda c: acks(c, command)[begun:], PATIENCE, f"the answer of {command}")[0]


def test_files_are_pulled(router, cloud, shelf):
    shelf.files["/a.txt"] = b"text\n"
    answer = ask(router, cloud, "filepull", json.dumps(
        {"url": f"{SERVER}/a.txt", "filepath": "/var/data/new/a.txt", "session": 5, "jobId": "j"}))
    assert answer == {"session": 5, "rc": 200, "jobId": "j"}
    assert router.run("cat /var/data/new/a.txt") == "text\n"


def test_a_pull_that_fails_leaves_the_former_file(router, cloud, shelf):
    router.run("echo former > /var/data/a.txt")
    shelf.files["/a.txt"] = b"x" * 100000
    shelf.fault = "cut"
    message = json.dumps({"url": f"{SERVER}/a.txt", "filepath": "/var/data/a.txt", "session": 5, "jobId": "j"})
    assert ask(router, cloud, "filepull", message)["rc"] == 500
    shelf.fault = 404
    assert ask(router, cloud, "filepull", message)["rc"] == 500
    assert router.run("cat /var/data/a.txt") == "former\n"


def test_files_are_pushed(router, cloud, shelf):
    router.run("echo log > /var/data/b.txt")
    message = {"url": f"{SERVER}/b.txt", "filepath": "/var/data/b.txt", "session": 6, "jobId": "j"}
    assert ask(router, cloud, "filepush", json.dumps(message)) == {"session": 6, "rc": 200, "jobId": "j"}
    assert shelf.files["/b.txt"] == b"log\n"
    assert ask(router, cloud, "filepush", json.dumps({**message, "filepath": "/none"}))["rc"] == 500


def test_messages_that_lack_something_are_answered_so(router, cloud):
    assert ask(router, cloud, "filepull", '{"session": 7, "jobId": "j"}') == {"session": 7, "rc": 400, "jobId": "j"}
    assert ask(router, cloud, "filepush", '{"url": "x", "session": 8}') == {"session": 8, "rc": 400}
    for value in ("5", "{}", "[]", "[5]", "null"):
        assert ask(router, cloud, "cfgpush", f'{{"session": 9, "value": {value}}}') == {"session": 9, "rc": 400}


def test_a_message_that_is_not_json_is_passed_over(router, cloud):
    router.run("mosquitto_pub -t v1/device/cmd/filepull/apply -m nonsense; "
               "mosquitto_pub -t v1/device/cmd/filepull/apply -n")
    assert ask(router, cloud, "filepull", '{"session": 7}')["session"] == 7


def test_a_message_of_several_lines_is_one(router, cloud):
    assert ask(router, cloud, "filepull", '{\n "session":\n 7\n}\n') == {"session": 7, "rc": 400}


def test_a_service_answers_as_it_is_told_to(router, cloud):
    router.fault("file-transfer", "fail 503")
    assert ask(router, cloud, "filepull", '{"session": 7}') == {"session": 7, "rc": 503}


def test_the_services_come_back_with_the_broker(router, cloud):
    router.broker(False)
    router.broker(True)
    router.wait_until(lambda: router.log().count("file-transfer 0 v1/device/cmd/filepush/apply") >= 2, PATIENCE,
                      "the service to subscribe again")
    router.wait_until(cloud.link.is_connected, PATIENCE, "the cloud")
    assert ask(router, cloud, "filepull", '{"session": 7}')["rc"] == 400


# --- through the agent

@pytest.fixture
def config_api(router):
    from cloud.file_server import FileServer
    with FileServer(router, 80) as server:
        yield server


def pushed(server):
    return [json.loads(data) for path, data in server.files.items() if path.endswith("/config")]


def test_a_configuration_push_job_sends_what_it_names(router, cloud, config_api):
    cloud.send_job({"jobId": "push", "action": "POST_CONFIG", "value": ["network.interfaces.wan", "/system/failsafe"]})
    cloud.wait_for_status("push", "success")
    stored = configuration.read(router, configuration.STORED)
    assert pushed(config_api) == [{"network.interfaces.wan": stored["network"]["interfaces"]["wan"],
                                   "/system/failsafe": stored["system"]["failsafe"]}]
    token = router.run("cat /var/data/factory/token").strip()
    assert config_api.requests == [f"POST /api/v2/{token}/config"]


def test_the_whole_configuration_is_pushed(router, cloud, config_api):
    cloud.send_job({"jobId": "push", "action": "POST_CONFIG", "value": "/"})
    cloud.wait_for_status("push", "success")
    assert pushed(config_api) == [{"/": configuration.read(router, configuration.STORED)}]


def test_a_configuration_push_that_fails_fails_its_job(router, cloud, config_api):
    config_api.fault = 500
    cloud.send_job({"jobId": "push", "action": "POST_CONFIG", "value": "/"})
    cloud.wait_for_status("push", "failed")


def test_satellite_data_is_fetched(router, cloud, shelf):
    shelf.files["/xtra.bin"] = b"satellites"
    cloud.send_job({"jobId": "xtra", "action": "XTRA", "params": {"fileUrl": f"{SERVER}/xtra.bin"}})
    cloud.wait_for_status("xtra", "success")
    assert router.run("cat /var/data/xtra/vantrel_xtra.bin") == "satellites"


def test_satellite_data_that_is_not_there_fails_its_job(router, cloud, shelf):
    cloud.send_job({"jobId": "xtra", "action": "XTRA", "params": {"fileUrl": f"{SERVER}/xtra.bin"}})
    cloud.wait_for_status("xtra", "failed")


def test_a_file_push_job(router, cloud, shelf):
    router.run("echo log > /var/data/b.txt")
    cloud.send_job({"jobId": "push", "action": "CMD", "value": "FILEPUSH",
                    "params": {"url": f"{SERVER}/b.txt", "filepath": "/var/data/b.txt"}})
    router.wait_until(lambda: "/b.txt" in shelf.files, PATIENCE, "the file")
    assert shelf.files["/b.txt"] == b"log\n"
    answer = cloud.wait(lambda c: acks(c, "filepush"), PATIENCE, "the answer")[0]
    assert (answer["jobId"], answer["rc"]) == ("push", 200)


def test_a_file_pull_job_is_asked_for_again_until_the_cloud_ends_it(router, cloud, shelf):
    """An answer of the service ends it too, when it bears the second of the job's report: none is given before."""
    shelf.files["/a.txt"] = b"text\n"
    router.fault("file-transfer", "held until it was asked three times")
    cloud.send_job({"jobId": "pull", "action": "CMD", "value": "filepull",
                    "params": {"url": f"{SERVER}/a.txt", "filepath": "/var/data/a.txt"}})
    cloud.wait(lambda c: [m.topic for m in c.messages].count("v1/device/cmd/filepull/apply") >= 3, PATIENCE,
               "the third request")
    router.fault("file-transfer")
    answer = cloud.wait(lambda c: acks(c, "filepull"), PATIENCE, "the first answer")[0]
    assert (answer["jobId"], answer["rc"]) == ("pull", 200)
    assert router.run("cat /var/data/a.txt") == "text\n"
    session = cloud.wait_for_status("pull", "received").session
    cloud.publish("v1/device/cmd/filepull/ack", {"jobId": "pull", "session": session, "rc": 200})
    cloud.wait_for_status("pull", "success")
    router.wait_until(lambda: router.archived_jobs() == ["pull"], PATIENCE, "the archive")
