#include "config/change_actions.h"

#include "jobs/job_record.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <syslog.h>

namespace {

struct restarts {
    bool network;
    bool firewall;
    bool wifi;
    bool cell;
    bool ipsec;
    bool netwd;
    bool apps;
    bool iot;
    bool pulse = false; // the network restart takes the Ethernet ports down and up

    explicit restarts(bool all)
        : network(all), firewall(all), wifi(all), cell(all), ipsec(all), netwd(all), apps(all), iot(all) {}
};

int apply_hardware(const Json::Value &changes) {
    if (!config_area_changed(changes, "hardware"))
        return 0;
    update_config_apply_status("detected hardware config change, updating meta");
    if (cmd_hwconfig() == 0)
        return 0;
    restore_meta_file();
    update_config_apply_status("error applying hardware config");
    return -1;
}

void record_qtel_mgr_pid(Json::Value &job) {
    int pid = 0;
    if (read_qtel_mgr_pid(pid))
        job[KEY_QTEL_MGR_PID] = pid;
}

void collect_path(const std::string &path, Json::Value &job, restarts &needed) {
    if (path == "network.monitoring.multiwan") {
        needed.network = true;
    } else if (path == "network.tunnels.ipsec") {
        needed.ipsec = true;
        needed.firewall = true;
    } else if (path == "iot.vantrel_iot") {
        needed.iot = true;
    } else if (path == "network.wireless.cell" || path == "gps.gps") {
        record_qtel_mgr_pid(job);
    }
}

// The library's own restart commands are folded into the fixed ones; any other command runs at once.
void collect_command(const std::string &command, restarts &needed) {
    if (command.find("cmd_netgen apply") != command.npos) {
        needed.network = true;
        needed.firewall = true;
        if (command.find("--pulse-ethernet") != command.npos)
            needed.pulse = true;
    } else if (command == "/usr/bin/cmd_firewall apply") {
        needed.firewall = true;
    } else if (command == "/usr/bin/cmd_wifi apply") {
        needed.wifi = true;
        needed.network = true;
        needed.firewall = true;
    } else if (command == "/bin/systemctl reload qtel-mgr") {
        needed.cell = true;
        needed.netwd = true;
    } else if (command == "/bin/systemctl reload vtr-netwd") {
        needed.netwd = true;
    } else if (command == "/bin/systemctl reload vtr-iot") {
        needed.iot = true;
    } else {
        syslog(LOG_DEBUG, "execute config apply action: %s", command.c_str());
        (void)system(command.c_str());
    }
}

void collect_area(const Json::Value &change, Json::Value &job, restarts &needed) {
    const std::string path = change["path"].asString();
    syslog(LOG_DEBUG, "config path: %s", path.c_str());
    if (path == "hardware")
        return;
    collect_path(path, job, needed);
    for (const Json::Value &line : change["cmd_apply"]) {
        const std::string command = line.asString();
        syslog(LOG_DEBUG, "config path: %s  apply action: %s", path.c_str(), command.c_str());
        collect_command(command, needed);
    }
}

void run_restarts(const restarts &needed) {
    if (needed.network) {
        update_config_apply_status("network restart");
        (void)system(needed.pulse ? "/usr/bin/cmd_netgen apply --pulse-ethernet"
                                  : "/usr/bin/cmd_netgen apply");
    }
    if (needed.firewall) {
        update_config_apply_status("firewall restart");
        (void)system("/usr/bin/cmd_firewall apply");
    }
    if (needed.wifi) {
        update_config_apply_status("wifi restart");
        (void)system("/usr/bin/cmd_wifi apply");
        (void)system("/usr/bin/cmd_wifi reload");
    }
    if (needed.cell) {
        update_config_apply_status("cell restart");
        execute_systemctl_reload("qtel-mgr");
    }
    if (needed.ipsec) {
        update_config_apply_status("ipsec restart");
        (void)system("/usr/bin/cmd_ipsec restart");
    }
    if (needed.netwd) {
        update_config_apply_status("netwd restart");
        execute_systemctl_reload("vtr-netwd");
    }
    if (needed.apps) {
        update_config_apply_status("apps restart");
        execute_systemctl_reload("vtr-app-mgr");
    }
    if (needed.iot) {
        update_config_apply_status("reload iot config");
        execute_systemctl_reload("vtr-iot");
    }
}

} // namespace

int apply_config_changes(Json::Value &job, const Json::Value &changes, bool after_fw_upgrade) {
    store_meta_file();
    if (apply_hardware(changes) != 0)
        return -1;

    restarts needed(after_fw_upgrade);
    if (config_area_changed(changes, "apps")) {
        update_config_apply_status("detected apps config change");
        needed.apps = true;
    }
    for (const Json::Value &change : changes)
        collect_area(change, job, needed);
    run_restarts(needed);
    return 0;
}

bool config_area_changed(const Json::Value &changes, const char *area) {
    for (const Json::Value &change : changes) {
        if (change["path"].asString() == area) {
            syslog(LOG_NOTICE, "detected %s config change", area);
            return true;
        }
    }
    return false;
}

bool read_qtel_mgr_pid(int &pid) {
    FILE *file = fopen("/var/run/qtel-mgr.pid", "rt");
    if (!file)
        return false;
    const bool found = fscanf(file, "%d", &pid) == 1;
    fclose(file);
    return found;
}
