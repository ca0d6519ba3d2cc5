// The client itself: what it is built with and what it subscribes.
#include "tests/fakes/agent_test.h"

#include "agent/client/tessard.h"

using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class Client : public AgentTest {
protected:
    tessard client{"tessard", "localhost", 1883};

    static std::vector<fakes::subscription> the_seven() {
        std::vector<fakes::subscription> all;
        for (const char *topic : {"v1/device/job/+/apply", "v1/device/job/+/update",
                                  "v1/device/job/+/pub_ack", "v1/device/cmd/+/apply", "v1/device/cmd/+/ack",
                                  "v1/device/iot/job/update", "v1/device/cmd/config/abort/apply"})
            all.push_back({topic, 0, nullptr});
        return all;
    }
};

TEST_F(Client, IsBuiltForTheGivenBroker) {
    EXPECT_EQ(fakes::mqtt().client_id, "tessard");
    EXPECT_EQ(fakes::mqtt().host, "localhost");
    EXPECT_EQ(fakes::mqtt().port, 1883);
    EXPECT_FALSE(fakes::mqtt().flag);
}

TEST_F(Client, StartsWithoutAbortRequestAndWithoutCloud) {
    EXPECT_EQ(client.abort_request_time, 0);
    EXPECT_FALSE(client.cloud_connected);
    EXPECT_TRUE(client.message_mutex.try_lock());
    client.message_mutex.unlock();
}

TEST_F(Client, SubscribesTheSevenTopicsInOrder) {
    client.on_connect(0);

    EXPECT_EQ(fakes::mqtt().subscriptions, the_seven());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(Client, SubscribesNothingAfterAFailedConnect) {
    for (const int rc : {1, 5, -1})
        client.on_connect(rc);

    EXPECT_THAT(fakes::mqtt().subscriptions, IsEmpty());
}

TEST_F(Client, AFailedSubscriptionDoesNotKeepTheOthersAway) {
    fakes::will_return("subscribe", {4, 4});
    client.on_connect(0);

    EXPECT_EQ(fakes::mqtt().subscriptions, the_seven());
}

TEST_F(Client, SubscribesAgainAfterAReconnect) {
    client.start_mqtt_connection();
    client.loop(-1, 1);
    fakes::mqtt().subscriptions.clear();
    client.reconnect();
    client.loop(-1, 1);

    EXPECT_EQ(fakes::mqtt().subscriptions, the_seven());
}

TEST_F(Client, CanBeDeletedAsItsBase) {
    const std::unique_ptr<mqtt_orv> other = std::make_unique<tessard>("other", "elsewhere", 1);
    EXPECT_EQ(fakes::mqtt().client_id, "other");
}

TEST(ResultCodes, HaveTheirTexts) {
    EXPECT_THAT(ORV_MQTT_RC_TEXT,
                UnorderedElementsAre(Pair(200, "Request successful"),
                                     Pair(400, "Error sending request, check the topic and payload format"),
                                     Pair(500, "Request unsuccessful"),
                                     Pair(503, "Service is busy, try again later")));
}
