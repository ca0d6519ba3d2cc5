// Configurations, from the request to the commit or the way back.
#include "tests/sweep/scenario.h"

#include "tests/sweep/names.h"

#include "tests/fakes/calls.h"
#include "tests/fakes/config.h"
#include "tests/fakes/files.h"

namespace sweep {

namespace {

constexpr char FORMER[] = R"({
    "apps": {"list": ["one"]},
    "hardware": {"ports": 4},
    "iot": {"vantrel_iot": {"url": "cloud.test"}},
    "network": {"interfaces": {"gateway": "right", "address": 1},
                "wireless": {"cell": {"enable": true, "apn": "a"}, "wifi": {"ssid": "a"}}},
    "system": {"failsafe": {"enable": false}}})";

constexpr char FAILSAFE_ON[] = R"({"enable": true, "timer": 1, "destination_ip": "192.0.2.1"})";
constexpr char FAILSAFE_AUTO[] =
    R"({"enable": true, "auto_mode": true, "timer": 1, "destination_ip": "192.0.2.1"})";

// A request that comes just after a pass of the job manager, so that there is time before the apply; when
// the validation has begun, and when the services restart.
constexpr time_t REQUESTED = 6;
constexpr time_t BEFORE_VALIDATION = 7;
constexpr time_t DURING_VALIDATION = 10;
constexpr time_t DURING_RESTARTS = 13;

// The former configuration with other Wi-Fi, cell and address: network, firewall, Wi-Fi and modem restart.
Json::Value changed() {
    Json::Value config = json(FORMER);
    config["network"]["interfaces"]["address"] = 2;
    config["network"]["wireless"]["wifi"]["ssid"] = "b";
    config["network"]["wireless"]["cell"]["apn"] = "b";
    return config;
}

Json::Value with_failsafe(Json::Value config, const char *settings) {
    config["system"]["failsafe"] = json(settings);
    return config;
}

// One that cuts the router off.
Json::Value locked_out(Json::Value config) {
    config["network"]["interfaces"]["gateway"] = "wrong";
    return config;
}

Json::Value with_member(Json::Value config, const char *section, const char *key, const Json::Value &value) {
    config[section][key] = value;
    return config;
}

input config_job(time_t at, const std::string &id, const Json::Value &config) {
    Json::Value job;
    job["jobId"] = id;
    job["action"] = "CFG";
    job["value"] = config;
    job["params"]["configHash"] = fakes::hash_of(config);
    job["params"]["configLevel"] = 0;
    return message(at, "v1/device/job/" + id + "/apply", compact(job));
}

// As the device's own pages do it.
std::vector<input> requested(time_t at, const Json::Value &config) {
    return {file(at, "/var/volatile/config/config.new", compact(config)),
            message(at, "v1/device/cmd/config/apply", R"({"source":"page"})")};
}

input abort_request(time_t at) {
    return message(at, "v1/device/cmd/config/abort/apply", "");
}

std::vector<input> operator+(std::vector<input> first, const std::vector<input> &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

scenario by_job(const std::string &name, const Json::Value &config, const std::string &status,
                const std::string &msg) {
    scenario given;
    given.name = name;
    given.inputs = {config_job(5, "55", config)};
    given.ends = {archived("55", status, msg)};
    given.former = FORMER;
    given.candidates = {compact(config)};
    given.boots_once_more = true;
    return given;
}

scenario by_request(const std::string &name, const Json::Value &config, const std::string &status,
                    const std::string &msg, const std::vector<input> &more = {}) {
    scenario given = by_job(name, config, status, msg);
    given.inputs = requested(REQUESTED, config) + more;
    given.ends = {archived("FAILSAFE_CONFIG", status, msg)};
    return given;
}

scenario unsupervised(scenario given) {
    given.around.supervised = false;
    given.restarts = {restart::KILL};
    return given;
}

scenario where(scenario given, std::function<void()> each_life) {
    given.each_life = std::move(each_life);
    return given;
}

Json::Value older() {
    return with_member(json(FORMER), "apps", "list", "of an older configuration");
}

// A copy of an older configuration lies there already.
scenario kept_failsafe_copy(scenario given) {
    const Json::Value old = older();
    given.inputs.insert(given.inputs.begin(),
                        {file(1, "/var/data/orv/config.failsafe", compact(old)),
                         file(1, "/var/data/orv/config.failsafe.hash", fakes::hash_of(old))});
    return given;
}

// Without auto_mode it stays.
scenario keeps_copy(scenario given) {
    given.failsafe_copy = compact(older());
    return given;
}

// Nothing can be reported until the next boot.
scenario without_host(scenario given) {
    given.ends.front().where = job_end::place::ACTIVE;
    return given;
}

void timer_cannot_be_written() {
    fakes::always_returns("write_json_file", -1, "FAILSAFE_TIMER");
}

constexpr char APPLIED[] = "config has been applied (no failsafe)";
constexpr char ABORTED[] = "cmd apply aborted";
constexpr char VERIFIED[] = "failsafe config verified";
constexpr char EXPIRED[] = "failsafe timer expired, reverting to config.failsafe";

scenario second_request(const std::string &when, time_t at) {
    const Json::Value second = with_member(changed(), "apps", "list", "two");
    scenario given =
        by_request("a second one during the " + when, changed(), "success", APPLIED, requested(at, second));
    given.candidates.push_back(compact(second));
    return given;
}

// What the first one leaves must not get in its way.
scenario two_jobs() {
    const Json::Value second = with_member(changed(), "apps", "list", "two");
    scenario given = by_job("two, one after the other", changed(), "success", APPLIED);
    given.inputs.push_back(config_job(8, "56", second));
    given.ends.push_back(archived("56", "success", APPLIED));
    given.candidates.push_back(compact(second));
    return given;
}

std::vector<scenario> without_failsafe() {
    return {
        by_job("a good one", changed(), "success", APPLIED),
        by_request("a good one, requested", changed(), "success", APPLIED),
        by_job("one without changes", json(FORMER), "success", "config matches current device config"),
        by_job("one that is invalid", with_member(changed(), "invalid", "yes", true), "failed",
               "config validation failed"),
        by_job("one whose hardware cannot be applied", with_member(changed(), "hardware", "broken", true),
               "failed", "failure applying new config"),
        by_request("aborted before the validation", changed(), "failed", ABORTED,
                   {abort_request(BEFORE_VALIDATION)}),
        by_request("aborted during the validation", changed(), "failed", ABORTED,
                   {abort_request(DURING_VALIDATION)}),
        second_request("validation", DURING_VALIDATION),
        second_request("restarts", DURING_RESTARTS),
        two_jobs(),
        unsupervised(by_job("a good one, agent killed alone", changed(), "success", APPLIED)),
    };
}

std::vector<scenario> with_failsafe() {
    const Json::Value good = with_failsafe(changed(), FAILSAFE_ON);
    const Json::Value bad = locked_out(good);
    return {
        by_job("a good one, verified", good, "success", VERIFIED),
        by_job("a lock-out", bad, "failed", EXPIRED),
        kept_failsafe_copy(
            by_job("a lock-out, auto_mode", with_failsafe(bad, FAILSAFE_AUTO), "failed", EXPIRED)),
        keeps_copy(kept_failsafe_copy(by_job("a lock-out, failsafe copy kept", bad, "failed", EXPIRED))),
        kept_failsafe_copy(
            by_job("a good one, auto_mode", with_failsafe(good, FAILSAFE_AUTO), "success", VERIFIED)),
        by_request("a lock-out, aborted", bad, "failed", "aborted, reverting to config.failsafe",
                   {abort_request(25)}),
        by_job("a lock-out that changes services", with_member(bad, "apps", "list", "two"), "failed",
               EXPIRED),
        where(by_job("no timer file", good, "failed", "error writing failsafe timer file"),
              timer_cannot_be_written),
        without_host(by_job("no destination",
                            with_member(with_failsafe(changed(), R"({"enable": true})"), "iot", "vantrel_iot",
                                        json(R"({"url": ""})")),
                            "failed", "no failsafe config destination IP defined")),
    };
}

} // namespace

scenario_group config_scenarios() {
    return {"configurations", without_failsafe(), config_exceptions()};
}

scenario_group failsafe_scenarios() {
    return {"failsafe", with_failsafe(), failsafe_exceptions()};
}

} // namespace sweep
