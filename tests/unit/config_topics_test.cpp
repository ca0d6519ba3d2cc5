// The configuration topics: change, publish and reset the configuration, jobs that come as attributes.
#include "tests/unit/config_bed.h"

#include "agent/config_topics.h"
#include "jobs/job_status.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class ConfigTopics : public ConfigTest {
protected:
    void deliver(const std::string &topic, const std::string &payload = "{}") {
        cmd_apply_topic(client, test_message(topic, payload).get());
    }

    void request(const std::string &payload = "{}") { deliver("v1/device/cmd/config/apply", payload); }

    static Json::Value queued() { return active_job("FAILSAFE_CONFIG"); }

    static void expect_nothing_requested() {
        EXPECT_THAT(active_jobs(), IsEmpty());
        EXPECT_THAT(fakes::config().apply_progress, IsEmpty());
    }
};

// --- a change is requested

TEST_F(ConfigTopics, ARequestBecomesTheOneConfigurationJob) {
    request(R"({"source":"web", "jobId":"other", "extra":1})");

    EXPECT_THAT(active_jobs(), ListIs("FAILSAFE_CONFIG"));
    EXPECT_THAT(queued(), IsJson(R"({"source":"web", "jobName":"FAILSAFE_CONFIG", "action":"FAILSAFE_CONFIG",
        "cfg_verified":false, "payload":null, "jobId":"FAILSAFE_CONFIG", "status":"received", "ack":false,
        "ack_attempts":0, "ackId":1700000000, "timestamp":1700000000})"));
    EXPECT_EQ(log_lines().front(), (log_line{LOG_NOTICE, "cmd_apply: v1/device/cmd/config/apply"}));
    EXPECT_THAT(log_lines(), Contains(Alert("write new job file: FAILSAFE_CONFIG")));
    EXPECT_THAT(published(), IsEmpty());
}

TEST_F(ConfigTopics, ARequestWithoutSourceHasNone) {
    for (const char *payload : {"{}", "[]", "7", "\"source\"", "null"}) {
        request(payload);
        EXPECT_TRUE(queued().isObject()) << payload;
        EXPECT_FALSE(queued().isMember("source")) << payload;
    }
}

TEST_F(ConfigTopics, TheSourceIsCopiedWhateverItIs) {
    request(R"({"source":{"a":[1, null]}})");
    EXPECT_THAT(queued()["source"], IsJson(R"({"a":[1, null]})"));
}

TEST_F(ConfigTopics, APayloadInTheRequestNamesNoOtherJob) {
    request(R"({"payload":{"jobId":"other"}})");

    EXPECT_THAT(active_jobs(), ListIs("FAILSAFE_CONFIG"));
    EXPECT_TRUE(queued()["payload"].isNull());
}

TEST_F(ConfigTopics, AnotherRequestReplacesTheJobAsReceived) {
    given_active_job(R"({"jobId":"FAILSAFE_CONFIG", "status":"executed", "source":"first", "msg":"m"})");
    advance(10);

    request(R"({"source":"second"})");

    EXPECT_THAT(queued(), HasMembers(R"({"source":"second", "status":"received", "timestamp":1700000010})"));
    EXPECT_FALSE(queued().isMember("msg"));
}

TEST_F(ConfigTopics, QueuingAloneSetsNoMark) {
    queue_failsafe_config_job(client, json(R"({"source":"web"})"));

    EXPECT_EQ(queued()["source"], "web");
    EXPECT_THAT(fakes::config().apply_progress, IsEmpty());
}

TEST_F(ConfigTopics, TheMarkOfARequestComesBeforeItsJob) {
    request();

    EXPECT_THAT(calls(), ListIs("set_config_apply_in_progress config change is queued",
                                "write_json_file /var/data/orv/vantrel_iot/jobs/active/FAILSAFE_CONFIG",
                                "sync_to_fs 2"));
}

TEST_F(ConfigTopics, ARequestDuringAJobSaysThatItWillBeDelayed) {
    for (const char *marker : {"FW_JOBID", "FW_JOB_EXECUTING", "CONFIG_JOB_EXECUTING",
                               "RADIOFW_JOB_EXECUTING", "CRITICAL_JOB_EXECUTING"}) {
        fakes::reset_files();
        fakes::config().apply_progress.clear();
        write_text(std::string("/var/volatile/orv/") + marker, "1");

        request();

        EXPECT_THAT(fakes::config().apply_progress,
                    ListIs("set config change is queued",
                           "set a job is currently in progress, the config change will be delayed until "
                           "current job completes"))
            << marker;
        EXPECT_THAT(active_jobs(), ListIs("FAILSAFE_CONFIG")) << marker;
    }
}

TEST_F(ConfigTopics, ARequestDuringAVerificationIsRefusedAndNotQueued) {
    write_text(TIMER, "{}");

    request();
    request("no JSON");

    EXPECT_THAT(log_lines(), ListIs(Notice("cmd_apply: v1/device/cmd/config/apply"),
                                    Notice("failsafe config apply already in progess"),
                                    Notice("cmd_apply: v1/device/cmd/config/apply"),
                                    Notice("failsafe config apply already in progess")));
    expect_nothing_requested();
}

TEST_F(ConfigTopics, ARequestThatIsNoJsonIsDroppedSilently) {
    for (const char *payload : {"", "{", "config"}) {
        request(payload);
        expect_nothing_requested();
    }
    EXPECT_EQ(log_lines().size(), 3U); // the topic of each
}

TEST_F(ConfigTopics, AnyNameWithConfigIsARequest) {
    deliver("v1/device/cmd/netconfig/apply");
    EXPECT_THAT(active_jobs(), ListIs("FAILSAFE_CONFIG"));
}

TEST_F(ConfigTopics, OtherCommandsAreLeftAlone) {
    deliver("v1/device/cmd/cfgpush/apply");

    EXPECT_THAT(log_lines(), ListIs(Notice("cmd_apply: v1/device/cmd/cfgpush/apply")));
    expect_nothing_requested();
}

TEST_F(ConfigTopics, ARequestArrivesThroughTheMessageHook) {
    client.on_message(test_message("v1/device/cmd/config/apply", R"({"source":"cloud"})").get());

    EXPECT_EQ(queued()["source"], "cloud");
}

// --- the meta data

TEST_F(ConfigTopics, MetainitRebuildsTheMetaDataAndReadsNoPayload) {
    write_text(TIMER, "{}");
    for (const char *topic : {"v1/device/cmd/metainit/apply", "v1/device/cmd/config-metainit/apply"})
        deliver(topic, "no JSON");
    deliver("v1/device/cmd/metainit-config/apply", "{}");

    EXPECT_THAT(calls(), ListIs("cmd_metainit", "cmd_metainit", "cmd_metainit"));
    EXPECT_THAT(log_lines(),
                ListIs(Notice("cmd_apply: v1/device/cmd/metainit/apply"), Notice("cmd metainit OK"),
                       Notice("cmd_apply: v1/device/cmd/config-metainit/apply"), Notice("cmd metainit OK"),
                       Notice("cmd_apply: v1/device/cmd/metainit-config/apply"), Notice("cmd metainit OK")));
    expect_nothing_requested();
}

TEST_F(ConfigTopics, AFailedMetainitIsLogged) {
    fakes::will_return("cmd_metainit", {-1, 1});
    deliver("v1/device/cmd/metainit/apply");
    deliver("v1/device/cmd/metainit/apply");

    EXPECT_THAT(log_lines(),
                AllOf(Contains(Notice("cmd metainit FAIL")), Not(Contains(Notice("cmd metainit OK")))));
}

// --- the configuration is published

TEST_F(ConfigTopics, PublishesThePersistentConfigurationWhole) {
    const int id_before = status_message_id;

    publish_config(client, nullptr);

    ASSERT_EQ(published().size(), 1U);
    const auto message = published().front();
    EXPECT_EQ(message.topic, "v1/device/config/publish/0");
    EXPECT_THAT(message.json, IsJson(old_config()));
    EXPECT_EQ(message.payload.find('\n'), std::string::npos);
    EXPECT_EQ(message.message_id, &status_message_id);
    EXPECT_EQ(message.message_id_value, id_before + 1);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(ConfigTopics, PublishesUnderASuffix) {
    publish_config(client, "web");
    publish_config(client, "");

    EXPECT_THAT(published_topics(), ListIs("v1/device/config/publish/web", "v1/device/config/publish/"));
}

TEST_F(ConfigTopics, ATopicEndsAfter127Characters) {
    publish_config(client, std::string(200, 's').c_str());

    EXPECT_EQ(published().front().topic, "v1/device/config/publish/" + std::string(102, 's'));
}

TEST_F(ConfigTopics, AnUnreadableConfigurationIsNotPublished) {
    const int id_before = status_message_id;
    write_text(SAVED, "{");
    publish_config(client, nullptr);
    std::remove(SAVED);
    publish_config(client, nullptr);

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(status_message_id, id_before);
}

// --- the configuration is reset

TEST_F(ConfigTopics, AResetPublishesTheConfigurationAfterIt) {
    before("cmd_reset_to_default", [] { write_text(SAVED, R"({"name":"default"})"); });

    process_config_reset(client, "network");

    EXPECT_THAT(calls_of({"cmd_reset_to_default"}), ListIs("cmd_reset_to_default network"));
    EXPECT_THAT(published_topics(), ListIs("v1/device/config/publish/0"));
    EXPECT_THAT(published().front().json, IsJson(R"({"name":"default"})"));
    EXPECT_THAT(log_lines(), ListIs(Debug("process_config_reset network")));
}

TEST_F(ConfigTopics, ARefusedResetPublishesNothing) {
    fakes::will_return("cmd_reset_to_default", {1});

    process_config_reset(client, "network");

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(log_lines(), ListIs(Debug("process_config_reset network"), Debug("error on reset network")));
}

TEST_F(ConfigTopics, AResetMayHaveAnEmptyRequest) {
    client.on_message(test_message("v1/device/config/reset", "").get());

    EXPECT_THAT(log_lines(), Contains(Debug("process_config_reset ")));
    EXPECT_EQ(published().size(), 1U);
}

// --- jobs as attributes

TEST_F(ConfigTopics, AnAttributeWithAnActionBecomesAJob) {
    process_attribute(client, json(R"({"job-2":"{\"action\":\"CMD\", \"jobId\":\"other\"}"})"));

    EXPECT_THAT(active_jobs(), ListIs("job-2"));
    EXPECT_THAT(active_job("job-2"), HasMembers(R"({"jobId":"job-2", "action":"CMD", "status":"received",
        "ack":false, "ack_attempts":0, "ackId":1700000000, "timestamp":1700000000})"));
    EXPECT_THAT(log_lines(), ListIs(Debug("process_attribute"), Debug("property: job-2"),
                                    Debug(R"(property is jobId: {"action":"CMD", "jobId":"other"})"),
                                    Debug("write job file: job-2"), Alert("write new job file: job-2")));
}

TEST_F(ConfigTopics, ARepeatedAttributeReplacesTheJobAsReceived) {
    given_active_job(R"({"jobId":"job-2", "action":"CMD", "status":"executed", "msg":"m"})");

    process_attribute(client, json(R"({"job-2":"{\"action\":\"CMD\"}"})"));

    EXPECT_EQ(active_job("job-2")["status"], "received");
    EXPECT_FALSE(active_job("job-2").isMember("msg"));
}

TEST_F(ConfigTopics, ADeletedAttributeIsOnlyLogged) {
    process_attribute(client, json(R"({"deleted":"{\"action\":\"CMD\"}"})"));

    EXPECT_THAT(log_lines(), ListIs(Debug("process_attribute"), Debug("property: deleted"),
                                    Debug(R"(attribute {"action":"CMD"} has been deleted)")));
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(ConfigTopics, AttributesThatAreNoJobsAreSkippedSilently) {
    process_attribute(client,
                      json(R"({"a":"no JSON", "b":"{}", "c":"[]", "d":"7", "e":7, "f":true, "g":null, "h":"",
                                       "i":"\"action\"", "z":"{\"action\":\"CMD\"}"})"));

    EXPECT_THAT(active_jobs(), ListIs("z"));
    EXPECT_THAT(log_lines(), AllOf(Contains(Debug("property: a")), Contains(Debug("property: i")),
                                   Not(Contains(Debug("process_attribute: exception handler")))));
}

TEST_F(ConfigTopics, AttributesAreTakenInTheOrderOfTheirNames) {
    process_attribute(client, json(R"({"b":"{\"action\":\"CMD\"}", "a":"{\"action\":\"CMD\"}"})"));

    EXPECT_THAT(calls_of({"write_json_file"}),
                ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/a",
                       "write_json_file /var/data/orv/vantrel_iot/jobs/active/b"));
}

TEST_F(ConfigTopics, WithoutAttributesNothingHappens) {
    process_attribute(client, json("{}"));
    process_attribute(client, Json::Value());

    EXPECT_THAT(log_lines(), ListIs(Debug("process_attribute"), Debug("process_attribute")));
}

TEST_F(ConfigTopics, AnExceptionEndsTheLoop) {
    process_attribute(client, json(R"({"a":{"action":"CMD"}, "b":"{\"action\":\"CMD\"}"})"));

    EXPECT_THAT(log_lines(), ListIs(Debug("process_attribute"), Debug("property: a"),
                                    Debug("process_attribute: exception handler")));
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(ConfigTopics, AttributesThatAreNoObjectAreAnException) {
    for (const char *attributes : {"[]", "7", "\"text\""})
        process_attribute(client, json(attributes));

    EXPECT_THAT(log_lines(), Contains(Debug("process_attribute: exception handler")).Times(3));
}

TEST_F(ConfigTopics, AnAttributeNameThatIsNoFileNameIsNoJob) {
    process_attribute(client, json(R"({"../x":"{\"action\":\"CMD\"}", "":"{\"action\":\"CMD\"}"})"));

    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_THAT(calls_of({"write_json_file"}), IsEmpty());
}

// --- access levels

TEST_F(ConfigTopics, AnAccessLevelIsAskedOfTheRunningConfiguration) {
    fakes::config().access_levels["network"] = 3;

    EXPECT_TRUE(config_acl_level_is(client, "network", 3));
    EXPECT_FALSE(config_acl_level_is(client, "network", 2));

    EXPECT_THAT(fakes::config().metas_built, ListIs("false /var/volatile/config/config.running ",
                                                    "false /var/volatile/config/config.running "));
    EXPECT_THAT(log_lines(),
                ListIs(Debug("config: network acl level:3"), Debug("config: network acl level:3")));
}

TEST_F(ConfigTopics, AnUnknownPathHasNoAccessLevel) {
    EXPECT_FALSE(config_acl_level_is(client, "network", 0));
    EXPECT_THAT(log_lines(), IsEmpty());
}
