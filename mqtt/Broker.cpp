// One connection to the broker. timer -> connect -> subscribe -> up; publication -> window ->
// broker, or queue; readiness -> library -> what it has seen -> handlers; end -> queue -> timer.

#include "mqtt/Broker.h"

#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <random>

#include "mqtt/Text.h"
#include "tool/Report.h"

namespace bridge {

namespace {

constexpr double kFirstDelay = 0.5;  // seconds
constexpr double kLongestDelay = 30;
constexpr int kConnectLimit = 10;  // seconds
constexpr int kShortLife = 10;     // seconds
constexpr std::size_t kWindow = 64;
constexpr std::size_t kMostWaiting = 10000;
constexpr std::size_t kMostBytes = std::size_t{8} * 1024 * 1024;
constexpr int kFirstFailure = 0x80;  // among MQTT's reasons

/// From half of it on, so that the clients of a broker that restarts do not all come at once.
double jittered(double delay) {
  static std::minstd_rand generator{std::random_device()()};
  return delay * std::uniform_real_distribution<double>(0.5, 1)(generator);
}

class Properties {
 public:
  Properties() = default;
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;
  ~Properties() { mosquitto_property_free_all(&list_); }
  mosquitto_property* get() const { return list_; }

  void add(int name, std::uint32_t value) { mosquitto_property_add_int32(&list_, name, value); }
  void addText(int name, const std::string& value) {
    mosquitto_property_add_string(&list_, name, value.c_str());
  }
  void addBytes(int name, const std::string& value) {
    mosquitto_property_add_binary(&list_, name, value.data(),
                                  static_cast<std::uint16_t>(value.size()));
  }

 private:
  mosquitto_property* list_ = nullptr;
};

Arrival arrivalOf(const mosquitto_message& message, const mosquitto_property* properties) {
  Arrival arrival;
  arrival.topic = message.topic;
  if (message.payloadlen > 0) {
    arrival.payload.assign(static_cast<const char*>(message.payload),
                           static_cast<std::size_t>(message.payloadlen));
  }
  char* text = nullptr;
  if (mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &text, false) !=
      nullptr) {
    arrival.responseTopic = text;
    std::free(text);
  }
  void* bytes = nullptr;
  std::uint16_t size = 0;
  if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &bytes, &size,
                                     false) != nullptr) {
    arrival.correlation.assign(static_cast<const char*>(bytes), size);
    std::free(bytes);
  }
  std::uint32_t seconds = 0;
  if (mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &seconds,
                                    false) != nullptr) {
    arrival.expiry = seconds;
  }
  return arrival;
}

/// What is wrong with the broker's certificate, if that is it; the library does not tell.
std::string tlsError(mosquitto* client, const char* text) {
  const auto* const tls = static_cast<const SSL*>(mosquitto_ssl_get(client));
  const long verified = tls == nullptr ? X509_V_OK : SSL_get_verify_result(tls);
  return verified == X509_V_OK ? std::string(text)
                               : "its certificate is not accepted: " +
                                     std::string(X509_verify_cert_error_string(verified));
}

}  // namespace

Broker::Broker(const Settings& settings, Role role, Handlers handlers)
    : settings_(settings),
      role_(std::move(role)),
      handlers_(std::move(handlers)),
      control_(Kelvo::Platform::getFdControl(this)),
      delay_(kFirstDelay),
      retry_([this] { connect(); }),
      ticking_([this] { tick(); }) {
  retry_.arm(0);
}

Broker::~Broker() {
  control_->detach();
}

// --- connecting ---

void Broker::connect() {
  client_.reset(mosquitto_new(role_.clientId.c_str(), true, this));
  if (client_ == nullptr) {
    throw std::bad_alloc();
  }
  seen_ = {};
  seconds_ = 0;
  setCallbacks();
  const int result = begin();
  if (result != MOSQ_ERR_SUCCESS && result != MOSQ_ERR_CONN_PENDING) {
    return lose(reasonOf(result, seen_));
  }
  ticking_.arm(1);
  watch();
}

/// The library resolves the host's name, which may block for a moment, and takes the first of its
/// addresses. So after a failure the first one of IPv4 has its turn.
int Broker::begin() {
  mosquitto* const client = client_.get();
  mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
  if (!role_.will.empty()) {
    mosquitto_will_set_v5(client, role_.will.c_str(), 5, "false", 1, true, nullptr);
  }
  if (!settings_.user.empty()) {
    mosquitto_username_pw_set(client, settings_.user.c_str(), settings_.password.c_str());
  }
  if (settings_.tls) {
    const auto orNull = [](const std::string& text) {
      return text.empty() ? nullptr : text.c_str();
    };
    const char* const trusted = settings_.caFile.empty() ? X509_get_default_cert_dir() : nullptr;
    const int result =
        mosquitto_tls_set(client, orNull(settings_.caFile), trusted, orNull(settings_.certFile),
                          orNull(settings_.keyFile), nullptr);
    if (result != MOSQ_ERR_SUCCESS) {
      return result;
    }
  }
  Properties properties;
  properties.add(MQTT_PROP_MAXIMUM_PACKET_SIZE, role_.largestPacket);
  // Properties can be given only to the function that blocks until it is connected. With a port
  // that is none it keeps them and does nothing else; the next function sends them.
  mosquitto_connect_bind_v5(client, settings_.host.c_str(), -1, settings_.keepalive, nullptr,
                            properties.get());
  return mosquitto_connect_bind_async(client, settings_.host.c_str(), settings_.port,
                                      settings_.keepalive, onlyIpv4_ ? "0.0.0.0" : nullptr);
}

void Broker::setCallbacks() {
  mosquitto* const client = client_.get();
  mosquitto_connect_v5_callback_set(
      client, [](mosquitto*, void* self, int reason, int, const mosquitto_property*) noexcept {
        static_cast<Broker*>(self)->seen_.connected = reason;
      });
  mosquitto_disconnect_v5_callback_set(
      client, [](mosquitto*, void* self, int reason, const mosquitto_property*) noexcept {
        static_cast<Broker*>(self)->seen_.disconnected = reason;
      });
  mosquitto_publish_v5_callback_set(client, [](mosquitto*, void* self, int identifier, int reason,
                                               const mosquitto_property*) noexcept {
    auto& seen = static_cast<Broker*>(self)->seen_;
    seen.published.emplace_back(identifier, reason);
    seen.isAnswered = false;
  });
  mosquitto_subscribe_v5_callback_set(
      client, [](mosquitto*, void* self, int identifier, int, const int* reasons,
                 const mosquitto_property*) noexcept {
        static_cast<Broker*>(self)->seen_.subscribed.emplace_back(identifier, reasons[0]);
      });
  mosquitto_message_v5_callback_set(client,
                                    [](mosquitto*, void* self, const mosquitto_message* message,
                                       const mosquitto_property* properties) noexcept {
                                      auto& seen = static_cast<Broker*>(self)->seen_;
                                      seen.arrivals.push_back(arrivalOf(*message, properties));
                                      seen.isAnswered = message->qos > 0;
                                    });
  mosquitto_log_callback_set(client,
                             [](mosquitto* from, void* self, int level, const char* text) noexcept {
                               auto& error = static_cast<Broker*>(self)->seen_.error;
                               if (level == MOSQ_LOG_ERR && error.empty()) {
                                 error = tlsError(from, text);
                               }
                             });
}

void Broker::watch() {
  const int fd = client_ == nullptr ? -1 : mosquitto_socket(client_.get());
  if (fd != control_->fd()) {
    control_->detach();
    if (fd >= 0) {
      control_->attach(fd);
    }
  }
  if (fd >= 0) {
    control_->setWriteInterest(mosquitto_want_write(client_.get()));
  }
}

// --- what the connection reports ---

void Broker::readFdEvent(int fd) {
  if (hasFailed(fd)) {
    return;
  }
  const int result = mosquitto_loop_read(client_.get(), 1);
  if (!seen_.isAnswered) {  // else TCP's acknowledgement goes with the answer
    // A broker that does not switch Nagle's algorithm off, as mosquitto by default, would send the
    // next packet only when the last one is acknowledged, which the kernel puts off for 40 ms.
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
  }
  handle(result);
}

void Broker::writeFdEvent(int fd) {
  if (!hasFailed(fd)) {
    handle(mosquitto_loop_write(client_.get(), 1));
  }
}

void Broker::tick() {
  ++seconds_;
  if (!isUp_ && seconds_ >= kConnectLimit) {
    return lose("no answer within " + tool::secondsText(kConnectLimit));
  }
  if (isUp_ && seconds_ == kShortLife) {
    delay_ = kFirstDelay;
    shortLives_ = 0;
  }
  ticking_.arm(1);
  handle(mosquitto_loop_misc(client_.get()));
}

/// Whether the attempt to connect has failed; the library has no words for why.
bool Broker::hasFailed(int fd) {
  int error = 0;
  socklen_t size = sizeof error;
  if (isUp_ || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) < 0 || error == 0) {
    return false;
  }
  lose(unexplained(std::strerror(error)));
  return true;
}

void Broker::handle(int result) {
  const Seen seen = std::exchange(seen_, {});
  if (seen.connected == MQTT_RC_SUCCESS) {
    becomeUp();
  }
  for (const auto& [identifier, reason] : seen.subscribed) {
    if (reason >= kFirstFailure) {
      say(role_.subject + ": the broker refuses to subscribe to " +
          tool::inQuotes(subscriptions_[identifier]) + ": " + mosquitto_reason_string(reason));
    }
    subscriptions_.erase(identifier);
  }
  for (const auto& arrival : seen.arrivals) {
    handlers_.arrived(arrival);
  }
  for (const auto& [identifier, reason] : seen.published) {
    settle(identifier, reason);
  }
  if (client_ == nullptr) {
    return;  // a handler has made it too much
  }
  if (result != MOSQ_ERR_SUCCESS || mosquitto_socket(client_.get()) < 0) {
    return lose(reasonOf(result, seen));
  }
  flush();
}

std::string Broker::reasonOf(int result, const Seen& seen) const {
  if (seen.connected.value_or(MQTT_RC_SUCCESS) != MQTT_RC_SUCCESS) {
    return mosquitto_reason_string(*seen.connected);
  }
  if (seen.disconnected.value_or(0) >= kFirstFailure) {
    return mosquitto_reason_string(*seen.disconnected);
  }
  if (!seen.error.empty()) {
    return tool::escaped(seen.error);
  }
  return unexplained(result == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(result));
}

/// A broker that is not content with a certificate may just close the connection.
std::string Broker::unexplained(const std::string& why) const {
  return settings_.tls && !isUp_ ? why + " with TLS; the broker's log may say more" : why;
}

void Broker::becomeUp() {
  isUp_ = true;
  seconds_ = 0;
  mosquitto_log_callback_set(client_.get(), nullptr);  // it costs a text for each packet
  lastReason_.clear();
  ++counters_.connected;
  say(role_.subject + ": connected to the broker");
  for (const auto& filter : role_.filters) {
    int identifier = 0;
    mosquitto_subscribe_v5(client_.get(), &identifier, filter.c_str(), 1, role_.options, nullptr);
    subscriptions_[identifier] = filter;
  }
  handlers_.up();
  for (auto& event : takeLast()) {
    if (!event.publication.retain) {  // the others are those that were published just now
      publish(std::move(event.publication));
    }
  }
  sayWhatWasDropped("while the broker was away");
}

void Broker::sayWhatWasDropped(const std::string& when) {
  if (const auto dropped = counters_.dropped - std::exchange(droppedBefore_, counters_.dropped)) {
    say(role_.subject + ": " + tool::counted(dropped, "message") + " dropped " + when +
        "; the last event of each topic was kept");
  }
}

void Broker::lose(const std::string& reason) {
  control_->detach();
  client_.reset();
  ticking_.disarm();
  const bool wasUp = std::exchange(isUp_, false);
  onlyIpv4_ = wasUp ? onlyIpv4_ : !onlyIpv4_;
  shortLives_ += wasUp && seconds_ < kShortLife ? 1 : 0;
  if (std::exchange(lastReason_, reason) != reason) {
    say(role_.subject + (wasUp ? ": lost the broker: " : ": cannot connect to the broker: ") +
        reason +
        (wasUp && shortLives_ > 1 && !role_.will.empty()
             ? "; so soon again: does another bridge export this name, too?"
             : ""));
  }
  subscriptions_.clear();
  for (auto& [identifier, sent] : std::exchange(inFlight_, {})) {
    keep(std::move(sent));
  }
  for (auto& queued : std::exchange(waiting_, {})) {
    bytes_ -= queued.publication.payload.size();
    keep(std::move(queued));
  }
  retry_.arm(jittered(delay_));
  delay_ = std::min(2 * delay_, kLongestDelay);
  if (wasUp) {
    handlers_.down();
  }
}

// --- publishing ---

void Broker::publish(Publication publication) {
  Waiting next{++lastNumber_, std::move(publication)};
  if (!isUp_) {
    return keep(std::move(next));
  }
  if (waiting_.empty() && inFlight_.size() < kWindow) {
    hand(std::move(next));
    return flush();
  }
  queue(std::move(next));
  if (waiting_.size() > kMostWaiting || bytes_ > kMostBytes) {
    thin();
  }
}

void Broker::queue(Waiting next) {
  bytes_ += next.publication.payload.size();
  waiting_.push_back(std::move(next));
}

/// For a broker that does not keep up: of what waits, only the last event of each topic goes on
/// waiting. If that is not enough, the connection is made again.
void Broker::thin() {
  std::vector<Waiting> rest;
  for (auto& queued : std::exchange(waiting_, {})) {
    bytes_ -= queued.publication.payload.size();
    if (queued.publication.isEvent) {
      keep(std::move(queued));
    } else {
      rest.push_back(std::move(queued));
    }
  }
  for (auto& event : takeLast()) {
    rest.push_back(std::move(event));
  }
  std::sort(rest.begin(), rest.end(), isOlder);
  for (auto& one : rest) {
    queue(std::move(one));
  }
  sayWhatWasDropped("since the broker does not keep up");
  if (waiting_.size() > kMostWaiting / 2 || bytes_ > kMostBytes / 2) {
    lose("it does not take what is published");
  }
}

/// The last event of each topic, in their order.
std::vector<Broker::Waiting> Broker::takeLast() {
  std::vector<Waiting> events;
  for (auto& [topic, event] : std::exchange(last_, {})) {
    bytes_ -= event.publication.payload.size();
    events.push_back(std::move(event));
  }
  std::sort(events.begin(), events.end(), isOlder);
  return events;
}

bool Broker::isOlder(const Waiting& a, const Waiting& b) {
  return a.number < b.number;
}

/// For the time when the broker is back.
void Broker::keep(Waiting event) {
  const Publication& publication = event.publication;
  if (!publication.isEvent) {
    counters_.dropped += publication.retain ? 0 : 1;  // what is retained is published again
    return;
  }
  const auto older = last_.find(publication.topic);
  if (older != last_.end()) {
    bytes_ -= older->second.publication.payload.size();
    last_.erase(older);
    ++counters_.dropped;
  }
  if (last_.size() >= kMostWaiting || bytes_ + publication.payload.size() > kMostBytes) {
    ++counters_.dropped;
    return;
  }
  bytes_ += publication.payload.size();
  std::string topic = publication.topic;
  last_.emplace(std::move(topic), std::move(event));
}

void Broker::flush() {
  settle();
  while (!waiting_.empty() && inFlight_.size() < kWindow) {
    Waiting next = std::move(waiting_.front());
    waiting_.pop_front();
    bytes_ -= next.publication.payload.size();
    hand(std::move(next));
    settle();
  }
  watch();
}

/// To the library, which sends it at once if it can.
void Broker::hand(Waiting next) {
  const Publication& publication = next.publication;
  Properties properties;
  if (!publication.responseTopic.empty()) {
    properties.addText(MQTT_PROP_RESPONSE_TOPIC, publication.responseTopic);
  }
  if (!publication.correlation.empty()) {
    properties.addBytes(MQTT_PROP_CORRELATION_DATA, publication.correlation);
  }
  if (publication.expiry != 0) {
    properties.add(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, publication.expiry);
  }
  int identifier = 0;
  const int result = mosquitto_publish_v5(
      client_.get(), &identifier, publication.topic.c_str(),
      static_cast<int>(publication.payload.size()), publication.payload.data(),
      publication.isEvent ? settings_.qos : 1, publication.retain, properties.get());
  const bool isConnection = result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST ||
                            result == MOSQ_ERR_ERRNO;  // which is seen by the event that follows
  if (result == MOSQ_ERR_SUCCESS || isConnection) {
    inFlight_.emplace_back(identifier, std::move(next));
    return;
  }
  ++counters_.refused;
  say(role_.subject + ": cannot publish to " + tool::inQuotes(publication.topic) + ": " +
      mosquitto_strerror(result));
  handlers_.refused(publication, MQTT_RC_UNSPECIFIED);
}

/// What was confirmed meanwhile; with quality of service 0 that is inside of publishing.
void Broker::settle() {
  for (const auto& [identifier, reason] : std::exchange(seen_.published, {})) {
    settle(identifier, reason);
  }
}

void Broker::settle(int identifier, int reason) {
  const auto found = std::find_if(
      inFlight_.begin(), inFlight_.end(),
      [identifier = identifier](const auto& sent) { return sent.first == identifier; });
  if (found == inFlight_.end()) {
    return;
  }
  const Publication publication = std::move(found->second.publication);
  inFlight_.erase(found);
  if (reason >= kFirstFailure) {
    ++counters_.refused;
    say(role_.subject + ": the broker refuses " + tool::inQuotes(publication.topic) + ": " +
        mosquitto_reason_string(reason));
  }
  if (reason != MQTT_RC_SUCCESS) {
    handlers_.refused(publication, reason);
  }
}

}  // namespace bridge
