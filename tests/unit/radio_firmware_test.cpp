// Firmware jobs of the modem: started in the background, reported by the tool later.
#include "tests/unit/config_bed.h"

#include "actions/firmware_job.h"
#include "jobs/markers.h"

#include <stdexcept>

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char *RADIO_MARKER = "/var/volatile/orv/RADIOFW_JOB_EXECUTING";

class RadioFirmware : public ConfigTest {
protected:
    RadioFirmware() {
        const char *text =
            R"({"jobId":"77", "action":"FW", "value":"http://host/modem image", "status":"received",
                               "params":{"radio":true}})";
        job = json(text);
        given_active_job(text);
        answer_command("/usr/bin/qtel-dfota", 0);
    }
};

TEST_F(RadioFirmware, StartsTheToolInTheBackground) {
    execute_action_fw_install(job);

    EXPECT_THAT(commands(), Contains("/usr/bin/qtel-dfota -i http://host/modem image -j 77 &"));
    EXPECT_THAT(commands(), Not(Contains(HasSubstr("orv-upgradefw"))));
    EXPECT_EQ(job["status"], "executed");
    EXPECT_THAT(reported(), ListIs("executed"));
    EXPECT_FALSE(exists(FW_JOBID));
    EXPECT_FALSE(is_fw_job_executing());
}

TEST_F(RadioFirmware, KeepsItsFlagUntilTheToolReports) {
    qtel_dfota(job);

    EXPECT_TRUE(is_radiofw_job_executing());
    EXPECT_EQ(file_text(RADIO_MARKER), "1\n");
}

TEST_F(RadioFirmware, LogsAndMarksBeforeTheTool) {
    qtel_dfota(job);

    std::vector<std::string> order = calls_of({"syslog", "orvsys"});
    order.resize(4);
    EXPECT_THAT(order, ListIs("syslog execute qtel dfota\n",
                              "orvsys echo 1 > /var/volatile/orv/RADIOFW_JOB_EXECUTING",
                              "syslog FW:execute qtel dfota: 77",
                              "orvsys /usr/bin/qtel-dfota -i http://host/modem image -j 77 &"));
    EXPECT_THAT(log_lines(), Contains(Debug("execute qtel dfota\n")));
    EXPECT_THAT(log_lines(), Contains(Alert("FW:execute qtel dfota: 77")));
}

TEST_F(RadioFirmware, AnotherOneInProgressLeavesItAlone) {
    set_radiofw_job_executing(1);
    const Json::Value before_it = job;
    const size_t commands_before = commands().size();

    qtel_dfota(job);

    EXPECT_EQ(job, before_it);
    EXPECT_THAT(log_lines(), ListIs(Debug("execute qtel dfota\n"),
                                    Debug("dfota job is already executing, not starting this one")));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(commands().size(), commands_before);
    EXPECT_TRUE(is_radiofw_job_executing());
}

TEST_F(RadioFirmware, AToolThatDoesNotStartFailsItAndClearsTheFlag) {
    answer_command("/usr/bin/qtel-dfota", 127);
    bool flag_at_the_report = true;
    before("send_message", [&] { flag_at_the_report = is_radiofw_job_executing(); });

    qtel_dfota(job);

    EXPECT_EQ(job["status"], "failed");
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(reported(), ListIs("failed"));
    EXPECT_FALSE(flag_at_the_report);
    EXPECT_FALSE(exists(RADIO_MARKER));
}

TEST_F(RadioFirmware, AnyDeviceTypeTakesIt) {
    fakes::device().device_type = 3;
    execute_action_fw_install(job);
    EXPECT_EQ(job["status"], "executed");
}

TEST_F(RadioFirmware, WithoutAUrlItFailsAndIsStillTried) {
    job.removeMember("value");

    execute_action_fw_install(job);

    EXPECT_THAT(reported(), ListIs("failed", "executed"));
    EXPECT_THAT(commands(), Contains("/usr/bin/qtel-dfota -i  -j 77 &"));
}

TEST_F(RadioFirmware, ARadioThatReadsTrueIsEnough) {
    job["params"]["radio"] = 1;
    execute_action_fw_install(job);
    EXPECT_TRUE(is_radiofw_job_executing());
}

TEST_F(RadioFirmware, AnExceptionIsLoggedAndTheFlagFalls) {
    answer_command("/usr/bin/qtel-dfota",
                   [](const std::string &) -> int { throw std::runtime_error("any"); });

    execute_action_fw_install(job);

    EXPECT_THAT(log_lines(), Contains(Debug("qtel_dfota: exception handler")));
    EXPECT_FALSE(is_radiofw_job_executing());
    EXPECT_FALSE(exists(RADIO_MARKER));
    EXPECT_FALSE(exists(FW_JOBID));
}
