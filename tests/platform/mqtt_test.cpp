#include "platform/mqtt_orv.h"
#include "tests/platform/broker.h"
#include "tests/platform/support.h"

#include <gmock/gmock.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr int LONG_LOOP_MS = 3600 * 1000;
const std::string CONNACK("\x20\x02\x00\x00", 4);
const std::string CONNACK_REFUSED("\x20\x02\x00\x05", 4);

// Subscribes test/# when connected, and keeps what comes.
class test_client : public mqtt_orv {
public:
    test_client() : mqtt_orv("test", "localhost", 1883, false) {}

    void derived_on_connect(int rc) override {
        connects.push_back(rc);
        socklen_t size = sizeof(no_delay);
        getsockopt(socket(), IPPROTO_TCP, TCP_NODELAY, &no_delay, &size);
        if (rc == 0)
            subscribe(nullptr, "test/#");
        if (connected)
            connected();
        if (throws)
            throw std::runtime_error("derived_on_connect");
    }
    void derived_on_disconnect(int) override {
        ++disconnects;
        if (throws)
            throw std::runtime_error("derived_on_disconnect");
    }
    void derived_on_message(const mosquitto_message *message) override {
        const char *text = static_cast<const char *>(message->payload);
        messages.push_back(std::string(message->topic) + " " + text);
        lengths.push_back(message->payloadlen);
        threads.push_back(std::this_thread::get_id());
        if (handler)
            handler(*message);
        if (throws)
            throw 5;
    }
    void on_subscribe(int, int, const int *) override { ++subscriptions; }

    // Passes of the loop until the condition holds; as the agent's own, but that they do not sleep.
    bool loops_until(const std::function<bool()> &condition) {
        for (int i = 0; i < 500 && !condition(); ++i)
            if (loop(50, 1) != 0)
                reconnect();
        return condition();
    }

    bool is_ready(int expected_subscriptions = 1) {
        return start_mqtt_connection() == MOSQ_ERR_SUCCESS &&
               loops_until([&] { return subscriptions == expected_subscriptions; });
    }

    bool throws = false;
    std::function<void()> connected;
    std::function<void(const mosquitto_message &)> handler;
    std::vector<int> connects;
    std::vector<std::string> messages;
    std::vector<int> lengths;
    std::vector<std::thread::id> threads;
    int disconnects = 0;
    int subscriptions = 0;
    int no_delay = 0;
};

// What a service that is restarted by system() finds open.
std::string open_in_a_child() {
    EXPECT_EQ(std::system("ls -l /proc/self/fd </dev/null >/tmp/open 2>&1"), 0);
    return read_text("/tmp/open");
}

const auto HAS_NO_SOCKET = AllOf(HasSubstr("/dev/null"), Not(HasSubstr("socket:")));

} // namespace

TEST(MqttConnection, CallsTheHookAndDeliversMessages) {
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready());
    EXPECT_THAT(client.connects, ElementsAre(0));
    EXPECT_EQ(client.send_message(nullptr, "test/a", "hello"), MOSQ_ERR_SUCCESS);
    ASSERT_TRUE(client.loops_until([&] { return !client.messages.empty(); }));
    EXPECT_THAT(client.messages, ElementsAre("test/a hello"));
    EXPECT_THAT(client.threads, ElementsAre(std::this_thread::get_id()));
}

TEST(MqttConnection, IsACodeWhenTheBrokerIsDownAndComesWithIt) {
    test_client client;
    EXPECT_NE(client.start_mqtt_connection(), MOSQ_ERR_SUCCESS);
    EXPECT_NE(client.loop(-1, 1), MOSQ_ERR_SUCCESS);
    EXPECT_NE(client.reconnect(), MOSQ_ERR_SUCCESS);
    EXPECT_NE(client.send_message(nullptr, "test/a", "lost"), MOSQ_ERR_SUCCESS);
    EXPECT_THAT(client.connects, IsEmpty());
    const broker mosquitto;
    EXPECT_EQ(client.reconnect(), MOSQ_ERR_SUCCESS);
    EXPECT_TRUE(client.loops_until([&] { return client.subscriptions == 1; }));
    EXPECT_THAT(client.connects, ElementsAre(0));
}

TEST(MqttConnection, SubscribesAgainWhenTheBrokerWasRestarted) {
    make_etc_private();
    write_text("/etc/tessard/extra-subscriptions", "extra\n");
    broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready(2));
    mosquitto.stop();
    while (client.loop(-1, 1) == MOSQ_ERR_SUCCESS)
        continue;
    EXPECT_EQ(client.disconnects, 1);
    mosquitto.start();
    ASSERT_EQ(client.reconnect(), MOSQ_ERR_SUCCESS);
    ASSERT_TRUE(client.loops_until([&] { return client.subscriptions == 4; }));
    EXPECT_THAT(client.connects, ElementsAre(0, 0));
    client.send_message(nullptr, "test/a", "again");
    client.send_message(nullptr, "extra", "too");
    EXPECT_TRUE(client.loops_until([&] { return client.messages.size() == 2; }));
}

// The library waits by select, which knows descriptors below 1024 only; a new connection takes the place of the
// former one, however many have been opened since. What a device's service may open is more than that.
TEST(MqttConnection, ComesBackBelow1024HoweverManyDescriptorsAreOpen) {
    constexpr int MANY = 2000;
    const rlimit limit = {2 * MANY, 2 * MANY};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready());
    std::vector<int> opened;
    while (opened.empty() || opened.back() < MANY)
        opened.push_back(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));

    mosquitto.stop();
    while (client.loop(-1, 1) == MOSQ_ERR_SUCCESS)
        continue;
    mosquitto.start();
    ASSERT_EQ(client.reconnect(), MOSQ_ERR_SUCCESS);
    ASSERT_TRUE(client.loops_until([&] { return client.connects.size() == 2; }));
    client.send_message(nullptr, "test/a", "again");
    EXPECT_TRUE(client.loops_until([&] { return !client.messages.empty(); }));
    for (const int descriptor : opened)
        close(descriptor);
}

TEST(MqttConnection, PassesARefusalOnAndSubscribesNothing) {
    make_etc_private();
    write_text("/etc/tessard/extra-subscriptions", "extra\n");
    bare_peer peer;
    test_client client;
    ASSERT_EQ(client.start_mqtt_connection(), MOSQ_ERR_SUCCESS);
    peer.accept_connection();
    client.loop(50, 1);
    peer.received();
    peer.send(CONNACK_REFUSED);
    client.loop(LONG_LOOP_MS, 1);
    EXPECT_THAT(client.connects, ElementsAre(5));
    client.loop(50, 1);
    EXPECT_EQ(peer.received(), "");
}

TEST(MqttConnection, HasAKeepaliveThatAHandlerOfManyMinutesDoesNotOutlast) {
    bare_peer peer;
    test_client client;
    ASSERT_EQ(client.start_mqtt_connection(), MOSQ_ERR_SUCCESS);
    peer.accept_connection();
    client.loop(50, 1);
    const std::string packet = peer.received();
    ASSERT_EQ(packet.substr(2, 6), std::string("\0\4MQTT", 6));
    const int keepalive =
        static_cast<unsigned char>(packet[10]) * 256 + static_cast<unsigned char>(packet[11]);
    EXPECT_GE(keepalive, 30 * 60);
}

TEST(MqttConnection, DoesNotWaitForAcknowledgementsBetweenSmallPackets) {
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready());
    EXPECT_NE(client.no_delay, 0);
}

TEST(MqttConnection, IsNotInheritedByWhatSystemStarts) {
    broker mosquitto;
    test_client client;
    ASSERT_EQ(client.start_mqtt_connection(), MOSQ_ERR_SUCCESS);
    EXPECT_THAT(open_in_a_child(), HAS_NO_SOCKET);
    ASSERT_TRUE(client.loops_until([&] { return client.connects.size() == 1; }));
    ASSERT_GE(client.socket(), 0);
    EXPECT_THAT(open_in_a_child(), HAS_NO_SOCKET);
    mosquitto.stop();
    while (client.loop(-1, 1) == MOSQ_ERR_SUCCESS)
        continue;
    mosquitto.start();
    ASSERT_EQ(client.reconnect(), MOSQ_ERR_SUCCESS);
    ASSERT_TRUE(client.loops_until([&] { return client.connects.size() == 2; }));
    EXPECT_THAT(open_in_a_child(), HAS_NO_SOCKET);
}

// In the hook already the agent may start something.
TEST(MqttConnection, IsNotInheritedByWhatTheConnectHookStarts) {
    const broker mosquitto;
    test_client client;
    client.connected = [] { EXPECT_THAT(open_in_a_child(), HAS_NO_SOCKET); };
    ASSERT_EQ(client.start_mqtt_connection(), MOSQ_ERR_SUCCESS);
    ASSERT_TRUE(client.loops_until([&] { return client.connects.size() == 1; }));
}

TEST(MqttConnection, LetsNoExceptionOfAHookOut) {
    broker mosquitto;
    test_client client;
    client.throws = true;
    ASSERT_TRUE(client.is_ready());
    client.send_message(nullptr, "test/a", "one");
    client.send_message(nullptr, "test/a", "two");
    EXPECT_TRUE(client.loops_until([&] { return client.messages.size() == 2; }));
    EXPECT_THAT(client.connects, ElementsAre(0)) << "still the first connection";
    mosquitto.stop();
    while (client.loop(-1, 1) == MOSQ_ERR_SUCCESS)
        continue;
    EXPECT_EQ(client.disconnects, 1);
}

TEST(MqttExtraSubscriptions, AreThoseOfTheImagesFile) {
    make_etc_private();
    write_text("/etc/tessard/extra-subscriptions",
               "# what others publish\n\n  one/+ \r\n\ttwo\n#three\nfour");
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready(4));
    for (const char *topic : {"three", "#three", "one/x", "two", "four", "five", "test/end"})
        client.publish(nullptr, topic, 1, "p");
    ASSERT_TRUE(client.loops_until(
        [&] { return !client.messages.empty() && client.messages.back() == "test/end p"; }));
    EXPECT_THAT(client.messages, ElementsAre("one/x p", "two p", "four p", "test/end p"));
}

TEST(MqttExtraSubscriptions, AreNoneWithoutTheFile) {
    make_etc_private();
    unlink("/etc/tessard/extra-subscriptions");
    bare_peer peer;
    test_client client;
    ASSERT_EQ(client.start_mqtt_connection(), MOSQ_ERR_SUCCESS);
    peer.accept_connection();
    client.loop(50, 1);
    peer.received();
    peer.send(CONNACK);
    client.loop(LONG_LOOP_MS, 1);
    client.loop(50, 1);
    const std::string packets = peer.received();
    EXPECT_THAT(packets, AllOf(StartsWith("\x82"), HasSubstr("test/#")));
    EXPECT_EQ(packets.size(), 2U + 2 + 2 + std::strlen("test/#") + 1) << "one SUBSCRIBE";
}

TEST(MqttExtraSubscriptions, AreLeftOutWhenTheConnectionIsRefused) {
    make_etc_private();
    write_text("/etc/tessard/extra-subscriptions", "extra\n");
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready(2));
    client.on_connect(5);
    client.send_message(nullptr, "test/a", "end");
    ASSERT_TRUE(client.loops_until([&] { return !client.messages.empty(); }));
    EXPECT_EQ(client.subscriptions, 2) << "none new";
}

// The agent subscribes seven topics and reads one packet in each of its passes.
TEST(MqttConnection, ReadsTheAnswersToItsSubscriptionsBeforeTheFirstMessage) {
    class : public test_client {
        void derived_on_connect(int) override {
            for (int i = 0; i < 7; ++i)
                subscribe(nullptr, ("test/" + std::to_string(i)).c_str());
            send_message(nullptr, "test/6", "first");
        }
    } client;
    const broker mosquitto;
    ASSERT_EQ(client.start_mqtt_connection(), MOSQ_ERR_SUCCESS);

    int passes = 0;
    for (; passes < 100 && client.messages.empty(); ++passes) {
        pollfd from_broker = {.fd = client.socket(), .events = POLLIN, .revents = 0};
        poll(&from_broker, 1, 200); // as the agent, which sleeps for a second here
        client.loop(1000, 1);
    }

    EXPECT_THAT(client.messages, ElementsAre("test/6 first"));
    EXPECT_GE(passes, 9); // the connection, seven subscriptions and the message
    EXPECT_LE(passes, 12);
}

TEST(MqttMessage, HasAnEmptyTextForAnEmptyPayload) {
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready());
    client.send_message(nullptr, "test/abort", "");
    ASSERT_TRUE(client.loops_until([&] { return !client.messages.empty(); }));
    EXPECT_THAT(client.messages, ElementsAre("test/abort "));
    EXPECT_THAT(client.lengths, ElementsAre(0));
}

TEST(MqttMessage, IsZeroTerminatedAtAnyLength) {
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready());
    size_t checked = 0;
    client.handler = [&](const mosquitto_message &message) {
        const auto *text = static_cast<const char *>(message.payload);
        EXPECT_EQ(text[message.payloadlen], '\0');
        EXPECT_EQ(std::strlen(text), static_cast<size_t>(message.payloadlen));
        ++checked;
    };
    const std::vector<size_t> lengths = {1, 7, 8, 15, 16, 63, 64, 4095, 4096, 300000};
    for (const size_t length : lengths)
        client.send_message(nullptr, "test/long", std::string(length, 'x'));
    EXPECT_TRUE(client.loops_until([&] { return checked == lengths.size(); }));
}

TEST(MqttMessage, IsHandedOverWhole) {
    const std::string payload("a\0b", 3);
    test_client client;
    std::string topic = "test/x";
    std::string bytes = payload;
    mosquitto_message message{7, topic.data(), bytes.data(), static_cast<int>(bytes.size()), 1, true};
    client.handler = [&](const mosquitto_message &seen) {
        EXPECT_EQ(seen.mid, 7);
        EXPECT_EQ(std::string(static_cast<const char *>(seen.payload), static_cast<size_t>(seen.payloadlen)),
                  payload);
        EXPECT_EQ(seen.qos, 1);
        EXPECT_TRUE(seen.retain);
    };
    client.on_message(&message);
    EXPECT_EQ(client.messages.size(), 1U);
}

TEST(MqttSendMessage, LeavesTheCountersValue) {
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready());
    int counter = 1000;
    EXPECT_EQ(client.send_message(&counter, "test/a", "x"), MOSQ_ERR_SUCCESS);
    EXPECT_EQ(counter, 1000);
}

TEST(MqttSendMessage, WakesTheLoopOfAnotherThread) {
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready());
    std::thread publisher([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the loop waits by then
        EXPECT_EQ(client.send_message(nullptr, "test/thread", "x"), MOSQ_ERR_SUCCESS);
    });
    while (client.messages.empty())
        ASSERT_EQ(client.loop(LONG_LOOP_MS, 1), MOSQ_ERR_SUCCESS); // an hour, if nothing wakes it
    publisher.join();
    EXPECT_THAT(client.messages, ElementsAre("test/thread x"));
}

TEST(MqttSendMessage, LeavesTheSendingToTheLoop) {
    bare_peer peer;
    test_client client;
    ASSERT_EQ(client.start_mqtt_connection(), MOSQ_ERR_SUCCESS);
    peer.accept_connection();
    client.loop(50, 1);
    peer.received();
    peer.send(CONNACK);
    client.loop(LONG_LOOP_MS, 1);
    client.loop(50, 1);
    peer.received();
    EXPECT_EQ(client.send_message(nullptr, "test/a", "x"), MOSQ_ERR_SUCCESS);
    EXPECT_EQ(peer.received(), "");
    client.loop(LONG_LOOP_MS, 1);
    EXPECT_THAT(peer.received(), HasSubstr("test/ax"));
}

TEST(MqttSendMessage, WorksInsideAHandlerWithoutRunningAnother) {
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready());
    int depth = 0;
    client.handler = [&](const mosquitto_message &) {
        EXPECT_EQ(++depth, 1);
        if (client.messages.size() < 3) {
            EXPECT_EQ(client.send_message(nullptr, "test/next", "x"), MOSQ_ERR_SUCCESS);
        }
        --depth;
    };
    client.send_message(nullptr, "test/first", "x");
    EXPECT_TRUE(client.loops_until([&] { return client.messages.size() == 3; }));
}

TEST(MqttSendMessage, ServesTwoThreadsAtOnce) {
    const broker mosquitto;
    test_client client;
    ASSERT_TRUE(client.is_ready());
    client.handler = [&](const mosquitto_message &message) {
        if (std::strcmp(message.topic, "test/thread") == 0)
            client.send_message(nullptr, "test/answer", "x");
    };
    std::thread publisher([&] {
        for (int i = 0; i < 100; ++i)
            client.send_message(nullptr, "test/thread", std::to_string(i));
    });
    EXPECT_TRUE(client.loops_until([&] { return client.messages.size() == 200; }));
    publisher.join();
}

TEST(MqttJson, SerializesOnOneLine) {
    test_client client;
    Json::Value value;
    value["text"] = "a\nb\"";
    value["list"].append(1);
    value["list"].append(true);
    EXPECT_EQ(client.serialize(value), R"({"list":[1,true],"text":"a\nb\""})");
    EXPECT_EQ(client.serialize(Json::nullValue), "null");
}

TEST(MqttJson, DeserializesWhatIsJson) {
    test_client client;
    for (const auto &[text, expected] : std::map<std::string, std::string>{
             {R"({"a":[1,-2.5e3,"x",true,null]})", R"({"a":[1,-2500.0,"x",true,null]})"},
             {" \r\n\t{} \n", "{}"},
             {"[]", "[]"},
             {"5", "5"},
             {"-0.5E+2", "-50.0"},
             {R"("text")", R"("text")"},
             {"null", "null"},
             {R"({"a":1,"a":2})", R"({"a":2})"},
             {R"("\u00e4\\\"\/")", R"("\u00e4\\\"/")"},
             {R"("+1 01 -")", R"("+1 01 -")"}}) {
        Json::Value value = "before";
        EXPECT_TRUE(client.deserialize(text, value)) << text;
        EXPECT_EQ(client.serialize(value), expected);
    }
}

TEST(MqttJson, RefusesWhatIsNot) {
    test_client client;
    const std::vector<std::string> texts = {"",
                                            " ",
                                            "{",
                                            "}",
                                            "[1,]",
                                            R"({"a":1,})",
                                            R"({"a":1} x)",
                                            "{}{}",
                                            "{a:1}",
                                            "{'a':1}",
                                            R"({"a" 1})",
                                            "nul",
                                            "truex",
                                            "NaN",
                                            "Infinity",
                                            "-",
                                            "+1",
                                            "01",
                                            "-01",
                                            "1.",
                                            ".5",
                                            "1e",
                                            "1e+",
                                            "0x10",
                                            "1.5.5",
                                            "// c\n{}",
                                            "{} /* c */",
                                            "\"a\nb\"",
                                            "\"\t\"",
                                            R"("\x")",
                                            R"("abc)",
                                            "\"abc\\",
                                            "[1 2]",
                                            "\xff",
                                            "\"\xff\"",
                                            "\"\xc3\"",
                                            "\"\xc3(\"",
                                            "\"\xc0\x80\"",
                                            "\"\xe0\x80\x80\"",
                                            "\"\xed\xa0\x80\"",
                                            "\"\xf0\x80\x80\x80\"",
                                            "\"\xf4\x90\x80\x80\"",
                                            "{\"\xe2\x82\":1}",
                                            R"("\ud83d")",
                                            R"("\ude00")",
                                            R"("a\uDE00\ud83d")",
                                            std::string("{}\0", 3),
                                            std::string("{}\0{", 4)};
    for (const std::string &text : texts) {
        Json::Value value = "before";
        EXPECT_FALSE(client.deserialize(text, value)) << text;
        EXPECT_EQ(value, "before");
    }
}

TEST(MqttJson, TakesEveryCharacter) {
    test_client client;
    for (const std::string text :
         {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf",
          "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf", "\xc3\xa4\xe2\x82\xac"}) {
        Json::Value value;
        EXPECT_TRUE(client.deserialize("\"" + text + "\"", value));
        EXPECT_EQ(value, text);
    }
    Json::Value value;
    EXPECT_TRUE(client.deserialize(R"("\ud83d\ude00\\ude00\uD83D\uDE00")", value));
    EXPECT_EQ(value, "\xf0\x9f\x98\x80\\ude00\xf0\x9f\x98\x80");
}

TEST(MqttJson, RefusesADepthThatNobodySends) {
    test_client client;
    Json::Value value;
    EXPECT_TRUE(client.deserialize(std::string(900, '[') + std::string(900, ']'), value));
    for (const size_t depth : {1100UL, 1000000UL}) {
        EXPECT_FALSE(client.deserialize(std::string(depth, '[') + std::string(depth, ']'), value));
        EXPECT_FALSE(client.deserialize(std::string(depth, '['), value));
    }
    std::string objects;
    for (int i = 0; i < 100000; ++i)
        objects += R"({"a":)";
    EXPECT_FALSE(client.deserialize(objects, value));
}

TEST(MqttWatchdog, TellsTheServiceManager) {
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/tmp/notify");
    unlink(address.sun_path);
    ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    test_client client;
    client.ping_watchdog();
    client.ping_watchdog();
    unsetenv("NOTIFY_SOCKET");
    for (int i = 0; i < 2; ++i) {
        std::array<char, 100> text{};
        ASSERT_GT(recv(manager, text.data(), text.size() - 1, 0), 0);
        EXPECT_STREQ(text.data(), "WATCHDOG=1");
    }
    close(manager);
}

TEST(MqttWatchdog, IsHarmlessWithoutOne) {
    test_client client;
    unsetenv("NOTIFY_SOCKET");
    client.ping_watchdog();
    setenv("NOTIFY_SOCKET", "/tmp/nobody-listens", 1);
    client.ping_watchdog();
    unsetenv("NOTIFY_SOCKET");
}
