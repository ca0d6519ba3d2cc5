// Messages of the cloud against passes of the job manager: the real code of both threads, everything at once, for some
// seconds. Of use above all with the thread sanitizer. The order of what is sent follows from the seed of the run
// (GTEST_RANDOM_SEED); how the threads meet does not.
#include "tests/unit/record_lock_bed.h"
#include "tests/unit/whole_jobs_bed.h"

#include "jobs/job_store.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <set>
#include <thread>

using testing::Contains;
using testing::IsEmpty;

namespace {

using real_clock = std::chrono::steady_clock;

constexpr size_t MOST_JOBS_AT_ONCE = 8;
constexpr int PASSES_TO_THE_END = 5000;

struct report {
    std::string job_id;
    std::string status;
    Json::Value session;
};

struct request {
    std::string job_id;
    Json::Value session;
};

// What a job of each kind is, and how it has to end.
struct kind {
    const char *name;
    const char *job;
    const char *end;
};

constexpr kind KINDS[] = {
    {"good", R"({"action":"CMD", "value":"SCRIPT", "params":{"script":"true"}})", "success"},
    {"bad", R"({"action":"CMD", "value":"SCRIPT", "params":{"script":"false"}})", "failed"},
    {"reboots", R"({"action":"CMD", "value":"SCRIPT", "params":{"script":"true", "reboot":true}})",
     "success"},
    {"unknown", R"({"action":"NONE"})", "failed"},
    {"pull", R"({"action":"XTRA", "params":{"fileUrl":"http://host/x"}})", "success"},
    {"push", R"({"action":"POST_CONFIG", "value":"/"})", "success"},
    {"config", R"({"action":"XTRA", "method":"getConfig", "params":{"fileUrl":"http://host/x"}})", "success"},
};

const kind &kind_of(const std::string &job_id) {
    return *std::find_if(std::begin(KINDS), std::end(KINDS), [&](const kind &each) {
        return job_id.rfind(std::string(each.name) + "-", 0) == 0;
    });
}

} // namespace

class MessagesAgainstPasses : public WholeJobs {
protected:
    MessagesAgainstPasses() : seed(testing::UnitTest::GetInstance()->random_seed()), random(seed + 1U) {
        answer_command("/bin/echo", 0);
        answer_command("/sbin/reboot", 0);
        answer_command("timeout ", [this](const std::string &command) { return run_script(command); });
        fakes::mqtt().after_publish = [this](const auto &message) { take(message); };
        fakes::before_change = [this](const fakes::call &next) { look_at(next); };
        fakes::on_sleep = [this](unsigned seconds) {
            behind_the_lock += record_lock_bed::held_here() ? 1 : 0;
            advance(static_cast<time_t>(seconds));
        };
    }

    // What else is sent than jobs and answers: so many of a thousand messages. What is on the list of one pass and is
    // cleared, or archived by another that an update for all has started, is taken for lost: it fails once more.
    struct others {
        int clears;
        int updates_for_all;
    };

    // Sends and answers on this thread, while the other makes passes; then lets what is left come to its end.
    void meet(std::chrono::milliseconds how_long, const others &more) {
        std::atomic<bool> over = false;
        std::thread manager([&] {
            while (!over) {
                pass();
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        });
        for (const auto end = real_clock::now() + how_long; real_clock::now() < end;)
            send_something(more);
        over = true;
        manager.join();
        for (int passes = 0; passes < PASSES_TO_THE_END && !active_jobs().empty(); ++passes) {
            pass();
            answer_something(200);
        }
        EXPECT_THAT(active_jobs(), IsEmpty());
        EXPECT_EQ(behind_the_lock, 0) << "publishes, pauses and commands with the record's lock held";
        EXPECT_TRUE(free_for_another_thread(job_manager_mutex));
        EXPECT_TRUE(free_for_another_thread(client.message_mutex));
        EXPECT_GT(sent_jobs.size(), 20U); // else it has shown nothing
    }

    void expect_scripts_started_once_at_most() {
        for (const auto &[script, times] : scripts)
            EXPECT_EQ(times, 1) << script;
    }

    // Archived with the end that its kind has; that end was reported and its very report acknowledged.
    void expect_end(const std::string &job_id) {
        const Json::Value archived = archived_job(job_id);
        EXPECT_EQ(archived["status"], kind_of(job_id).end) << job_id;
        EXPECT_EQ(archived["ack"], true) << job_id;
        EXPECT_THAT(acknowledged, Contains(job_id + " " + archived["status"].asString() + " " +
                                           archived["ackId"].asString()));
    }

    void expect_no_other_end_was_reported() {
        for (const std::string &each : reported_ends) {
            const std::string job_id = each.substr(0, each.find(' '));
            EXPECT_EQ(each, job_id + " " + kind_of(job_id).end);
        }
    }

    const int seed;
    std::set<std::string> sent_jobs;

private:
    void pass() {
        process_jobs(client);
        advance(3);
    }

    // --- what the agent does, on either thread

    int run_script(const std::string &command) {
        const std::string path = command.substr(command.rfind(' ') + 1);
        {
            const std::lock_guard lock(mutex);
            scripts[path.substr(0, path.find('_'))]++;
        }
        nap();
        return path.find("/bad-") == std::string::npos ? 0 : 1;
    }

    void take(const fakes::published_message &message) {
        const std::lock_guard lock(mutex);
        if (message.json["method"] == "updateJob") {
            const Json::Value &params = message.json["params"];
            const report one{params["jobId"].asString(), params["status"].asString(),
                             message.json["session"]};
            if (one.status == "success" || one.status == "failed")
                reported_ends.insert(one.job_id + " " + one.status);
            reports.push_back(one);
        } else if (message.json.isMember("jobId")) {
            requests.push_back({message.json["jobId"].asString(), message.json["session"]});
        }
    }

    // Widens the windows in which the threads may meet.
    void look_at(const fakes::call &next) {
        for (const char *outside : {"send_message", "orvsys", "system"})
            behind_the_lock += next.function == outside && record_lock_bed::held_here() ? 1 : 0;
        if (next.text.find("/jobs/") != std::string::npos)
            nap();
    }

    static void nap() {
        thread_local std::minstd_rand own(std::random_device{}());
        if (own() % 4 == 0)
            std::this_thread::sleep_for(std::chrono::microseconds(own() % 300));
    }

    // --- what the cloud and the services do, on this thread

    bool one_of(int count) { return random() % static_cast<unsigned>(count) == 0; }

    template <class Item> bool take_one(std::vector<Item> &from, Item &into) {
        const std::lock_guard lock(mutex);
        if (from.empty())
            return false;
        const auto at = from.begin() + static_cast<long>(random() % from.size());
        into = *at;
        from.erase(at);
        return true;
    }

    void send_something(const others &more) {
        const int chance = static_cast<int>(random() % 1000);
        if (chance < more.clears)
            arrives(one_of(2) ? "v1/device/job/CLEAR_RUNNING_JOB/apply"
                              : "v1/device/job/CLEAR_ACTIVE_JOBS/apply");
        else if (chance < more.clears + more.updates_for_all)
            arrives("v1/device/job/all/update", json(R"({"connected":true})"));
        else if (one_of(3) && active_jobs().size() < MOST_JOBS_AT_ONCE)
            send_new_job();
        else
            answer_something(one_of(8) ? 500 : 200);
    }

    void send_new_job() {
        const kind &one = KINDS[random() % std::size(KINDS)];
        Json::Value sent = json(one.job);
        sent["jobId"] = std::string(one.name) + "-" + std::to_string(sent_jobs.size());
        sent_jobs.insert(sent["jobId"].asString());
        send_job(sent);
        if (one_of(4))
            send_job(sent); // delivered twice
    }

    void answer_something(int rc) {
        if (one_of(2))
            answer_report(rc);
        else
            answer_request();
    }

    void answer_report(int rc) {
        report one;
        if (!take_one(reports, one))
            return;
        Json::Value answer;
        answer["jobId"] = one.job_id;
        answer["session"] = one.session;
        answer["rc"] = rc;
        if (rc == 200)
            acknowledged.insert(one.job_id + " " + one.status + " " + one.session.asString());
        for (int times = one_of(5) ? 2 : 1; times > 0; --times)
            arrives("v1/device/job/" + one.job_id + "/pub_ack", answer);
    }

    void answer_request() {
        request one;
        if (!take_one(requests, one))
            return;
        Json::Value answer;
        answer["jobId"] = one.job_id;
        if (one.job_id.rfind("config-", 0) == 0) {
            const bool done = !one_of(3);
            answer["rc"] = done ? 0 : 3;
            arrives("v1/device/job/" + one.job_id + "/update", answer);
            const std::lock_guard lock(mutex);
            if (!done)
                requests.push_back(one);
            return;
        }
        answer["session"] = one.session;
        answer["rc"] = 200;
        arrives("v1/device/cmd/filepull/ack", answer);
    }

    std::minstd_rand random;
    std::set<std::string> acknowledged; // "ID STATUS SESSION"
    std::atomic<int> behind_the_lock = 0;

    std::mutex mutex; // over what follows
    std::vector<report> reports;
    std::vector<request> requests;
    std::set<std::string> reported_ends; // "ID STATUS"
    std::map<std::string, int> scripts;  // starts, by the script's path without its time
};

TEST_F(MessagesAgainstPasses, LoseNoEndAndStartNoScriptTwice) {
    SCOPED_TRACE("seed " + std::to_string(seed));

    meet(std::chrono::milliseconds(2500), {0, 0});

    expect_scripts_started_once_at_most();
    expect_no_other_end_was_reported();
    for (const std::string &job_id : sent_jobs)
        expect_end(job_id);
    EXPECT_EQ(archived_jobs().size(), sent_jobs.size());
}

TEST_F(MessagesAgainstPasses, WithClearsAndUpdatesAmongThemLeaveNothingBehind) {
    SCOPED_TRACE("seed " + std::to_string(seed));

    meet(std::chrono::milliseconds(1500), {20, 60});

    expect_scripts_started_once_at_most();
    for (const std::string &job_id : archived_jobs())
        EXPECT_THAT(archived_job(job_id), HasMembers(R"({"ack":true})")) << job_id;
}
