// Uploads a script's output to the cloud as a multipart form, over HTTP or HTTPS. The only place that
// knows libcurl. Sets no TLS option: libcurl's defaults verify the peer against the system's authorities.
//
// Runs on the thread of the script job and blocks it: up to 30 seconds to connect, then as long as data
// flows (a stall of 60 seconds ends it).
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

// Uploads the file when the job asks for it ("postResults"). A failed upload only sets "msg"; without a
// token or cloud settings nothing is sent and nothing is set.
void post_job_results(Json::Value &job, const std::string &output_path);

// Appends the base URL, which holds the device's token. 0; -1 without a token or cloud settings.
int get_results_base_url(std::string &url);

// 0 when the transfer was completed, whatever the server's status; else -1.
int http_post_results_file(const char *url, const char *file_path);

// The body of the server's answer; kept zero-terminated.
struct response_buffer {
    char *data = nullptr;
    size_t size = 0;
};

// libcurl's CURLOPT_WRITEFUNCTION: appends to the response_buffer. Returns the bytes taken; 0 when there is
// no memory, which ends the transfer.
size_t results_write_callback(char *data, size_t size, size_t count, void *buffer);
