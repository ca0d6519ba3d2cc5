// The two firmware slots, the tool that upgrades them, and the modem's tool.
//
// A slot holds the version that was installed there, or a part of one. Which slot boots, and what the slots
// hold, outlives everything; each of these writes is on the flash before the next one begins.
#pragma once

#include <functional>
#include <string>

namespace sweep {

// How the upgrade tool goes about it, in each life that sets it.
struct upgrade_tool {
    int error_code = 0;          // what it leaves in FW_ERR_CODE; 117 comes in the middle of the install
    bool fails_silently = false; // without a code
    bool reboots = true;         // else it returns 0 with the slot switched, and someone else reboots
};

void set_upgrade_tool(const upgrade_tool &manner);

// A new device: both slots whole, the first one boots.
void make_slots();

// Boot's part: the slot to boot runs; ROOTFS2 is true to it.
void boot_slot();

// In the process of a life.
void enter_firmware(std::function<void()> reboot);

// The tools' commands. False when it is none of them.
bool run_firmware_command(const std::string &command, int &status);

// A person upgrades the router at the router: the configuration in force is carried over.
void upgrade_locally();

void switch_slot();

std::string booted_slot();
std::string slot_to_boot();
bool is_whole(const std::string &slot);

} // namespace sweep
