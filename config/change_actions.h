// Lets the device's services pick up a new running configuration. Runs on the thread of the apply; results of
// the commands are not examined.
#pragma once

#include <json/json.h>

// Walks the change list: runs commands it does not know at once, collects the restarts, and runs each of
// those once, in a fixed order; after a firmware upgrade all of them. Stores the modem manager's process id in
// the job as "qtel_mgr_pid" when the cell or GPS area changed. 0; -1 when the hardware section could not be
// applied: then the meta data is restored and nothing else is done.
int apply_config_changes(Json::Value &job, const Json::Value &changes, bool after_fw_upgrade);

// The change list holds an element with exactly this path.
bool config_area_changed(const Json::Value &changes, const char *area);

// Reads the modem manager's process id from its pid file. False when there is none: pid stays as it was.
bool read_qtel_mgr_pid(int &pid);
