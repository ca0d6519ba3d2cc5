// What any program with these three libraries and this rhythm costs, and no more: the measure for the idle
// agent. Subscribes the same topics, sleeps the same second, lists the active jobs in a second thread every
// third second, runs the same counting command on every 11th pass.
#include "agent/client/topics.h"

#include <curl/curl.h>
#include <json/json.h>
#include <mosquittopp.h>

#include <cstdlib>
#include <thread>

#include <dirent.h>
#include <unistd.h>

namespace {

class bare_client : public mosqpp::mosquittopp {
public:
    bare_client() : mosquittopp("bare") {}
    void on_connect(int) override {
        for (const char *topic : SUBSCRIBED_TOPICS)
            subscribe(nullptr, topic, 0);
    }
};

void list_jobs() {
    for (;;) {
        dirent **entries = nullptr;
        const int count = scandir("/var/data/orv/vantrel_iot/jobs/active/", &entries, nullptr, nullptr);
        for (int i = 0; i < count; ++i)
            free(entries[i]);
        free(entries);
        sleep(3);
    }
}

} // namespace

int main() {
    Json::Value linked;
    linked["curl"] = curl_version();
    mosqpp::lib_init();
    bare_client client;
    client.threaded_set(true);
    client.connect("localhost", 1883, 60);
    const std::thread lister(list_jobs);
    for (int passes = 1;; ++passes) {
        client.loop(-1, 1);
        if (passes % 11 == 0)
            (void)system(
                "/bin/ls /var/data/orv/vantrel_iot/jobs/active/ | /usr/bin/wc -l > /tmp/.bare_count");
        sleep(1);
    }
}
