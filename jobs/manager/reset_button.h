// The reset button of the model that has one.
#pragma once

// Reads one event from the button's device and carries it out: a short press reboots, a failsafe press
// restores the failsafe configuration, a factory press resets the device; both of these take the client's
// message_mutex, retry every second until they succeed, and reboot. Returns when there is no event.
// Runs on the job manager thread, once a second. Throws std::system_error when the lock fails.
void poll_reset_button();
