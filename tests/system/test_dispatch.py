"""Messages on their way from the broker to their handlers."""
import json


def lines_about(router, topic):
    """The agent's lines from the one that announces the topic to the next announced one."""
    lines = router.texts()
    at = next(i for i, line in enumerate(lines) if line.endswith(f"on_message: topic[{topic}]"))
    rest = [i for i, line in enumerate(lines) if i > at and "on_message: topic[" in line]
    return lines[at:rest[0] if rest else None]


def send_and_see(router, cloud, topic, payload="{}"):
    """What the agent logs about one message, up to the next one."""
    cloud.publish(topic, payload)
    cloud.publish("v1/device/iot/job/update", "the next")
    router.wait_for_log("on_message: topic[v1/device/iot/job/update]")
    found = lines_about(router, topic)
    return [line for line in found[1:] if not line.startswith("active job count")]


def test_a_message_without_a_handler_is_only_logged(router, cloud):
    cloud.publish("v1/device/iot/job/update", "{}")
    cloud.publish("v1/device/job/1/pub_ack", "{}")
    router.wait_for_log("on_message: topic[v1/device/job/1/pub_ack]")
    assert lines_about(router, "v1/device/iot/job/update") == [
        f"{router.agent_pid()} on_message: topic[v1/device/iot/job/update]"]


def test_every_subscribed_topic_arrives(router, cloud):
    for topic in ("v1/device/job/7/apply", "v1/device/job/7/update", "v1/device/job/7/pub_ack",
                  "v1/device/cmd/x/apply", "v1/device/cmd/x/ack", "v1/device/iot/job/update",
                  "v1/device/cmd/config/abort/apply"):
        cloud.publish(topic, "{}")
        router.wait_for_log(f"on_message: topic[{topic}]")


def test_the_extra_topics_of_the_image_arrive(router, cloud):
    for topic in ("v1/device/config/publish", "v1/device/config/reset", "v1/devices/me/attributes"):
        cloud.publish(topic, "not json")
        router.wait_for_log(f"on_message: topic[{topic}]")


def test_a_job_acknowledgement_reaches_its_handler(router, cloud):
    lines = send_and_see(router, cloud, "v1/device/job/77/pub_ack", json.dumps({"jobId": "77"}))
    assert lines[0] == "tessard job pub ack message v1/device/job/77/pub_ack"
    assert lines[1].startswith("received pub ack message: ")


def test_another_job_topic_reaches_no_handler(router, cloud):
    cloud.publish("v1/device/job/77/other", "{}")
    assert send_and_see(router, cloud, "v1/device/job/78/pub_ack") != []
    assert "v1/device/job/77/other" not in router.log(), "it is not even subscribed"


def test_an_abort_request_does_not_reach_the_command_handler(router, cloud):
    lines = send_and_see(router, cloud, "v1/device/cmd/config/abort/apply", "")
    assert len(lines) == 1
    assert lines[0].startswith("Abort cmd apply requested at time ")


def test_a_handler_that_throws_leaves_the_next_message_alone(router, cloud):
    broken = json.dumps({"jobId": "1", "session": "no number", "rc": 200})
    lines = send_and_see(router, cloud, "v1/device/cmd/x/ack", broken)
    assert lines[-1] == "on_message: exception handler"
    assert ("notice", "on_message: exception handler") in router.log_lines()
    cloud.publish("v1/device/job/9/pub_ack", json.dumps({"jobId": "9"}))
    router.wait_for_log("tessard job pub ack message v1/device/job/9/pub_ack")


def test_an_empty_payload_is_harmless_everywhere(router, cloud):
    pid = router.agent_pid()
    topics = [f"v1/device/{rest}" for rest in ("job/1/apply", "job/1/update", "job/all/update",
                                               "job/1/pub_ack", "cmd/x/apply", "cmd/x/ack")]
    for topic in topics:
        cloud.publish(topic, "")
        router.wait_for_log(f"on_message: topic[{topic}]")
    assert router.agent_pid() == pid
