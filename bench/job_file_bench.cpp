// A pass over finished, unacknowledged jobs, and the write of a job file, each beside the bare work that
// it stands for. Quote the ratios of one run, not the times.
#include "agent/client/tessard.h"
#include "bench/bare_pass.h"
#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "jobs/manager/job_manager.h"
#include "platform/vantrel.h"
#include "tests/fakes/private_root.h"

#include <benchmark/benchmark.h>

#include <filesystem>

#include <sys/mount.h>

namespace {

Json::Value finished_job(const std::string &id) {
    Json::Value job;
    job[KEY_JOB_ID] = id;
    job[KEY_ACTION] = ACTION_CMD;
    job[KEY_VALUE] = "SCRIPT";
    job[KEY_PARAMS][PARAM_SCRIPT] = "echo one line of output\n";
    job[KEY_STATUS] = STATUS_SUCCESS;
    job[KEY_ACK] = false;
    job[KEY_ACK_ID] = 1'700'000'000;
    job[KEY_ACK_TS] = 1'700'000'000;
    job[KEY_TIMESTAMP] = 1'700'000'000;
    return job;
}

void fill_active_jobs(long count) {
    static long filled = -1;
    if (filled == count)
        return;
    empty_directory(ACTIVE_JOB_DIR);
    for (long i = 0; i < count; ++i) {
        const std::string id = "job-" + std::to_string(i);
        write_json_file(active_job_path(id).c_str(), finished_job(id));
    }
    filled = count;
}

tessard &client() {
    static tessard instance("bench", "localhost", 1883); // never connected: its publishes fail at once
    return instance;
}

void agent_pass(benchmark::State &state) {
    fill_active_jobs(state.range(0));
    for (auto _ : state)
        process_jobs(client());
}

void bare_pass_of_the_same(benchmark::State &state) {
    fill_active_jobs(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(bare_pass(ACTIVE_JOB_DIR));
}

void agent_write(benchmark::State &state) {
    const Json::Value job = finished_job("written");
    for (auto _ : state)
        write_job_file(job);
}

void bare_write_of_the_same(benchmark::State &state) {
    const Json::Value job = finished_job("written");
    for (auto _ : state)
        bare_write(ACTIVE_JOB_DIR, "written", job.toStyledString().c_str());
}

// On the disk that the build tree lies on: a tmpfs has nothing to flush.
void put_var_data_on_disk(const char *folder) {
    std::filesystem::create_directories(folder);
    if (mount(folder, "/var/data", nullptr, MS_BIND, nullptr) != 0)
        perror("bench: /var/data stays a tmpfs");
    make_boot_directories();
    std::filesystem::create_directories("/var/data/.tmp");
}

} // namespace

BENCHMARK(agent_pass)->Arg(1)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(bare_pass_of_the_same)->Arg(1)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(agent_write)->Unit(benchmark::kMicrosecond);
BENCHMARK(bare_write_of_the_same)->Unit(benchmark::kMicrosecond);

int main(int argc, char **argv) {
    enter_private_root();
    put_var_data_on_disk(BENCH_DATA_DIR);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
