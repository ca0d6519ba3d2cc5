#include "agent/start_up.h"

#include "agent/client/tessard.h"
#include "agent/main_loop.h"
#include "jobs/job_status.h"
#include "jobs/manager/job_manager.h"
#include "platform/vantrel.h"

#include <functional>
#include <thread>

#include <syslog.h>

void run_agent() {
    openlog("iot", 0, LOG_LOCAL0);
    syslog(LOG_NOTICE, "Starting tessard");
    create_pidfile("/var/run/tessard.pid");

    auto *client = new tessard("tessard", "localhost", 1883); // lives as long as the process
    iot_client = client; // before the job manager runs: a message may be handled sooner
    client->start_mqtt_connection();
    const std::thread job_manager(job_mgr_main, std::ref(*client)); // never joined: the loop never ends

    for (main_loop_state state;;)
        main_loop_pass(*client, state);
}
