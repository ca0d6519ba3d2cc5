#include "tests/fuzz/arrivals.h"

#include "jobs/job_record.h"

#include <algorithm>
#include <memory>

namespace {

Json::Value parsed(const std::string &text) try {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr) ? value : Json::Value();
} catch (const Json::Exception &) {
    return {};
}

bool is_ascii(const std::string &text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// As it came, up to its first zero byte, and as a job file holds it: there what is no UTF-8 is replaced.
void take(std::set<std::string> &texts, const std::string &text) {
    texts.insert(text);
    texts.insert(text.c_str());
    if (!is_ascii(text))
        texts.insert(parsed(Json::Value(text).toStyledString()).asString());
}

} // namespace

namespace fuzz {

arrivals &arrived() {
    static arrivals all;
    return all;
}

void arrivals::forget() {
    ids = {ID_FAILSAFE_CONFIG, ID_LOCAL_FW_UPGRADE};
    urls.clear();
    scripts.clear();
}

void arrivals::take_id(const std::string &id) {
    take(ids, id);
}

void arrivals::take_job(const Json::Value &job) {
    if (!job.isObject())
        return;
    if (job.isMember(KEY_JOB_ID))
        take_id(text_of(job, KEY_JOB_ID));
    take(urls, text_of(job, KEY_VALUE));
    take(scripts, text_of(job, KEY_SCRIPT_FILE));
}

void arrivals::take_attributes(const Json::Value &attributes) {
    if (!attributes.isObject())
        return;
    for (const std::string &name : attributes.getMemberNames()) {
        take_id(name);
        if (attributes[name].isString())
            take_job(parsed(attributes[name].asString()));
    }
}

} // namespace fuzz
