// The base of tests in which statuses are reported: a client through which everyone publishes, and a
// clock beyond every repeat interval that an earlier test of this process has begun.
#pragma once

#include "tests/fakes/agent_test.h"

#include "agent/client/tessard.h"
#include "jobs/job_status.h"

class ReportingTest : public AgentTest {
protected:
    ReportingTest() {
        Json::Value no_job;
        update_job_status(no_job, 0); // the first call in a process begins the first interval
        fakes::reset();
        set_time(next_start += SECONDS_PER_TEST);
        iot_client = &client;
    }
    ~ReportingTest() override { iot_client = nullptr; }

    tessard client{"tessard", "localhost", 1883};

private:
    static constexpr time_t SECONDS_PER_TEST = 10'000; // no test moves the clock that far
    inline static time_t next_start = START_TIME;
};
