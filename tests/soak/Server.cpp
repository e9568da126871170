// The server's process. It answers {"call":N} with status N, counts {"note":N}, and broadcasts
// {"run":R,"sequence":N,"sent":T,"padding":P}: R tells one server from the next under the same
// name, N counts from 1, T is the time. A sabotage is a fault that has to be noticed.

#include "Api/Json/Server.h"

#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include "Kelvo/Platform/TimeoutHandler.h"
#include "tests/soak/Child.h"

namespace {

class Server final : public Kelvo::Platform::TimeoutHandler {
 public:
  explicit Server(const Tovik::Message& setup)
      : name_(of<std::string>(setup, "name")),
        sabotage_(of<std::string>(setup, "sabotage")),
        padding_(of<unsigned>(setup, "padding"), 'x'),
        run_(of<unsigned>(setup, "run")) {
    open();
    if (sabotage_ == "wake") {
      pace_->arm(0.02);
    }
  }

  void timeout() override {
    if (paced_ == 0) {
      return pace_->arm(0.02);  // for nothing; a healthy server does not come here
    }
    broadcast();
    if (--paced_ == 0) {
      return answer();
    }
    pace_->arm(interval_);
  }

 private:
  void open() {
    opened_ = std::chrono::steady_clock::now();
    sequence_ = 0;
    server_ = std::make_unique<Tovik::Server>(
        name_, [this](auto& client, const auto& msg) { handle(client, msg); },
        [this](int /*pid*/, unsigned uid, unsigned /*gid*/) { return admits(uid); });
  }

  bool admits(unsigned uid) {
    const bool late = sabotage_ == "late" && run_ > 1 &&
                      std::chrono::steady_clock::now() - opened_ < std::chrono::milliseconds(2300);
    const bool yes = admit_ && !late && uid == ::geteuid();
    admitted_ += yes ? 1U : 0U;
    return yes;
  }

  void handle(Tovik::Connection& client, const Tovik::Message& msg) {
    const auto call = msg.FindMember("call");
    if (call == msg.MemberEnd()) {
      ++notes_;
      return;
    }
    if (sabotage_ == "mute" && ++calls_ % 100 == 50) {
      return;
    }
    client.acknowledge(call->value.GetUint());
  }

  void broadcast() {
    const bool struck = ++sequence_ % 100 == 50;
    if (struck && sabotage_ == "drop") {
      return;
    }
    notify();
    if (struck && sabotage_ == "double") {
      notify();
    } else if (struck && sabotage_ == "descriptor") {
      [[maybe_unused]] const int kept = ::dup(STDERR_FILENO);
    } else if (sabotage_ == "leak") {
      kept_.emplace_back(4096, 'x');
    }
  }

  void notify() {
    Tovik::Message news;
    news.SetObject();
    auto& allocator = news.GetAllocator();
    news.AddMember("run", run_, allocator);
    news.AddMember("sequence", sequence_, allocator);
    news.AddMember("sent", nowNanoseconds(), allocator);
    news.AddMember("padding", rapidjson::StringRef(padding_.data(), padding_.size()), allocator);
    if (!padding_.empty()) {
      textSize_ = Tovik::Message::toStr(news, false).size();
    }
    server_->notifyClients(news);
  }

  const std::string name_, sabotage_, padding_;
  unsigned run_;
  std::uint64_t sequence_ = 0;  // of the last broadcast
  std::uint64_t admitted_ = 0, notes_ = 0, calls_ = 0, textSize_ = 0;
  bool admit_ = true;
  std::chrono::steady_clock::time_point opened_;
  std::uint64_t paced_ = 0;
  double interval_ = 0;
  std::vector<std::string> kept_;
  const Kelvo::Ptr<Kelvo::Platform::Timer> pace_ = Kelvo::Platform::getTimer(this);
  std::unique_ptr<Tovik::Server> server_;
  const Commands commands_{{
      {"broadcast",
       [this](auto count, auto) {
         for (; count > 0; --count) {
           broadcast();
         }
       }},
      {"pace",  // one each so many microseconds; answers when it has
       [this](auto count, auto microseconds) {
         paced_ = count;
         interval_ = static_cast<double>(microseconds) * 1e-6;
         pace_->arm(0);
       }},
      {"admit", [this](auto yes, auto) { admit_ = yes != 0; }},
      {"close",
       [this](auto, auto) {
         server_.reset();
         answer();
       }},
      {"open",  // anew, in the same process
       [this](auto, auto) {
         ++run_;
         open();
         answer();
       }},
      {"figures",
       [this](auto, auto) {
         answer(Tovik::object("sequence", sequence_, "admitted", admitted_, "notes", notes_,
                              "textSize", textSize_, "heap", heapInUse()));
       }},
  }};
};

}  // namespace

void runServer(const Tovik::Message& setup) {
  play<Server>(setup);
}
