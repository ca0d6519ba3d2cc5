// The job record: the JSON object of one job, stored whole in its job file.
//
// Keys and words are named once, here: a mistyped key would silently create a member. Times are whole
// seconds since the epoch. Keys that the cloud sends and nobody here names are kept as received.
#pragma once

#include <json/json.h>

#include <string>

// Every record.
inline constexpr char KEY_JOB_ID[] = "jobId"; // text; equals the file name
inline constexpr char KEY_STATUS[] = "status";
inline constexpr char KEY_ACK[] = "ack";                   // bool: the cloud has acknowledged the status
inline constexpr char KEY_ACK_ATTEMPTS[] = "ack_attempts"; // int: refused acknowledgements
inline constexpr char KEY_ACK_ID[] = "ackId"; // int: time of the status, its "session"; 0: needs no answer
inline constexpr char KEY_ACK_TS[] = "ackTs"; // int: time at which the status was recorded
inline constexpr char KEY_TIMESTAMP[] = "timestamp"; // int: time of intake

// What the cloud asks for.
inline constexpr char KEY_ACTION[] = "action";
inline constexpr char KEY_VALUE[] = "value";
inline constexpr char KEY_PARAMS[] = "params";
inline constexpr char KEY_METHOD[] = "method";
inline constexpr char KEY_RADIO[] = "radio"; // bool: modem firmware
inline constexpr char KEY_SOURCE[] = "source";
inline constexpr char KEY_JOB_NAME[] = "jobName";
inline constexpr char KEY_PAYLOAD[] = "payload";

// What became of it.
inline constexpr char KEY_MSG[] = "msg";      // text, sent with the status
inline constexpr char KEY_FW_VER[] = "fwVer"; // any value, sent with the status
inline constexpr char KEY_FAIL_ON_REBOOT[] = "fail_on_reboot";
inline constexpr char KEY_SCRIPT_FILE[] = "script_file"; // path of the generated script
inline constexpr char KEY_OVERRIDE_STATUS[] = "override_status";
inline constexpr char KEY_CFG_VERIFIED[] = "cfg_verified";
inline constexpr char KEY_VALIDATION_RESULT[] = "validation_result";
inline constexpr char KEY_FAILSAFE_ENABLED[] = "failsafe_enabled";
inline constexpr char KEY_QTEL_MGR_PID[] = "qtel_mgr_pid"; // int: the modem manager before its restart
inline constexpr char KEY_FW_LABEL[] = "fw_label";         // text: before the upgrade
inline constexpr char KEY_OLD_FW_VER[] = "fw_ver";         // text: before the upgrade
inline constexpr char KEY_PARTITION2[] = "partition2";     // bool: ran from the second root file system
inline constexpr char KEY_SWITCH_PARTITION[] = "switch_partition";

// Members of "params".
inline constexpr char PARAM_SCRIPT[] = "script";
inline constexpr char PARAM_REBOOT[] = "reboot";
inline constexpr char PARAM_POST_RESULTS[] = "postResults";
inline constexpr char PARAM_FILE_URL[] = "fileUrl";
inline constexpr char PARAM_CFG[] = "cfg";
inline constexpr char PARAM_HASH_AT_FW_VER[] = "hashAtFwVer";

// The four words that the cloud must acknowledge; any other "status" is intermediate and never published.
inline constexpr char STATUS_RECEIVED[] = "received";
inline constexpr char STATUS_EXECUTED[] = "executed";
inline constexpr char STATUS_SUCCESS[] = "success";
inline constexpr char STATUS_FAILED[] = "failed";

inline constexpr char ACTION_CMD[] = "CMD";
inline constexpr char ACTION_CFG[] = "CFG";
inline constexpr char ACTION_FW[] = "FW";
inline constexpr char ACTION_FW_LOWER[] = "fw";
inline constexpr char ACTION_FW_PUT[] = "FW_PUT";
inline constexpr char ACTION_FW_PUT_LOWER[] = "fw_put";
inline constexpr char ACTION_FAILSAFE_CONFIG[] = "FAILSAFE_CONFIG";
inline constexpr char ACTION_POST_CONFIG[] = "POST_CONFIG";
inline constexpr char ACTION_XTRA[] = "XTRA";

// Ids of the jobs that the device itself makes.
inline constexpr char ID_FAILSAFE_CONFIG[] = "FAILSAFE_CONFIG";
inline constexpr char ID_POST_CONFIG[] = "POST_CONFIG";
inline constexpr char ID_LOCAL_FW_UPGRADE[] = "LOCAL_FW_UPGRADE";

// Reading what a cloud may have sent in any shape. Neither creates a member, neither throws.

// The member as text; empty when the record is no object, or has no such text.
std::string text_of(const Json::Value &record, const char *key);

// The member is there and reads true; what is no truth value is not true.
bool is_true(const Json::Value &record, const char *key);
