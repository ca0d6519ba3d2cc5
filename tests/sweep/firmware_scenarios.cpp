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

scenario upgrade(const std::string &name, const Json::Value &job) {
    scenario given;
    given.name = name;
    given.inputs = {message(5, "v1/device/job/66/apply", compact(job))};
    given.former = FORMER;
    given.candidates = {compact(changed())};
    given.boots_once_more = true;
    return given;
}

scenario upgrade_to(const std::string &name, const Json::Value &config) {
    scenario given = upgrade(name, firmware_job(config));
    given.candidates = {compact(config)};
    return given;
}

scenario with_tool(scenario given, const upgrade_tool &manner) {
    given.each_life = [manner] { set_upgrade_tool(manner); };
    return given;
}

scenario with_wrong_hash(const std::string &name) {
    Json::Value job = firmware_job(changed());
    job["params"]["hashAtFwVer"] = "of another one";
    return upgrade(name, job);
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
    scenario given = with_tool(upgrade_to(name, changed()), {0, false, false});
    given.inputs.push_back(reboot_of_the_device(60));
    return given;
}

scenario local_upgrade(const std::string &name, const std::string &former = FORMER) {
    scenario given;
    given.name = name;
    given.inputs = {{5, "a local upgrade", "", upgrade_locally}};
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

scenario modem(const std::string &name, bool in_params, bool at_top) {
    Json::Value job = firmware_job(changed());
    job["params"] = Json::Value(Json::objectValue);
    if (in_params)
        job["params"]["radio"] = true;
    if (at_top)
        job["radio"] = true;
    scenario given = upgrade(name, job);
    given.boots_once_more = false;
    return given;
}

scenario restless(scenario given) {
    given.restless_for = 45;
    return given;
}

std::vector<scenario> upgrades() {
    return {
        upgrade_to("a good upgrade", changed()),
        with_wrong_hash("a configuration with another hash"),
        upgrade_to("a configuration that is invalid", invalid()),
        upgrade_to("a configuration that locks out", locked_out()),
        with_tool(upgrade_to("the image cannot be fetched", changed()), {108, false, true}),
        with_tool(upgrade_to("a code without a text", changed()), {118, false, true}),
        with_tool(upgrade_to("no code at all", changed()), {0, true, true}),
        with_tool(upgrade_to("the image is written by half", changed()), {117, false, true}),
        rebooted_late("switched and rebooted late"),
    };
}

std::vector<scenario> others() {
    return {
        local_upgrade("a local upgrade"),
        local_upgrade("a local upgrade, configuration refused", compact(invalid())),
        with_tool(local_upgrade("a local upgrade, not installed"), {109, false, true}),
        uncleaned(local_upgrade("a local upgrade, boot cleans nothing")),
        restless(modem("modem firmware", true, true)),
        modem("modem firmware, params only", true, false),
        restless(modem("modem firmware, top level only", false, true)),
    };
}

// --- What breaks by design.

constexpr char SUCCESS_UNMARKED[] =
    "A cut between the recorded success and the deletion of FIRMWARE_UPDATED: once the job is acknowledged and "
    "archived, the mark has no job and the former firmware boots.";
constexpr char STORED_AS_IT_IS[] =
    "An upgrade that does not know which slot it left ends with the record as it stands: with the session of "
    "\"executed\", and archived unreported when that was acknowledged.";
constexpr char NOT_SWITCHED_BACK[] =
    "The end is stored and the mark deleted before the slot is switched back: a cut between them leaves the new one.";
constexpr char OWN_RECORD[] = "The device's own record, deleted at the end of the apply.";
constexpr char NOT_LOOKED_AT[] =
    "Cut between the mark and the switch: the recovery does not look at the slot and verifies the old firmware.";
constexpr char MARK_SURVIVES[] =
    "LOCAL_FW_UPGRADE survives its recovery's reboot, which comes before its deletion; boot has to remove it.";
constexpr char UNTIL_BOOT[] = "What a cut upgrade has left goes at the next boot.";
constexpr char NEVER_ENDS[] =
    "A modem job stays \"executed\" when its tool is done, and is looked at on each pass.";
constexpr char TAKEN_FOR_SYSTEM[] =
    "Without the top-level key the next pass takes it for a system upgrade without a new slot, and switches.";
constexpr char NEVER_CHECKED[] =
    "With the top-level key alone a system upgrade is started and never checked.";

std::vector<known_exception> upgrade_exceptions() {
    return {
        {"", SLOT_ENDS, "job 66 is a success, and slot 1 runs now", SUCCESS_UNMARKED},
        {"",
         SLOT_ENDS,
         "job 66 is a failed, and slot 2 runs",
         NOT_SWITCHED_BACK,
         {restart::KILL, restart::REBOOT}},
        {"", HASHES, "/var/data/orv/config.hash", BETWEEN_COPIES, {restart::KILL, restart::REBOOT}},
        {"", HASHES, "/var/data/orv/config.failsafe.hash", BETWEEN_COPIES, {restart::KILL, restart::REBOOT}},
    };
}

std::vector<known_exception> other_exceptions() {
    return {
        {"a local upgrade", ARCHIVED, "LOCAL_FW_UPGRADE is lost", OWN_RECORD},
        {"a local upgrade", SLOT_ENDS, "a success, and slot 1 runs as ever", NOT_LOOKED_AT},
        {"configuration refused",
         SLOT_ENDS,
         "a failed, and slot 2 runs",
         NOT_SWITCHED_BACK,
         {restart::KILL, restart::REBOOT}},
        {"boot cleans nothing", NO_UPGRADE_LEFT, "LOCAL_FW_UPGRADE", MARK_SURVIVES},
        {"boot cleans nothing", NO_UPGRADE_LEFT, "config.staged", UNTIL_BOOT},
        {"a local upgrade", NO_UPGRADE_LEFT, "LOCAL_FW_UPGRADE", UNTIL_BOOT, {restart::KILL}},
        {"a local upgrade", NO_UPGRADE_LEFT, "config.staged is", UNTIL_BOOT, {restart::KILL}},
        {"a local upgrade", NO_UPGRADE_LEFT, "config.staged.hash", UNTIL_BOOT},
        {"params only", SLOT_ENDS, "a failed, and slot 2 runs", TAKEN_FOR_SYSTEM},
        {"params only", REPORTED, "archived as failed", STORED_AS_IT_IS},
        {"params only", SESSIONS, "executed and failed", STORED_AS_IT_IS},
        {"top level only", ARCHIVED, "still active: executed", NEVER_CHECKED},
        {"top level only", NO_UPGRADE_LEFT, "FIRMWARE_UPDATED", NEVER_CHECKED},
        {"modem firmware", ARCHIVED, "still active: executed", NEVER_ENDS},
        {"modem firmware", NO_MARKER, "RADIOFW_JOB_EXECUTING", NEVER_ENDS},
        {"modem firmware", NO_MARKER, "FW_JOBID", NEVER_ENDS, {restart::KILL}},
        {"modem firmware", NO_MARKER, "FW_JOB_EXECUTING", NEVER_ENDS, {restart::STALL}},
    };
}

} // namespace

scenario_group upgrade_scenarios() {
    return {"upgrades", upgrades(), upgrade_exceptions()};
}

scenario_group other_firmware_scenarios() {
    return {"other_firmware", others(), other_exceptions()};
}

} // namespace sweep
