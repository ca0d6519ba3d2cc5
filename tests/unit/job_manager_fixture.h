// What the tests of the job manager share. Its neighbours with a long life of their own are the tests' own:
// execute_job_action, check_fw_upgrade_result, cmd_apply and poll_reset_button. Each notes that it was called and
// then does what the test says.
#pragma once

#include "tests/fakes/agent_test.h"

#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/manager/job_manager.h"
#include "jobs/markers.h"

#include <functional>
#include <string>
#include <vector>

namespace neighbours {

// In order: "execute_job_action 77", "check_fw_upgrade_result 77", "cmd_apply 77", "cmd_apply 77 after an
// upgrade", "poll_reset_button". In the journal of the fakes too, by the routine's name.
extern std::vector<std::string> called;

// When each of them was called, in seconds after START_TIME.
extern std::vector<time_t> called_at;

// Done inside each of them; the record is null for the button.
extern std::function<void(Json::Value &job)> inside;

extern const tessard *client; // that the last one was given

void reset();

} // namespace neighbours

class JobManagerTest : public AgentTest {
protected:
    JobManagerTest();
    ~JobManagerTest() override;

    // The time from which on an unacknowledged status may be repeated has come, whatever the tests before
    // have left of it.
    void given_repeat_is_due();

    static void given_unverified_firmware() { write_text(FIRMWARE_UPDATED_FILE, ""); }

    // No thread holds job_manager_mutex.
    static bool manager_mutex_is_free();

    // The statuses reported of a job so far, in order.
    static std::vector<std::string> reported(const std::string &job_id);

    tessard client{"tessard", "localhost", 1883};
};
