#include "tests/sweep/scheduler.h"

#include "tests/fakes/clock.h"

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

extern "C" int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);

namespace sweep {

namespace {

struct task {
    task() { sem_init(&baton, 0, 0); }
    sem_t baton;
    time_t wakes = 0;
    uint64_t turn = 0; // who asked first wakes first
    pthread_mutex_t *waits_for = nullptr;
};

bool running = false;
std::vector<std::unique_ptr<task>> tasks; // touched by who has the baton
uint64_t turns = 0;
thread_local task *self = nullptr;
std::function<void()> deadlocked;
std::function<void()> switched;

task *next_task() {
    task *next = nullptr;
    for (const auto &each : tasks) {
        if (each->waits_for != nullptr)
            continue;
        if (next == nullptr || std::pair(each->wakes, each->turn) < std::pair(next->wakes, next->turn))
            next = each.get();
    }
    if (next == nullptr)
        deadlocked();
    return next;
}

void wait_for_baton(task *own) {
    while (sem_wait(&own->baton) != 0) {
    }
}

void hand_over() {
    task *own = self;
    task *next = next_task();
    set_time(std::max(fakes::now(), next->wakes));
    switched();
    if (next == own)
        return;
    sem_post(&next->baton);
    wait_for_baton(own);
}

void ready_from(task *each, time_t when) {
    each->wakes = when;
    each->turn = ++turns;
}

struct start_order {
    void *(*routine)(void *);
    void *argument;
    task *own;
};

void *run_thread(void *order) {
    const std::unique_ptr<start_order> given(static_cast<start_order *>(order));
    self = given->own;
    wait_for_baton(self);
    return given->routine(given->argument);
}

} // namespace

void start_scheduler(std::function<void()> on_deadlock, std::function<void()> on_switch) {
    deadlocked = std::move(on_deadlock);
    switched = std::move(on_switch);
    tasks.push_back(std::make_unique<task>());
    self = tasks.back().get();
    running = true;
}

void pause_thread(unsigned seconds) {
    ready_from(self, fakes::now() + static_cast<time_t>(seconds));
    hand_over();
}

} // namespace sweep

using namespace sweep;

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*routine)(void *),
                              void *argument) {
    using create = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto real = reinterpret_cast<create>(dlsym(RTLD_NEXT, "pthread_create"));
    if (!running)
        return real(thread, attributes, routine, argument);
    tasks.push_back(std::make_unique<task>());
    ready_from(tasks.back().get(), fakes::now());
    return real(thread, attributes, run_thread, new start_order{routine, argument, tasks.back().get()});
}

extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    if (!running || self == nullptr)
        return __real_pthread_mutex_lock(mutex);
    for (;;) {
        const int result = pthread_mutex_trylock(mutex);
        if (result != EBUSY)
            return result;
        self->waits_for = mutex;
        hand_over();
    }
}

extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    const int result = __real_pthread_mutex_unlock(mutex);
    if (!running || self == nullptr)
        return result;
    for (const auto &each : tasks) {
        if (each->waits_for == mutex) {
            each->waits_for = nullptr;
            ready_from(each.get(), fakes::now());
        }
    }
    return result;
}
