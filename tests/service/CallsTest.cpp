// Random calls, answers, time limits, losses and restarts: every call ends exactly once, is carried
// out at most once, and its answer is its own.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>

#include "Api/Service/Proxy.h"
#include "Api/Service/Service.h"
#include "tests/support/Support.h"

namespace {

using Tovik::object;
using Tovik::Outcome;

class Calls : public testing::TestWithParam<unsigned> {
 protected:
  void run(int steps) {
    std::uniform_int_distribution<int> action(0, 99);
    for (int i = 0; i < steps; ++i) {
      const int chosen = action(random_);
      if (chosen < 50) {
        call();
      } else if (chosen < 70) {
        answer();
      } else if (chosen < 95) {
        Kelvo::Platform::EventLoop::current().runOnce(std::chrono::milliseconds(chosen % 3));
      } else if (chosen < 97) {
        service_.reset();
      } else if (chosen < 99) {
        start();
      } else {
        makeProxy();
      }
    }
  }

  void makeProxy() {
    Tovik::ProxyOptions options;
    options.reconnectInterval = 0.002;
    options.jitter = 0.001;
    proxy_.emplace(name_, options);
  }

  void start() {
    service_.reset();
    service_ =
        std::make_unique<Tovik::Service>(name_, [](int, unsigned, unsigned) { return true; });
    service_->command("now", "Answers.", {Tovik::required<int>("tag", "")},
                      [this](Tovik::Request request) {
                        carryOut(request);
                        request.reply(request.get<int>("tag"));
                      });
    service_->command("later", "Answers later, or not at all.", {Tovik::required<int>("tag", "")},
                      [this](Tovik::Request request) {
                        carryOut(request);
                        kept_.push_back(request);
                      });
  }

  void carryOut(const Tovik::Request& request) {
    EXPECT_TRUE(carriedOut_.insert(request.get<int>("tag")).second) << "carried out twice";
  }

  void call() {
    const int tag = static_cast<int>(ends_.size());
    ends_.push_back(0);
    const auto message = object("command", tag % 3 == 0 ? "later" : "now", "tag", tag);
    const double limit = std::uniform_real_distribution<double>(0, 0.03)(random_);
    proxy_->call(message, Tovik::Proxy::Seconds(limit), [this, tag](Outcome outcome) {
      ++ends_[static_cast<std::size_t>(tag)];
      if (outcome) {
        EXPECT_EQ(outcome.get<int>(), tag);
        EXPECT_EQ(carriedOut_.count(tag), 1U);
      } else if (outcome.end == Outcome::kRefused) {
        EXPECT_EQ(carriedOut_.count(tag), 0U);
      }
      ++outcomes_[outcome.end];
    });
  }

  void answer() {
    if (!kept_.empty()) {
      const auto at = std::uniform_int_distribution<std::size_t>(0, kept_.size() - 1)(random_);
      kept_[at].reply(kept_[at].get<int>("tag"));
      kept_.erase(kept_.begin() + static_cast<std::ptrdiff_t>(at));
    }
  }

  const std::string name_ = uniqueName();
  std::mt19937 random_{GetParam()};
  std::vector<int> ends_;  // of each call
  std::set<int> carriedOut_;
  std::map<Outcome::End, int> outcomes_;
  std::vector<Tovik::Request> kept_;
  std::unique_ptr<Tovik::Service> service_;
  std::optional<Tovik::Proxy> proxy_;
};

TEST_P(Calls, EndOnce) {
  start();
  makeProxy();
  run(3000);
  EXPECT_TRUE(turnUntil([this] { return std::count(ends_.begin(), ends_.end(), 0) == 0; }))
      << "some never end";
  turnUntilIdle();
  EXPECT_EQ(std::count(ends_.begin(), ends_.end(), 1), static_cast<std::ptrdiff_t>(ends_.size()));
  for (const auto end : {Outcome::kReply, Outcome::kTimedOut, Outcome::kLost}) {
    EXPECT_GT(outcomes_[end], 0) << "the test has not seen an end of this kind: " << end;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, Calls, testing::Range(0U, 10U));

}  // namespace
