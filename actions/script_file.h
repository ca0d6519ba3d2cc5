// The script file of a command job: written from the job's text, cleaned up after the run.
#pragma once

#include <json/json.h>

#include <cstdio>
#include <string>

// Writes the job's script, behind a preamble that redirects its output, stops it at its first failing
// command and records its process id. Stores the script's path in the record, and the record, before the
// script is written. The file is its owner's alone (0600): for that the calling thread leaves, for good, the mask of
// modes that the process's threads share. A script that does not fit on the file system is not noticed: it is cut, or empty.
// 0; -1 with the reason in error when the file cannot be opened. Throws Json::Exception on wrong types.
int generate_cli_script(Json::Value &job, std::string &script_path, std::string &output_path,
                        std::string &error);

// Kills the script if it runs still, deletes its pid file and the script file; the output stays.
void clear_job_cli_script(const Json::Value &job);

// Writes one line of a payload script; false for an empty command and on a write error. Nobody in the agent
// calls it.
bool write_payload_command(FILE *file, const std::string &command);
