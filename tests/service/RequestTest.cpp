// Calls of a service's commands. What goes over the wire is in conformance.json.

#include <gmock/gmock.h>

#include <limits>
#include <thread>
#include <utility>

#include "Kelvo/Platform/Debug.h"
#include "tests/service/Lamp.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

class Request : public testing::Test {
 protected:
  std::string ask(std::string_view record) { return Lamp::ask(client_, record); }
  std::string next() { return Lamp::receive(client_); }
  void tell(std::string_view record) { Lamp::tell(client_, record); }

  Lamp lamp_;
  Fd client_ = lamp_.connect();
};

TEST_F(Request, WithoutAnArgumentOrWithOneOfTheWrongTypeIsToldWhich) {
  EXPECT_THAT(ask(R"({"command":"switch"})"), HasSubstr(R"("error":"argument 'on' is missing")"));
  EXPECT_THAT(ask(R"({"command":"add","a":1.5})"),
              HasSubstr(R"("error":"argument 'a' is no valid integer")"));
  EXPECT_THAT(ask(R"({"command":"add","a":2147483648})"), HasSubstr("'a'"));
  EXPECT_THAT(ask(R"({"command":"add","a":1,"b":"2"})"), HasSubstr("'b'"));
}

TEST_F(Request, ThatIsRefusedIsLogged) {
  std::vector<std::string> texts;
  Kelvo::Platform::setDebugSink("TovikService",
                                [&texts](const auto& record) { texts.emplace_back(record.text); });
  Kelvo::Platform::setDebugLevels("TovikService", 2);
  ask(R"({"command":"dim"})");
  ask(R"({"command":"refuse"})");
  Kelvo::Platform::setDebugLevels("TovikService", 0);
  Kelvo::Platform::setDebugSink("TovikService", nullptr);
  EXPECT_THAT(texts,
              ElementsAre(EndsWith(": refused: no command 'dim'"), EndsWith(": refused: not you")));
}

TEST_F(Request, IsAnsweredWith5IfTheHandlerThrowsSomethingElse) {
  rawSend(client_.get(), R"({"command":"throw"})");
  EXPECT_THROW(turnUntil([this] { return rawReceiveNow(client_.get()) != "<nothing>"; }),
               std::runtime_error);
  EXPECT_THAT(next(), HasSubstr(R"("status":5)"));
}

TEST_F(Request, IsAnsweredByAWorkerThroughTheLoop) {
  auto& loop = Kelvo::Platform::EventLoop::current();
  tell(R"({"command":"keep","id":1})");
  std::thread worker([&loop, request = lamp_.kept[0]]() mutable {
    loop.post([request]() mutable { request.reply("worked"); });
  });
  lamp_.kept.clear();
  EXPECT_EQ(next(), R"({"type":"reply","status":0,"id":1,"result":"worked"})");
  worker.join();
}

TEST_F(Request, MayBeDroppedByAWorker) {
  tell(R"({"command":"keep","id":1})");
  tell(R"({"command":"keep"})");
  std::thread worker([requests = std::exchange(lamp_.kept, {})]() mutable { requests.clear(); });
  EXPECT_THAT(next(), HasSubstr(R"("status":5,"id":1)"));
  EXPECT_THAT(next(), HasSubstr(R"("status":5,"error")"));
  worker.join();
}

TEST_F(Request, IsAnsweredOnce) {
  tell(R"({"command":"keep","id":1})");
  EXPECT_TRUE(lamp_.kept[0].reply());
  EXPECT_FALSE(lamp_.kept[0].isOpen());
  EXPECT_FALSE(lamp_.kept[0].fail(5, "again"));
  lamp_.kept.clear();
  EXPECT_EQ(next(), R"({"type":"reply","status":0,"id":1})");
  EXPECT_EQ(rawReceiveNow(client_.get()), "<nothing>");
}

TEST_F(Request, OutlivesItsClient) {
  tell(R"({"command":"keep"})");
  EXPECT_TRUE(lamp_.kept[0].isOpen());
  EXPECT_EQ(lamp_.kept[0].session()->pid(), getpid());
  client_.reset();
  turnUntilIdle();
  EXPECT_FALSE(lamp_.kept[0].isOpen());
  EXPECT_EQ(lamp_.kept[0].session(), nullptr);
  EXPECT_EQ(lamp_.kept[0].command(), "keep");
  EXPECT_FALSE(lamp_.kept[0].reply());
}

TEST_F(Request, OutlivesItsService) {
  tell(R"({"command":"keep","id":1})");
  lamp_.destroy();
  EXPECT_FALSE(lamp_.kept[0].isOpen());
  EXPECT_FALSE(lamp_.kept[0].more(1));
  lamp_.kept.clear();
  EXPECT_EQ(rawReceive(client_.get()), "<end>");
}

TEST_F(Request, MayDestroyItsService) {
  lamp_->command("end", "Ends the service.", {}, [this](Tovik::Request request) {
    lamp_.destroy();
    EXPECT_FALSE(request.isOpen());
  });
  EXPECT_EQ(ask(R"({"command":"end"})"), "<end>");
}

TEST_F(Request, IsRefusedWhenTooManyAreInFlight) {
  for (int id = 0; id < 16; ++id) {
    tell(R"({"command":"keep","id":)" + std::to_string(id) + "}");
  }
  EXPECT_THAT(ask(R"({"command":"keep","id":16})"), HasSubstr(R"("status":16,"id":16)"));
  EXPECT_THAT(ask(R"({"command":"describe","id":16})"), HasSubstr(R"("status":0,"id":16)"));
  lamp_.kept.back().reply();
  EXPECT_THAT(next(), HasSubstr(R"("status":0,"id":15)"));
  EXPECT_THAT(ask(R"({"command":"switch","on":true,"id":16})"), HasSubstr(R"("status":0,"id":16)"));
}

TEST_F(Request, EndsASessionThatDoesNotWaitForItsTurn) {
  for (int i = 0; i < 33; ++i) {
    tell(R"({"command":"keep"})");
  }
  EXPECT_EQ(lamp_.kept.size(), 16U);
  EXPECT_TRUE(lamp_.left.empty());
  tell(R"({"command":"keep"})");
  EXPECT_EQ(lamp_.left.size(), 1U);
}

TEST_F(Request, IsToldWhenItsAnswerIsTooLong) {
  const std::string longest(4094 - std::string(R"({"type":"reply","status":0,"result":""})").size(),
                            'x');
  tell(R"({"command":"keep"})");
  tell(R"({"command":"keep"})");
  EXPECT_TRUE(lamp_.kept[0].reply(longest));
  EXPECT_EQ(next().size(), 4094U);
  EXPECT_FALSE(lamp_.kept[1].reply(longest + "x"));
  EXPECT_EQ(next(),
            R"({"type":"reply","status":90,"error":"the answer of 4095 bytes is too long"})");
}

TEST_F(Request, IsToldWhenItsAnswerIsNoJson) {
  tell(R"({"command":"keep"})");
  EXPECT_FALSE(lamp_.kept[0].reply(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_THAT(next(), HasSubstr(R"("status":22,"error":)"));
}

}  // namespace
