// The files of a configuration: a JSON document, and the text that identifies it.
//
// | files           | what they hold                           | written by                | deleted by          |
// |-----------------|------------------------------------------|---------------------------|---------------------|
// | NEW_CONFIG      | the candidate                            | configuration job, post-  | every apply's end,  |
// |                 |                                          | upgrade check, apply      | a revert            |
// | NEW_CONFIG_COPY | its copy that outlives a reboot          | apply (mirror step)       | as NEW_CONFIG       |
// | RUNNING_CONFIG  | what the services run on                 | apply, failsafe restore,  | -                   |
// |                 |                                          | boot                      |                     |
// | SAVED_CONFIG    | what the device boots with               | commit, failsafe restore  | -                   |
// | FAILSAFE_FILES  | the last known good one                  | apply                     | -                   |
// | STAGED_CONFIG   | carried across a firmware upgrade        | post-upgrade check        | end of the upgrade  |
//
// What lies below /var/volatile is gone after a reboot.
#pragma once

struct config_files {
    const char *config;
    const char *hash;
};

inline constexpr config_files NEW_CONFIG = {"/var/volatile/config/config.new",
                                            "/var/volatile/config/config.new.hash"};
inline constexpr char NEW_CONFIG_COPY[] = "/var/data/orv/config.new";
inline constexpr config_files RUNNING_CONFIG = {"/var/volatile/config/config.running",
                                                "/var/volatile/config/config.running.hash"};
inline constexpr config_files SAVED_CONFIG = {"/var/data/orv/config.json", "/var/data/orv/config.hash"};
inline constexpr config_files FAILSAFE_FILES = {"/var/data/orv/config.failsafe",
                                                "/var/data/orv/config.failsafe.hash"};
inline constexpr config_files STAGED_CONFIG = {"/var/data/orv/config.staged",
                                               "/var/data/orv/config.staged.hash"};

// {"start_time", "end_time", "period"} of a running failsafe verification; written by it, deleted at the
// start and end of every apply, on commit and on revert. While it exists, new requests are refused.
inline constexpr char FAILSAFE_TIMER_FILE[] = "/var/data/orv/FAILSAFE_TIMER";

// An uncommitted change; made by the configuration library, deleted with the timer.
inline constexpr char CONFIG_MODIFIED_FILE[] = "/var/run/CONFIG_MODIFIED";

inline constexpr int HASH_SIZE = 128; // bytes that read_hash may fill
