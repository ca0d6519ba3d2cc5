#include "actions/results_upload.h"

#include "jobs/job_record.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"
#include "platform/vtrsec.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <curl/curl.h>
#include <syslog.h>

namespace {

constexpr int TOKEN_SIZE = 128;
constexpr long CONNECT_TIMEOUT_S = 30L;
constexpr long LOWEST_SPEED_BYTES_PER_S = 1L;
constexpr long LOWEST_SPEED_TIME_S = 60L;

std::string endpoint(const char *scheme, const std::string &host, int port, int default_port) {
    std::string url = scheme + host;
    if (port != default_port)
        url.append(":").append(std::to_string(port));
    return url;
}

// Settings of other types count as unreadable: they must not fail a script that did its work.
bool are_cloud_settings(const Json::Value &iot) {
    return iot.isObject() && iot.get("port", 0).isConvertibleTo(Json::intValue) &&
           iot.get("protocol", "").isConvertibleTo(Json::stringValue);
}

// One deleter a type: CURL is void, and one that takes it would take any pointer.
struct cleanup_handle {
    void operator()(CURL *handle) const { curl_easy_cleanup(handle); }
};
struct free_form {
    void operator()(curl_mime *form) const { curl_mime_free(form); }
};
struct free_headers {
    void operator()(curl_slist *headers) const { curl_slist_free_all(headers); }
};
struct free_data {
    void operator()(response_buffer *response) const { free(response->data); }
};

using owned_handle = std::unique_ptr<CURL, cleanup_handle>;
using owned_form = std::unique_ptr<curl_mime, free_form>;
using owned_headers = std::unique_ptr<curl_slist, free_headers>;
using owned_data = std::unique_ptr<response_buffer, free_data>;

// The receiving end expects an empty JSON part before the file.
owned_form results_form(CURL *handle, const char *file_path) {
    owned_form form(curl_mime_init(handle));
    curl_mime_type(curl_mime_addpart(form.get()), "application/json");
    curl_mimepart *file = curl_mime_addpart(form.get());
    curl_mime_name(file, "file");
    curl_mime_filedata(file, file_path);
    return form;
}

} // namespace

void post_job_results(Json::Value &job, const std::string &output_path) {
    const Json::Value &params = std::as_const(job)[KEY_PARAMS];
    if (!params.isMember(PARAM_POST_RESULTS) || !params[PARAM_POST_RESULTS].asBool())
        return;
    std::string url;
    if (get_results_base_url(url) != 0)
        return;
    url += "jobResults?jobId=" + job[KEY_JOB_ID].asString();
    if (http_post_results_file(url.c_str(), output_path.c_str()) != 0)
        job[KEY_MSG] = "Error posting job results file";
}

int get_results_base_url(std::string &url) {
    char token[TOKEN_SIZE] = "";
    if (get_device_token(TOKEN_SIZE, token) != 0) {
        syslog(LOG_NOTICE, "no authtoken");
        return -1;
    }
    Json::Value iot;
    if (cmd_get_value_json("iot.vantrel_iot", iot) != 0 || !are_cloud_settings(iot))
        return -1;
    const std::string host = get_iot_url_sim1_or_sim2_from_config(iot);
    const int port = iot["port"].asInt();
    if (iot["protocol"].asString() == "HTTPS")
        url += endpoint("https://", host, port, 443);
    else
        url += endpoint("http://", host, port, 80);
    url += std::string("/api/v2/") + token + "/";
    return 0;
}

int http_post_results_file(const char *url, const char *file_path) {
    syslog(LOG_NOTICE, "post job results %s to %s", file_path, url);
    // cleaned up from the last to the first: the handle before what it points to
    response_buffer response;
    const owned_data response_owner(&response);
    const owned_headers headers(curl_slist_append(nullptr, "Expect:")); // no 100-continue handshake
    owned_form form;
    const owned_handle handle(curl_easy_init());
    if (!handle)
        return -1;

    CURL *curl = handle.get();
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, results_write_callback);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response);
    form = results_form(curl, file_path);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_MIMEPOST, form.get());
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, CONNECT_TIMEOUT_S);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, LOWEST_SPEED_BYTES_PER_S);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, LOWEST_SPEED_TIME_S);

    const CURLcode result = curl_easy_perform(curl);
    if (result == CURLE_OK)
        return 0;
    syslog(LOG_DEBUG, "curl_easy_perform() failed: %s\n", curl_easy_strerror(result));
    return -1;
}

size_t results_write_callback(char *data, size_t size, size_t count, void *buffer) {
    auto *response = static_cast<response_buffer *>(buffer);
    const size_t length = size * count;
    // sic: without memory the former data is lost, and the transfer ends
    response->data = static_cast<char *>(realloc(response->data, response->size + length + 1));
    if (!response->data) {
        syslog(LOG_NOTICE, "not enough memory (realloc returned NULL)");
        return 0;
    }
    memcpy(response->data + response->size, data, length);
    response->size += length;
    response->data[response->size] = '\0';
    return length;
}
