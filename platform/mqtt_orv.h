// The maker's MQTT client library (liborvmqtt): the base class of the agent's one client.
//
// A device build puts the maker's own header in the place of this one. The virtual operations are
// in slot order: libmosquittopp 2.0's eleven first, then the three hooks. Later versions of
// libmosquittopp put another virtual first, so build against 2.0.
#pragma once

#include <json/json.h>
#include <mosquittopp.h>

#include <map>
#include <memory>
#include <string>

// Result codes of the cloud protocol: the "rc" of an acknowledgement.
enum ORV_MQTT_RC {
    ORV_MQTT_RC_SUCCESS = 200,
    ORV_MQTT_RC_BAD_REQUEST = 400,
    ORV_MQTT_RC_FAILED = 500,
    ORV_MQTT_RC_BUSY = 503,
};

inline const std::map<ORV_MQTT_RC, std::string> ORV_MQTT_RC_TEXT = {
    {ORV_MQTT_RC_SUCCESS, "Request successful"},
    {ORV_MQTT_RC_BAD_REQUEST, "Error sending request, check the topic and payload format"},
    {ORV_MQTT_RC_FAILED, "Request unsuccessful"},
    {ORV_MQTT_RC_BUSY, "Service is busy, try again later"},
};

class mqtt_orv : public mosqpp::mosquittopp {
public:
    // Builds the client; does not connect.
    mqtt_orv(const char *client_id, const char *host, int port, bool flag);
    ~mqtt_orv() override;
    mqtt_orv(const mqtt_orv &) = delete;
    mqtt_orv &operator=(const mqtt_orv &) = delete;

    // Connects to the broker. Returns a mosquitto code (MOSQ_ERR_SUCCESS is 0); a broker that is
    // down is a code, no exception and no exit. After every successful connect, reconnects too,
    // on_connect calls derived_on_connect(0).
    int start_mqtt_connection();

    // One line of JSON text.
    std::string serialize(const Json::Value &value);

    // True on success, false on anything that is not JSON. Never throws.
    bool deserialize(const std::string &text, Json::Value &value);

    // Publishes at QoS 0. message_id may be null; the caller's counter is left as it is. May be
    // called from any thread, also from inside a message handler; never runs the network loop.
    // Returns a mosquitto code.
    int send_message(int *message_id, const std::string &topic, const std::string &payload);

    // Tells the system watchdog that the process lives. Harmless where there is none.
    void ping_watchdog();

    void on_connect(int rc) override;
    void on_disconnect(int rc) override;
    void on_publish(int message_id) override;

    // Hands the message to derived_on_message on the thread that runs loop(). A payload of length 0
    // arrives as an empty, zero-terminated text, never as a null pointer. Lets no exception out.
    void on_message(const struct mosquitto_message *message) override;

    virtual void derived_on_connect(int rc);
    virtual void derived_on_disconnect(int rc);
    virtual void derived_on_message(const struct mosquitto_message *message);

private:
    struct state;
    std::unique_ptr<state> own;
};
