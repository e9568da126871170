// The cases of conformance.json, whose own words say how they are run: a service against raw
// records in both directions, and a proxy likewise.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <deque>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>

#include "Api/Service/Proxy.h"
#include "tests/service/Lamp.h"

namespace {

using Tovik::find;
using Tovik::get;
using Tovik::object;

/// The names of a side's cases.
Tovik::Message suite() {
  std::ifstream file(TOVIK_CONFORMANCE);
  return parsed({std::istreambuf_iterator<char>(file), {}});
}

std::vector<std::string> casesOf(const char* side) {
  const auto all = suite();
  std::vector<std::string> names;
  for (const auto& one : all[side].GetArray()) {
    names.emplace_back(one["name"].GetString());
  }
  return names;
}

std::string textOf(const rapidjson::Value& value) {
  Tovik::Message copy;
  copy.CopyFrom(value, copy.GetAllocator());
  return Tovik::Message::toStr(copy, false).data();
}

std::string rawOf(const rapidjson::Value& step) {
  std::string bytes;
  for (int times = get<int>(step, "times").value_or(1); times > 0; --times) {
    bytes += step["raw"].GetString();
  }
  return bytes;
}

/// Equal as JSON; but an expected "?" stands for any text.
void expectEqual(const rapidjson::Value& expected, Tovik::Message actual) {
  if (get<std::string>(expected, "error") == "?" &&
      !get<std::string>(actual, "error").value_or("").empty()) {
    actual["error"].SetString("?", actual.GetAllocator());
  }
  EXPECT_TRUE(actual == expected) << "expected: " << textOf(expected)
                                  << "\nactual:   " << textOf(actual);
}

class Conformance : public testing::TestWithParam<std::string> {
 protected:
  void runCase(const char* side) {
    const auto all = suite();
    for (const auto& one : all[side].GetArray()) {
      if (one["name"] != GetParam().c_str()) {
        continue;
      }
      for (const auto& step : one["steps"].GetArray()) {
        SCOPED_TRACE(textOf(step).substr(0, 200));
        run(step, get<std::string>(step, "as").value_or(""));
        if (HasFailure()) {
          return;
        }
      }
    }
  }
  virtual void run(const rapidjson::Value& step, const std::string& as) = 0;
};

// --- a service ---

class ServiceConformance : public Conformance {
 protected:
  ServiceConformance() {
    lamp_->command("hold", "Is kept.", {},
                   [this](Tovik::Request request) { held_.push_back(request); });
    lamp_->command("release", "Answers what is held.", {}, [this](Tovik::Request request) {
      request.reply();
      for (int result = 1; !held_.empty(); ++result) {
        held_.back().reply(result);
        held_.pop_back();
      }
    });
    lamp_->command(
        "publish", "Publishes.",
        {Tovik::required<std::string>("topic", "Where."), Tovik::required<int>("value", "What.")},
        [this](Tovik::Request request) {
          const auto topic = request.get<std::string>("topic");
          EXPECT_EQ(lamp_->publish(topic, object("value", request.get<int>("value"))), 0);
          request.reply();
        });
  }

  void run(const rapidjson::Value& step, const std::string& as) override {
    if (clients_.count(as) == 0) {
      clients_[as] = lamp_.connect();
    }
    const Fd& client = clients_[as];
    if (const auto* record = find(step, "send")) {
      Lamp::tell(client, textOf(*record));
    } else if (find(step, "raw") != nullptr) {
      Lamp::tell(client, rawOf(step));
    } else if (const auto* expected = find(step, "receive")) {
      expectEqual(*expected, parsed(Lamp::receive(client)));
    } else {
      ASSERT_TRUE(step.HasMember("end"));
      EXPECT_EQ(Lamp::receive(client), "<end>");
    }
  }

  Lamp lamp_;
  std::vector<Tovik::Request> held_;
  std::map<std::string, Fd> clients_;
};

TEST_P(ServiceConformance, Holds) {
  runCase("service");
  for (const auto& [name, client] : clients_) {
    turnUntilIdle();
    const auto rest = rawReceiveNow(client.get());
    EXPECT_TRUE(rest == "<nothing>" || rest == "<end>") << rest;
  }
}

INSTANTIATE_TEST_SUITE_P(All, ServiceConformance, testing::ValuesIn(casesOf("service")),
                         [](const auto& one) { return one.param; });

// --- a proxy ---

class ProxyConformance : public Conformance {
 protected:
  ProxyConformance() { proxy_.emplace(name_, quick()); }

  static Tovik::ProxyOptions quick() {
    Tovik::ProxyOptions options;
    options.reconnectInterval = 0.01;
    return options;
  }

  void run(const rapidjson::Value& step, const std::string& as) override {
    if (step.HasMember("call")) {
      proxy_->call(*get<Tovik::Message>(step, "call"),
                   Tovik::Proxy::Seconds(get<double>(step, "limit").value_or(10)), noting(as));
    } else if (const auto topic = get<std::string>(step, "subscribe")) {
      proxy_->subscribe(*topic,
                        [this](const Tovik::Message& event) { events_.push_back(textOf(event)); });
    } else if (step.HasMember("accept")) {
      accept();
    } else if (step.HasMember("close")) {
      peer_.reset();
    } else if (step.HasMember("raw")) {
      rawSend(peer_.get(), rawOf(step));
    } else if (step.HasMember("reply")) {
      auto reply = *get<Tovik::Message>(step, "reply");
      reply.AddMember("id", ids_[as], reply.GetAllocator());
      rawSend(peer_.get(), textOf(reply));
    } else {
      await(step, as);
    }
  }

  void await(const rapidjson::Value& step, const std::string& as) {
    if (const auto* expected = find(step, "request")) {
      auto request = parsed(Lamp::receive(peer_));
      ids_[as] = get<std::uint64_t>(request, "id").value_or(0);
      request.RemoveMember("id");
      expectEqual(*expected, std::move(request));
    } else if (const auto* outcome = find(step, "outcome")) {
      ASSERT_TRUE(turnUntil([this, &as] { return !outcomes_[as].empty(); }));
      expectEqual(*outcome, parsed(outcomes_[as].front()));
      outcomes_[as].pop_front();
    } else {
      ASSERT_TRUE(step.HasMember("event"));
      ASSERT_TRUE(turnUntil([this] { return !events_.empty(); }));
      expectEqual(step["event"], parsed(events_.front()));
      events_.pop_front();
    }
  }

  void accept() {
    pollfd query{listener_.get(), POLLIN, 0};
    ASSERT_TRUE(turnUntil([&query] { return ::poll(&query, 1, 0) == 1; }));
    peer_ = Fd(::accept(listener_.get(), nullptr, nullptr));
  }

  Tovik::Proxy::Callback noting(const std::string& as) {
    return [this, as](Tovik::Outcome outcome) {
      constexpr const char* kEnds[] = {"reply", "timed out", "lost", "refused", "too long"};
      auto noted = object("end", kEnds[outcome.end], "status", outcome.status);
      const auto result = outcome.get<Tovik::Message>();
      if (result.has_value()) {
        noted = object("end", kEnds[outcome.end], "status", outcome.status, "result", *result);
      }
      if (!outcome.error.empty()) {
        noted = object("end", kEnds[outcome.end], "status", outcome.status, "error", outcome.error);
      }
      if (outcome.more) {
        noted.AddMember("more", true, noted.GetAllocator());
      }
      outcomes_[as].push_back(textOf(noted));
    };
  }

  const std::string name_ = uniqueName();
  const Fd listener_ = rawListen(name_);
  Fd peer_;
  std::map<std::string, std::uint64_t> ids_;
  std::map<std::string, std::deque<std::string>> outcomes_;
  std::deque<std::string> events_;
  std::optional<Tovik::Proxy> proxy_;
};

TEST_P(ProxyConformance, Holds) {
  runCase("proxy");
  turnUntilIdle();
  for (const auto& [name, rest] : outcomes_) {
    EXPECT_TRUE(rest.empty()) << name << ": " << rest.front();
  }
  EXPECT_TRUE(events_.empty());
}

INSTANTIATE_TEST_SUITE_P(All, ProxyConformance, testing::ValuesIn(casesOf("proxy")),
                         [](const auto& one) { return one.param; });

}  // namespace
