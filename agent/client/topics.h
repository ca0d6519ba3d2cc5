// The MQTT topics that the agent receives on. What it publishes on stands with who publishes.
#pragma once

// Subscribed on every connection, in this order, at QoS 0.
inline constexpr const char *SUBSCRIBED_TOPICS[] = {
    "v1/device/job/+/apply",
    "v1/device/job/+/update",
    "v1/device/job/+/pub_ack",
    "v1/device/cmd/+/apply",
    "v1/device/cmd/+/ack",
    "v1/device/iot/job/update", // matches no rule of the dispatch: logged and dropped
    "v1/device/cmd/config/abort/apply",
};

// Searched for anywhere in the topic of a received message.
inline constexpr char JOB_TOPIC[] = "v1/device/job/";
inline constexpr char CMD_TOPIC[] = "v1/device/cmd/";
inline constexpr char CONFIG_PUBLISH_TOPIC[] = "v1/device/config/publish";
inline constexpr char CONFIG_RESET_TOPIC[] = "v1/device/config/reset";
inline constexpr char ATTRIBUTES_TOPIC[] = "v1/devices/me/attributes";

// Compared as a whole.
inline constexpr char CONFIG_ABORT_TOPIC[] = "v1/device/cmd/config/abort/apply";
