// MQTT 5 by hand, through a broker: requests carry a response topic and correlation data, the
// responder gives the reply to both. Quality of service 1. The address is the broker's port.

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstdlib>
#include <memory>

#include "bench/peers/Texts.h"

namespace Bench {

namespace {

constexpr char kRequests[] = "bench/requests";
constexpr char kReplies[] = "bench/replies";

class Mqtt {
 public:
  Mqtt(const std::string& port, const char* topic) : client_(mosquitto_new(nullptr, true, this)) {
    mosquitto* const client = client_.get();
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_subscribe_callback_set(client, [](mosquitto*, void* self, int, int, const int*) {
      static_cast<Mqtt*>(self)->isSubscribed_ = true;
    });
    mosquitto_message_v5_callback_set(
        client, [](mosquitto*, void* self, const mosquitto_message* message,
                   const mosquitto_property* properties) {
          static_cast<Mqtt*>(self)->arrived({static_cast<const char*>(message->payload),
                                             static_cast<std::size_t>(message->payloadlen)},
                                            properties);
        });
    require(mosquitto_connect(client, "127.0.0.1", std::atoi(port.c_str()), 60));
    require(mosquitto_subscribe(client, nullptr, topic, 1));
    while (!isSubscribed_) {
      turn();
    }
  }
  Mqtt(const Mqtt&) = delete;
  Mqtt& operator=(const Mqtt&) = delete;
  virtual ~Mqtt() = default;

  void turn() { require(mosquitto_loop(client_.get(), -1, 1)); }

 protected:
  void publish(const char* topic, const std::string& payload,
               const mosquitto_property* properties) {
    require(mosquitto_publish_v5(client_.get(), nullptr, topic, static_cast<int>(payload.size()),
                                 payload.data(), 1, false, properties));
  }

  static void require(int result) {
    if (result != MOSQ_ERR_SUCCESS) {
      throw std::runtime_error(mosquitto_strerror(result));
    }
  }

 private:
  virtual void arrived(const std::string& payload, const mosquitto_property* properties) = 0;

  struct Destroy {
    void operator()(mosquitto* client) const { mosquitto_destroy(client); }
  };

  std::unique_ptr<mosquitto, Destroy> client_;
  bool isSubscribed_ = false;
};

class Responder : public Mqtt {
 public:
  explicit Responder(const std::string& port) : Mqtt(port, kRequests) {}

 private:
  void arrived(const std::string& payload, const mosquitto_property* properties) override {
    char* topic = nullptr;
    void* correlation = nullptr;
    std::uint16_t size = 0;
    mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &topic, false);
    mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation, &size,
                                   false);
    mosquitto_property* own = nullptr;
    mosquitto_property_add_binary(&own, MQTT_PROP_CORRELATION_DATA, correlation, size);
    publish(topic, answerTo(payload.c_str()), own);
    mosquitto_property_free_all(&own);
    std::free(correlation);
    std::free(topic);
  }
};

class Requester : public Mqtt, public TextClient {
 public:
  explicit Requester(const std::string& port) : Mqtt(port, kReplies) {
    mosquitto_property_add_string(&properties_, MQTT_PROP_RESPONSE_TOPIC, kReplies);
    mosquitto_property_add_binary(&properties_, MQTT_PROP_CORRELATION_DATA, "1", 1);
  }
  ~Requester() override { mosquitto_property_free_all(&properties_); }

  void call() override {
    reply_.clear();
    publish(kRequests, requestText(), properties_);
    while (reply_.empty()) {
      turn();
    }
    check(reply_);
  }

 private:
  void arrived(const std::string& payload, const mosquitto_property*) override { reply_ = payload; }

  mosquitto_property* properties_ = nullptr;
  std::string reply_;
};

void serve(const std::string& port) {
  Responder responder(port);
  announceReady();
  while (true) {
    responder.turn();
  }
}

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::runPeer<Bench::Requester>(argc, argv, Bench::serve);
}
