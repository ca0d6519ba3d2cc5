// What the host's configuration library does with which file, beyond what platform/cmd.h promises.
//
// Files are named as in paths.h. Every write is whole or not at all. None of these functions throws.
#pragma once

#include "platform/cmd.h"

// --- Hash. It is the SHA-256 of the canonical text (canonical.h) in lower-case hexadecimal; a hash file
// holds it as one line.

// Fails, and leaves the hash file as it was, when the configuration is missing or no JSON object, or the
// hash file cannot be written.
int calculate_and_write_config_hash(const char *config_path, const char *hash_path);

// Fails, and leaves the buffer as it was, when the file is missing or empty or its line is too long.
int read_hash(const char *hash_path, char *buffer);

// Computed from config.running itself, not read from its hash file; empty when it cannot be read.
std::string current_config_hash();

// --- Comparing and checking.

// Compares canonical values, so encoded and plain sensitive fields are equal. The order is that of the
// areas' "order". A former configuration that is missing or broken counts as empty: every area is
// applied then. Fails, with an empty list, when the new one is missing or no JSON object, or there is no
// meta data.
int get_config_change_list(const char *old_path, const char *new_path, Json::Value &changes);

// The faults, each with its path, separated by "; ". Of very many the first fifty are told. A valid
// configuration sets result to "config is valid".
int config_validator(const char *path, std::string &result);

// --- Meta data:
//
//   image's meta folder --cmd_metainit--> meta folder in RAM --cmd_metainit, cmd_hwconfig--> meta file
//   meta file in RAM --store_meta_file--> persistent meta file --restore_meta_file--> meta file in RAM
//
// The library works with the meta file in RAM.

// The documents of the image's meta folder are copied into the one in RAM, and the meta file is made for
// the running configuration (for all modules when there is none). Fails, and changes nothing, when the
// image's folder is missing or empty or one of its documents or schemas cannot be used; fails too when a
// write fails.
int cmd_metainit();

// Meta file in RAM to the persistent one. Fails, and leaves the persistent one, when there is no usable
// meta file in RAM or the copy fails. What is stored already is not written again.
int store_meta_file();

// Persistent meta file to the one in RAM. Fails, and leaves the one in RAM, when no usable one was stored
// or the copy fails.
int restore_meta_file();

// As restore_meta_file; but when none was stored, or it was made for other hardware settings than those
// of the running configuration, the meta file is made anew from the folder in RAM. Fails when that holds
// no usable meta data either, or a write fails.
int restore_meta_file_or_regenerate_from_meta_folder_in_ram();

// --- The hardware section of the running configuration.

// The section becomes the hardware settings in RAM (hardware.running), which drivers read, and the meta
// file is made anew for it. Fails, and changes nothing, when the section is missing, a port that it
// enables does not exist as a network device, or there is no usable meta data; fails too when a write
// fails.
int cmd_hwconfig();

// The section to the persistent config.hardware, where an early boot finds it before there is a running
// configuration. Fails, and leaves the stored one, when the running configuration has none or the write
// fails. What is stored already is not written again.
int save_hw_config_section_to_nv();

// --- Going back. All take the hash from the configuration that they install, never from a hash file: a
// cut between the two files may have left the hash of another configuration.

// config.failsafe over config.json, its hash over config.hash. Where none was ever saved, or it cannot be
// read, the image's default configuration takes its place; but during a verification the persistent
// configuration, which is the last committed one, stays. Fails when neither can be read or a write
// fails; the persistent configuration is whole then all the same.
int restore_failsafe_files_to_nv();

// config.failsafe over config.running, its hash over config.running.hash. Without a readable failsafe
// copy the persistent configuration becomes the running one. The hardware settings in RAM follow. Fails when neither can be read or a write
// fails.
int restore_failsafe_files_to_running();

// The request is {"reset": "all"}, {"reset": "AREA"} or {"reset": ["AREA", ...]}, or the lone word all or
// AREA; an area is named by its path, as in network.wireless.wifi. The named areas of the persistent
// configuration become those of the delivered one (an area that it lacks is removed), the result becomes
// the running configuration too, each with its hash, and the services of what changed are restarted.
//
// Refused, with nothing changed, when the request names anything else, while an apply runs or a candidate
// waits, and when the result would not be valid. Fails too when a configuration cannot be read or written.
int cmd_reset_to_default(const char *request);

// Mode 0 resets the configuration, mode 1 the jobs too; any other is refused. In this order, so that a cut
// leaves nothing under way that would undo the reset: candidates, an apply cut short and, with mode 1, the
// active job files are deleted; the default configuration of the image becomes the persistent one, with
// its hash; the failsafe copy and whatever else belongs to the former configuration is deleted, with mode
// 1 the archived job files too. The running configuration and the services stay as they are until the
// reboot that follows. What makes the device itself (its key and token in /var/data/factory, the system
// database, the firmware slots) is kept.
//
// Fails, and changes nothing, when the default configuration cannot be read; fails too when something
// cannot be written or deleted. It can be called again until it succeeds, also after a cut in the middle.
int cmd_factory_reset(int mode);
