// A service and its sessions. What goes over the wire is in conformance.json.

#include "Api/Service/Service.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "Api/Json/Types.h"
#include "Kelvo/Exception.h"
#include "tests/service/Lamp.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

bool admitAll(int, unsigned, unsigned) {
  return true;
}

TEST(Service, TellsOfBothEndsOfASession) {
  Lamp lamp;
  Fd first = lamp.connect();
  const Fd second = lamp.connect();
  turnUntilIdle();
  first.reset();
  turnUntilIdle();
  EXPECT_THAT(lamp.joined, ElementsAre(1, 2));
  EXPECT_THAT(lamp.left, ElementsAre(1));
  EXPECT_EQ(lamp->sessions(), 1U);
}

TEST(Service, RefusesWhomTheAdmissionRefuses) {
  const std::string name = uniqueName();
  unsigned asked = 0;
  const Tovik::Service service(name, [&asked](int pid, unsigned uid, unsigned) {
    asked += pid == getpid() && uid == getuid() ? 1 : 0;
    return false;
  });
  const Fd client = rawConnect(name);
  EXPECT_EQ(Lamp::receive(client), "<end>");
  EXPECT_EQ(asked, 1U);
  EXPECT_EQ(service.sessions(), 0U);
}

TEST(Service, KeepsDataForEachSession) {
  struct Count {
    int value = 0;
  };
  Lamp lamp;
  lamp->command("next", "Counts the session's calls.", {}, [](Tovik::Request request) {
    request.reply(++request.session()->data<Count>().value);
  });
  const Fd first = lamp.connect();
  const Fd second = lamp.connect();
  EXPECT_THAT(Lamp::ask(first, R"({"command":"next"})"), HasSubstr(R"("result":1)"));
  EXPECT_THAT(Lamp::ask(first, R"({"command":"next"})"), HasSubstr(R"("result":2)"));
  EXPECT_THAT(Lamp::ask(second, R"({"command":"next"})"), HasSubstr(R"("result":1)"));
}

TEST(Service, ClosesASession) {
  Lamp lamp;
  lamp->command("close", "Closes.", {}, [](Tovik::Request request) { request.session()->close(); });
  const Fd client = lamp.connect();
  EXPECT_EQ(Lamp::ask(client, R"({"command":"close"})"), "<end>");
  turnUntilIdle();
  EXPECT_THAT(lamp.left, ElementsAre(1));
}

TEST(Service, AnswersWhatNoCommandIsFor) {
  Lamp lamp;
  lamp->otherwise([](Tovik::Request request) {
    request.reply(request.command() + ":" + request.get<std::string>("a", "none"));
  });
  const Fd client = lamp.connect();
  EXPECT_THAT(Lamp::ask(client, R"({"command":"dance","a":"b"})"),
              HasSubstr(R"("result":"dance:b")"));
  EXPECT_THAT(Lamp::ask(client, R"({"a":"b"})"), HasSubstr(R"("result":":b")"));
  EXPECT_THAT(Lamp::ask(client, R"({"command":7})"), HasSubstr(R"("result":":none")"));
  EXPECT_THAT(Lamp::ask(client, R"({"command":"refuse"})"), HasSubstr(R"("status":13)"));
  EXPECT_THAT(Lamp::ask(client, R"({"command":"describe","id":1})"), HasSubstr(R"("commands")"));
  EXPECT_THAT(Lamp::ask(client, "[]"), HasSubstr(R"("status":22)"));
}

TEST(Service, BoundsTheCallsThatNoCommandIsFor) {
  Tovik::ServiceOptions options;
  options.callsPerSession = 1;
  Lamp lamp(options);
  lamp->otherwise([&lamp](Tovik::Request request) { lamp.kept.push_back(request); });
  const Fd client = lamp.connect();
  Lamp::tell(client, R"({"any":"thing","id":1})");
  EXPECT_THAT(Lamp::ask(client, R"({"any":"thing","id":2})"), HasSubstr(R"("status":16)"));
}

TEST(Service, SendsItsOwnMessagesToThoseWhoGetAll) {
  Lamp lamp;
  const Fd follower = lamp.connect();
  const Fd other = lamp.connect();
  Lamp::ask(follower, R"({"command":"set","notification":true})");
  Lamp::ask(other, R"({"command":"subscribe","topics":[]})");
  EXPECT_EQ(lamp->notify(Tovik::object("load", 3)), 0);
  EXPECT_EQ(Lamp::receive(follower), R"({"load":3})");
  lamp->publish("plain", Tovik::object());
  EXPECT_THAT(Lamp::receive(other), HasSubstr(R"("topic":"plain")"));
}

TEST(Service, RefusesMessagesThatWouldBeMistaken) {
  Lamp lamp;
  EXPECT_EQ(lamp->notify(Tovik::Message()), 22);
  EXPECT_EQ(lamp->notify(Tovik::object("type", "reply", "status", 0)), 22);
  EXPECT_EQ(lamp->notify(Tovik::object("type", "event")), 22);
  EXPECT_EQ(lamp->notify(Tovik::object("text", std::string(4094, 'x'))), 90);
}

TEST(Service, MayBeDestroyedWhenASessionBegins) {
  auto service = std::make_unique<Tovik::Service>(uniqueName(), admitAll);
  service.reset();
  const std::string name = uniqueName();
  service = std::make_unique<Tovik::Service>(name, admitAll);
  service->onJoin([&service](Tovik::Session&) { service.reset(); });
  EXPECT_EQ(Lamp::receive(rawConnect(name)), "<end>");
}

TEST(Service, MayBeDestroyedWhenASessionEnds) {
  Lamp lamp;
  lamp->onLeave([&lamp](Tovik::Session&) { lamp.destroy(); });
  Fd leaving = lamp.connect();
  const Fd staying = lamp.connect();
  turnUntilIdle();
  leaving.reset();
  EXPECT_EQ(Lamp::receive(staying), "<end>");
}

TEST(Service, LeavesNoDescriptorBehind) {
  turnUntilIdle();
  const auto before = openDescriptors();
  {
    Lamp lamp;
    const Fd client = lamp.connect();
    turnUntilIdle();
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(Service, WaitsForADescriptorWithoutSpinning) {
  int failures = 0;
  const std::string failure = std::string("cannot accept a client: ") + std::strerror(EMFILE);
  Kelvo::Platform::setDebugSink(
      "TovikService", [&](const auto& record) { failures += record.text == failure ? 1 : 0; });
  Kelvo::Platform::setDebugLevels("TovikService", 1);
  Lamp lamp;
  turnUntilIdle();
  const Fd client = lamp.connect();
  std::vector<Fd> rest;
  while (rest.empty() || rest.back().get() >= 0) {
    rest.emplace_back(::dup(client.get()));
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
  turnUntil([end] { return std::chrono::steady_clock::now() > end; });
  EXPECT_GE(failures, 1);
  EXPECT_LE(failures, 10);
  rest.clear();
  EXPECT_EQ(Lamp::ask(client, R"({"command":"switch","on":true})"),
            R"({"type":"reply","status":0})");
  Kelvo::Platform::setDebugLevels("TovikService", 0);
  Kelvo::Platform::setDebugSink("TovikService", nullptr);
}

TEST(Service, CannotTakeANameThatIsTaken) {
  const std::string name = uniqueName();
  const Tovik::Service service(name, admitAll);
  EXPECT_THROW(Tovik::Service(name, admitAll), Tovik::SocketException);
}

TEST(Service, CannotHaveANameThatNobodyCouldConnectTo) {
  EXPECT_THROW(Tovik::Service(std::string(107, 'x'), admitAll), Kelvo::Exception);
  EXPECT_THROW(Tovik::Service(std::string("a\0b", 3), admitAll), Kelvo::Exception);
  EXPECT_NO_THROW(Tovik::Service(uniqueName() + std::string(80, 'x'), admitAll));
}

TEST(Service, HasEachCommandAndTopicOnce) {
  Lamp lamp;
  for (const char* name : {"switch", "subscribe", "unsubscribe", "describe"}) {
    EXPECT_THROW(lamp->command(name, "", {}, {}), Kelvo::Exception) << name;
  }
  EXPECT_THROW(lamp->topic("plain", {""}), Kelvo::Exception);
}

TEST(Service, DescribesItselfInAsManyPartsAsItTakes) {
  const std::string name = uniqueName();
  Tovik::Service service(name, admitAll);
  const int count = 100;
  for (int i = 0; i < count; ++i) {
    service.command("command" + std::to_string(i), std::string(200, 'x'), {}, {});
    service.topic("topic" + std::to_string(i), {std::string(200, 'x')});
  }
  const Fd client = rawConnect(name);
  Lamp::tell(client, R"({"command":"describe","id":9007199254740991})");
  std::size_t commands = 0, topics = 0;
  bool more = true;
  while (more) {
    const std::string record = Lamp::receive(client);
    ASSERT_LE(record.size(), 4094U);
    const auto reply = parsed(record);
    const auto& result = reply["result"];
    commands += result.HasMember("commands") ? result["commands"].Size() : 0;
    topics += result.HasMember("topics") ? result["topics"].Size() : 0;
    more = Tovik::get<bool>(reply, "more").value_or(false);
  }
  EXPECT_EQ(commands, 100U);
  EXPECT_EQ(topics, 100U);
  EXPECT_THAT(Lamp::ask(client, R"({"command":"describe"})"), HasSubstr(R"("status":90)"));
  turnUntilIdle();
  EXPECT_EQ(rawReceiveNow(client.get()), "<nothing>");
}

TEST(Service, CannotHaveADescriptionThatFitsNoRecord) {
  Lamp lamp;
  EXPECT_THROW(lamp->command("long", std::string(4000, 'x'), {}, {}), Kelvo::Exception);
  EXPECT_THROW(lamp->topic("long", {std::string(4000, 'x')}), Kelvo::Exception);
  EXPECT_THROW(Tovik::Service(uniqueName(), admitAll, {std::string(4000, 'x')}), Kelvo::Exception);
}

}  // namespace
