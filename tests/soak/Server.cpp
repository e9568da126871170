#include "tests/soak/Server.h"

#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include "Api/Json/Server.h"
#include "Kelvo/Platform/EventLoop.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "tests/soak/Log.h"
#include "tests/soak/Process.h"
#include "tests/soak/Times.h"

namespace Soak {

namespace {

class Service final : public Kelvo::Platform::TimeoutHandler {
 public:
  Service(const ServerSetup& setup, int commands)
      : setup_(setup),
        padding_(setup.padding, 'x'),
        commands_(commands, [this](const Command& command) { obey(command); }),
        pace_(Kelvo::Platform::getTimer(this)) {
    open();
    if (setup_.sabotage == Sabotage::kWake) {
      pace_->arm(0.02);
    }
    commands_.answer(Done{});
  }

  void timeout() override {
    if (paced_ == 0) {
      return pace_->arm(0.02);  // for nothing; a healthy server does not come here
    }
    broadcast();
    if (--paced_ == 0) {
      return commands_.answer(Done{});
    }
    pace_->arm(interval_);
  }

 private:
  void open() {
    opened_ = std::chrono::steady_clock::now();
    server_ = std::make_unique<Tovik::Server>(
        setup_.name.c_str(), [this](auto& client, const auto& msg) { handle(client, msg); },
        [this](int /*pid*/, unsigned uid, unsigned /*gid*/) { return admits(uid); });
  }

  bool admits(unsigned uid) {
    const bool late = setup_.sabotage == Sabotage::kLate && setup_.run > 1 &&
                      std::chrono::steady_clock::now() - opened_ < std::chrono::milliseconds(2300);
    const bool yes = admit_ && !late && uid == ::geteuid();
    figures_.admitted += yes ? 1U : 0U;
    return yes;
  }

  void handle(Tovik::Connection& client, const Tovik::Message& msg) {
    const auto call = msg.FindMember("call");
    if (call == msg.MemberEnd()) {
      ++figures_.notes;
      return;
    }
    if (setup_.sabotage == Sabotage::kMute && ++calls_ % 100 == 50) {
      return;
    }
    client.acknowledge(call->value.GetUint());
  }

  void obey(const Command& command) {
    switch (command.verb) {
      case Verb::kBroadcast:
        for (std::uint64_t i = 0; i < command.number; ++i) {
          broadcast();
        }
        return;
      case Verb::kPace:
        paced_ = command.number;
        interval_ = static_cast<double>(command.more) * 1e-6;
        return pace_->arm(0);
      case Verb::kAdmit:
        admit_ = command.number != 0;
        return;
      case Verb::kClose:
        server_.reset();
        return commands_.answer(Done{});
      case Verb::kOpen:
        return reopen();
      case Verb::kLevels:
        return setLogLevels(static_cast<unsigned>(command.number));
      default:
        ::malloc_trim(0);  // so that what the process keeps is what it has a use for
        figures_.heapInUse = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
        return commands_.answer(figures_);
    }
  }

  void reopen() {
    ++setup_.run;
    figures_.sequence = 0;
    open();
    commands_.answer(Done{});
  }

  void broadcast() {
    const bool struck = ++figures_.sequence % 100 == 50;
    if (struck && setup_.sabotage == Sabotage::kDrop) {
      return;
    }
    notify();
    if (struck && setup_.sabotage == Sabotage::kDouble) {
      notify();
    } else if (struck && setup_.sabotage == Sabotage::kDescriptor) {
      [[maybe_unused]] const int kept = ::dup(STDERR_FILENO);
    } else if (setup_.sabotage == Sabotage::kLeak) {
      kept_.emplace_back(4096, 'x');
    }
  }

  void notify() {
    Tovik::Message news;
    news.SetObject();
    auto& allocator = news.GetAllocator();
    news.AddMember("run", setup_.run, allocator);
    news.AddMember("sequence", figures_.sequence, allocator);
    news.AddMember("sent", nowNanoseconds(), allocator);
    news.AddMember("padding", rapidjson::StringRef(padding_.data(), padding_.size()), allocator);
    if (setup_.padding > 0) {
      figures_.textSize = Tovik::Message::toStr(news, false).size();
    }
    server_->notifyClients(news);
  }

  ServerSetup setup_;
  const std::string padding_;
  ServerFigures figures_;
  std::uint64_t calls_ = 0;
  bool admit_ = true;
  std::chrono::steady_clock::time_point opened_;
  std::uint64_t paced_ = 0;
  double interval_ = 0;
  std::vector<std::string> kept_;
  Commands commands_;
  const Kelvo::Ptr<Kelvo::Platform::Timer> pace_;
  std::unique_ptr<Tovik::Server> server_;
};

}  // namespace

void serve(const ServerSetup& setup, int commands) {
  watchLog(1);
  const Service service(setup, commands);
  Kelvo::Platform::EventLoop::current().run();
}

}  // namespace Soak
