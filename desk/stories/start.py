"""The router boots, the agent connects, a message arrives."""


def begin(stage):
    """Boots the router when no story has done so, and connects the cloud."""
    if not stage.cloud:
        stage.boot()
        stage.connect_cloud()
        stage.log_until("tessard 0 v1/device/cmd/config/abort/apply")
    stage.skip_events()


def tell(stage):
    stage.narrator.title(
        "The start", "The router boots: its own broker, its own log, and the agent, which subscribes its topics.",
        "Then the cloud sends a message that no handler wants: the agent logs its topic and drops it. It reads one",
        "packet a second, so the answers to its subscriptions come first.")
    begin(stage)
    stage.show_log("boot: ", "local0.*(Starting|starting)", "tessard 0 v1/")
    stage.says("cloud", "publishes on v1/device/iot/job/update")
    stage.cloud.publish("v1/device/iot/job/update", {"hello": "router"})
    stage.log_until("on_message: topic[v1/device/iot/job/update]")
    stage.show_log("on_message")
