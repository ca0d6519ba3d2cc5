// Making a configuration permanent, and clearing its candidates. Shared by the apply and the failsafe
// verification; runs on the thread of the apply.
#pragma once

// The running configuration becomes the one the device boots with; flushed.
void commit_running_config();

// Deletes the candidate, its hash and its persistent copy.
void delete_new_config_files();

// Deletes the failsafe timer and the mark of an uncommitted change.
void clear_failsafe_markers();
