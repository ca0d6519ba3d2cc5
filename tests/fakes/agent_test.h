// The base of every test of the agent's own code: a device never used, all fakes in their working
// mode, the clock at START_TIME.
//
//   class JobPubAck : public AgentTest { ... };
//   TEST_F(JobPubAck, ...) { ... }
//
// What the rest of this folder offers, by header:
//   files.h    write_text, file_text, given_active_job, active_jobs, archived_job, ...
//   mqtt.h     fakes::mqtt(), published, published_on, test_message
//   device.h   fakes::device(), answer_command, commands, reboots, fake_reboot
//   config.h   fakes::config(), set_config, given_config (also sysdb and the device token)
//   clock.h    set_time, advance, sleeps, run_for
//   log.h      log_lines, opened_logs;  matchers.h  Alert, Error, Notice, Info, Debug, HasMembers
//   list_is.h  ListIs
//   calls.h    will_return, always_returns, calls, calls_of: for tests where order is required
#pragma once

#include "tests/fakes/calls.h"
#include "tests/fakes/clock.h"
#include "tests/fakes/config.h"
#include "tests/fakes/device.h"
#include "tests/fakes/files.h"
#include "tests/fakes/list_is.h"
#include "tests/fakes/log.h"
#include "tests/fakes/matchers.h"
#include "tests/fakes/mqtt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fakes {

// All state of the fakes as at the start of a process, and the file system of a device never used.
// The running configuration has an enabled "iot.vantrel_iot".
void reset();

} // namespace fakes

class AgentTest : public testing::Test {
protected:
    AgentTest() { fakes::reset(); }
};
