#include "tests/fuzz/arrivals.h"

#include "jobs/job_record.h"

#include <memory>

namespace {

std::string up_to_a_zero(const std::string &text) {
    return text.c_str();
}

void take(std::set<std::string> &texts, const std::string &text) {
    texts.insert(text);
    texts.insert(up_to_a_zero(text));
}

Json::Value parsed(const std::string &text) try {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr) ? value : Json::Value();
} catch (const Json::Exception &) {
    return {};
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
