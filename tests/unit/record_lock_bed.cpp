#include "tests/unit/record_lock_bed.h"

#include "jobs/job_store.h"
#include "tests/fakes/calls.h"

#include <pthread.h>

#include <cerrno>

extern "C" int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);

namespace {

thread_local bool held = false;

bool is_the_records(const pthread_mutex_t *mutex) {
    return mutex == job_record_mutex.native_handle();
}

} // namespace

bool record_lock_bed::held_here() {
    return held;
}

std::function<void()> record_lock_bed::on_wait;
std::function<void()> record_lock_bed::before_write;

extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    if (mutex == job_file_mutex.native_handle() && record_lock_bed::before_write)
        record_lock_bed::before_write();
    if (!is_the_records(mutex))
        return __real_pthread_mutex_lock(mutex);
    int result = pthread_mutex_trylock(mutex);
    if (result == EBUSY) {
        if (record_lock_bed::on_wait)
            record_lock_bed::on_wait();
        result = __real_pthread_mutex_lock(mutex);
    }
    held = result == 0;
    fakes::record(fakes::call_kind::QUERY, "lock", "record");
    return result;
}

extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    if (is_the_records(mutex)) {
        fakes::record(fakes::call_kind::QUERY, "unlock", "record");
        held = false;
    }
    return __real_pthread_mutex_unlock(mutex);
}
