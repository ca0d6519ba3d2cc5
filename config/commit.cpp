#include "config/commit.h"

#include "config/config_files.h"
#include "jobs/job_store.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

void commit_running_config() {
    copy_file(RUNNING_CONFIG.config, SAVED_CONFIG.config);
    copy_file(RUNNING_CONFIG.hash, SAVED_CONFIG.hash);
    store_meta_file();
    clear_failsafe_markers();
    sync_to_fs(SYNC_PERSISTENT);
    save_hw_config_section_to_nv();
}

void delete_new_config_files() {
    delete_file(NEW_CONFIG.config);
    delete_file(NEW_CONFIG.hash);
    delete_file(NEW_CONFIG_COPY);
}

void clear_failsafe_markers() {
    delete_file(FAILSAFE_TIMER_FILE);
    delete_file(CONFIG_MODIFIED_FILE);
}
