// Firmware, from the job to the slot that stays.
#include "tests/sweep/scenario.h"

#include "tests/sweep/names.h"

#include "tests/fakes/config.h"
#include "tests/fakes/device.h"
#include "tests/fakes/files.h"
#include "tests/sweep/firmware.h"

namespace sweep {

namespace {

constexpr char FORMER[] = R"({
    "iot": {"vantrel_iot": {"url": "cloud.test"}},
    "network": {"interfaces": {"gateway": "right", "address": 1}},
    "system": {"failsafe": {"enable": false}}})";

Json::Value changed() {
    Json::Value config = json(FORMER);
    config["network"]["interfaces"]["address"] = 2;
    return config;
}

Json::Value firmware_job(const Json::Value &config) {
    Json::Value job;
    job["jobId"] = "66";
    job["action"] = "FW";
    job["value"] = "http://cloud.test/images/2.0.0.img";
    job["params"]["cfg"] = config;
    job["params"]["hashAtFwVer"] = fakes::hash_of(config);
    return job;
}

constexpr char UPGRADED[] = "FW upgrade 1.0.0 to 2.0.0";
constexpr char NOT_VERIFIED[] = "FW upgrade config verification failed. Reverting to previous FW";

scenario upgrade(const std::string &name, const Json::Value &job, const job_end &end) {
    scenario given;
    given.name = name;
    given.inputs = {message(5, "v1/device/job/66/apply", compact(job))};
    given.ends = {end};
    given.former = FORMER;
    given.candidates = {compact(changed())};
    given.boots_once_more = true;
    return given;
}

scenario upgrade_to(const std::string &name, const Json::Value &config, const std::string &status,
                    const std::string &msg) {
    scenario given = upgrade(name, firmware_job(config), archived("66", status, msg));
    given.candidates = {compact(config)};
    return given;
}

scenario with_tool(scenario given, const upgrade_tool &manner) {
    given.each_life = [manner] { set_upgrade_tool(manner); };
    return given;
}

// The tool gives up before it switches.
scenario not_installed(const std::string &name, const std::string &msg, const upgrade_tool &manner) {
    return with_tool(upgrade_to(name, changed(), "failed", msg), manner);
}

scenario with_wrong_hash(const std::string &name) {
    Json::Value job = firmware_job(changed());
    job["params"]["hashAtFwVer"] = "of another one";
    return upgrade(
        name, job,
        archived("66", "failed",
                 "Error hash mismatch for staged config. Expecting: of another one but calculated: " +
                     fakes::hash_of(changed()) + ". Reverting to previous FW"));
}

Json::Value invalid() {
    Json::Value config = changed();
    config["invalid"] = "2.0.0";
    return config;
}

Json::Value locked_out() {
    Json::Value config = changed();
    config["network"]["interfaces"]["gateway"] = "wrong";
    config["system"]["failsafe"] = json(R"({"enable": true, "timer": 1, "destination_ip": "192.0.2.1"})");
    return config;
}

input reboot_of_the_device(time_t at) {
    return {at, "reboot", "", [] { fakes::device().on_reboot("a person"); }};
}

scenario rebooted_late(const std::string &name) {
    scenario given = with_tool(upgrade_to(name, changed(), "success", UPGRADED), {0, false, false});
    given.inputs.push_back(reboot_of_the_device(60));
    return given;
}

scenario local_upgrade(const std::string &name, const std::string &slot, const std::string &former = FORMER) {
    scenario given;
    given.name = name;
    given.inputs = {{5, "a local upgrade", "", upgrade_locally}};
    given.ends = {gone("LOCAL_FW_UPGRADE")};
    given.slot = slot;
    given.former = former;
    given.boots_once_more = true;
    return given;
}

scenario uncleaned(scenario given) {
    given.around.cleaned = false;
    given.boots_once_more = false;
    given.restarts = {restart::REBOOT};
    return given;
}

scenario modem(const std::string &name, bool in_params, bool at_top, const job_end &end) {
    Json::Value job = firmware_job(changed());
    job["params"] = Json::Value(Json::objectValue);
    if (in_params)
        job["params"]["radio"] = true;
    if (at_top)
        job["radio"] = true;
    scenario given = upgrade(name, job, end);
    given.boots_once_more = false;
    return given;
}

scenario restless(scenario given) {
    given.restless_for = 45;
    return given;
}

std::vector<scenario> upgrades() {
    return {
        upgrade_to("a good upgrade", changed(), "success", UPGRADED),
        with_wrong_hash("a configuration with another hash"),
        upgrade_to("a configuration that is invalid", invalid(), "failed", NOT_VERIFIED),
        upgrade_to("a configuration that locks out", locked_out(), "failed", NOT_VERIFIED),
        not_installed("the image cannot be fetched", "firmware download failed", {108, false, true}),
        not_installed("a code without a text", "", {118, false, true}),
        not_installed("no code at all", "", {0, true, true}),
        not_installed("the image is written by half", "firmware install failed", {117, false, true}),
        rebooted_late("switched and rebooted late"),
    };
}

std::vector<scenario> others() {
    return {
        local_upgrade("a local upgrade", "2"),
        local_upgrade("a local upgrade, configuration refused", "1", compact(invalid())),
        with_tool(local_upgrade("a local upgrade, not installed", "1"), {109, false, true}),
        uncleaned(local_upgrade("a local upgrade, boot cleans nothing", "2")),
        restless(modem("modem firmware", true, true, active("66", "executed"))),
        modem("modem firmware, params only", true, false, archived("66", "failed")),
        restless(modem("modem firmware, top level only", false, true, active("66", "executed"))),
    };
}

} // namespace

scenario_group upgrade_scenarios() {
    return {"upgrades", upgrades(), upgrade_exceptions()};
}

scenario_group other_firmware_scenarios() {
    return {"other_firmware", others(), other_firmware_exceptions()};
}

} // namespace sweep
