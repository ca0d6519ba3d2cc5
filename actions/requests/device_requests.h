// Requests to the device's own services, published on the local broker. The service answers on the
// command's "/ack" topic with the request's "session". No result of a publish is examined.
#pragma once

#include <json/json.h>

#include <string>

inline constexpr char CFGPUSH_TOPIC[] = "v1/device/cmd/cfgpush/apply";
inline constexpr char FILEPULL_TOPIC[] = "v1/device/cmd/filepull/apply";
inline constexpr char FILEPUSH_TOPIC[] = "v1/device/cmd/filepush/apply";

// Message-id slot of the file transfer requests: passed by address, never incremented; starts at 1000.
extern int cmd_message_id;

// Asks the configuration service to push the whole configuration; no job is involved. Any thread.
void request_full_cfgpush();

// The request as the client sends it; empty when there is no client.
std::string command_text(const Json::Value &command);

// message_id may be null. Nothing happens when there is no client.
void publish_command(int *message_id, const char *topic, const std::string &payload);
