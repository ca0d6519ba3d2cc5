#include "tests/sweep/scheduler.h"

#include "tests/fakes/clock.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

extern "C" int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);

namespace sweep {

namespace {

constexpr size_t STACK_SIZE = 8 << 20; // taken page by page

// What the C++ library keeps for each thread about the exceptions it handles.
struct exception_state {
    void *caught;
    unsigned uncaught;
};

struct task {
    ucontext_t context = {};
    exception_state exceptions = {};
    int error_number = 0;
    time_t wakes = 0;
    uint64_t turn = 0; // who asked first wakes first
    pthread_mutex_t *waits_for = nullptr;
    void *(*routine)(void *) = nullptr;
    void *argument = nullptr;
};

bool running = false;
std::vector<std::unique_ptr<task>> tasks;
uint64_t turns = 0;
task *self = nullptr;
scheduler_events event;

bool goes_before(const task &left, const task &right) {
    return std::pair(left.wakes, left.turn) < std::pair(right.wakes, right.turn);
}

// Who can run, wakes first and is not the one given; null when there is none.
task *first_but(const task *other) {
    task *first = nullptr;
    for (const auto &each : tasks)
        if (each.get() != other && each->waits_for == nullptr &&
            (first == nullptr || goes_before(*each, *first)))
            first = each.get();
    return first;
}

task *next_task() {
    task *next = first_but(nullptr);
    if (next == nullptr)
        event.deadlocked();
    task *second = first_but(next);
    const bool tie = second != nullptr && second->wakes == next->wakes;
    return tie && event.other_order && event.other_order() ? second : next;
}

exception_state &exceptions_now() {
    return *reinterpret_cast<exception_state *>(abi::__cxa_get_globals());
}

void switch_to(task *next) {
    task *own = std::exchange(self, next);
    own->exceptions = std::exchange(exceptions_now(), next->exceptions);
    own->error_number = errno;
    swapcontext(&own->context, &next->context);
    errno = self->error_number;
}

void hand_over() {
    task *next = next_task();
    set_time(std::max(fakes::now(), next->wakes));
    event.switched();
    if (next != self)
        switch_to(next);
}

void ready_from(task *each, time_t when) {
    each->wakes = when;
    each->turn = ++turns;
}

void run_thread() {
    self->routine(self->argument);
    std::abort(); // the agent's threads do not end
}

task *make_task(void *(*routine)(void *), void *argument) {
    tasks.push_back(std::make_unique<task>());
    task *made = tasks.back().get();
    made->routine = routine;
    made->argument = argument;
    getcontext(&made->context);
    void *stack =
        mmap(nullptr, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (stack == MAP_FAILED)
        std::abort();
    made->context.uc_stack.ss_sp = stack;
    made->context.uc_stack.ss_size = STACK_SIZE;
    makecontext(&made->context, run_thread, 0);
    ready_from(made, fakes::now());
    return made;
}

// Those of the fakes are recursive, and nobody sleeps with one.
bool is_of_agent(const pthread_mutex_t *mutex) {
    return mutex->__data.__kind != PTHREAD_MUTEX_RECURSIVE_NP;
}

void at_lock(const pthread_mutex_t *mutex) {
    if (event.at_lock && is_of_agent(mutex))
        event.at_lock();
}

} // namespace

void start_scheduler(scheduler_events events) {
    event = std::move(events);
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
    *thread = reinterpret_cast<pthread_t>(make_task(routine, argument));
    return 0;
}

extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    if (!running)
        return __real_pthread_mutex_lock(mutex);
    at_lock(mutex);
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
    if (!running)
        return result;
    for (const auto &each : tasks) {
        if (each->waits_for == mutex) {
            each->waits_for = nullptr;
            ready_from(each.get(), fakes::now());
        }
    }
    at_lock(mutex);
    return result;
}
