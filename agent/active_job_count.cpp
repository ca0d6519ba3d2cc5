#include "agent/active_job_count.h"

#include "jobs/job_store.h"
#include "platform/sysdb.h"
#include "platform/vantrel.h"

#include <cstdlib>

#include <syslog.h>

int update_active_job_count() {
    constexpr char COUNT_FILE[] = "/tmp/.active_job_count";
    delete_file(COUNT_FILE);
    orvsys("/bin/ls %s | /usr/bin/wc -l > %s", ACTIVE_JOB_DIR, COUNT_FILE);

    char text[VAR_FILE_SIZE] = "";
    if (read_var_file(COUNT_FILE, text) != 0 || text[0] == '\0')
        return -1;

    const int count = static_cast<int>(strtol(text, nullptr, 10));
    syslog(LOG_DEBUG, "active job count: %d", count);
    if (count < 0)
        return -1;

    sysdb_namedb_write_int(nullptr, "SYS", "SYS_JOB_COUNT", count, 0);
    return count;
}
