// What becomes of records around the readers' buffer of 4096 bytes, and around twice as much, on
// both clients. Up to 4094 bytes everything arrives, whatever stands behind it.

#include <string>
#include <vector>

#include "tests/tovik/ClientSupport.h"
#include "tests/tovik/Peers.h"

using Faults::Call;
using Lines = std::vector<std::string>;

namespace {

constexpr std::size_t kLongestRead = 4095;

const std::string kMalformed =
    "0 Api/Json/Client readFdEvent: AsyncClient::readFdEvent(): Invalid JSON message";

std::string sizeOf(const testing::TestParamInfo<unsigned>& info) {
  return "Of" + std::to_string(info.param) + "Bytes";
}

/// A record whose first 4095 bytes are a JSON text, and whose further ones would break it.
std::string recordCutToJson(std::size_t size) {
  return messageOfSize(kLongestRead) + std::string(size - kLongestRead, ']');
}

}  // namespace

/// Records to and from the blocking client.
class Record : public ConnectedClient, public testing::TestWithParam<unsigned> {
 protected:
  const std::string text_ = messageOfSize(GetParam());
};

class RecordThatFits : public Record {};
class RecordTooLong : public Record {};

/// Records to and from the asynchronous client.
class AsyncRecord : public testing::TestWithParam<unsigned> {
 protected:
  AsyncRecord() {
    client_.timeout();
    peer_ = server_.accept();
  }

  /// Lets the client read all that has been sent.
  void deliver() {
    turnUntilIdle();
    EXPECT_TRUE(client_.isAttached());
  }

  const std::string text_ = messageOfSize(GetParam());
  RawServer server_;
  std::vector<std::string> messages_;
  Tovik::AsyncClient client_{
      server_.name(),
      [this](Tovik::AsyncClient&, const Tovik::Message& msg) { messages_.push_back(compact(msg)); },
      [](Tovik::AsyncClient&) {}, 3600};
  Fd peer_;
  CapturedLog log_{1U};
};

class AsyncRecordBelowTheLimit : public AsyncRecord {};
class AsyncRecordThatFillsTheRead : public AsyncRecord {};

INSTANTIATE_TEST_SUITE_P(Sizes, Record,
                         testing::Values(8U, 4093U, 4094U, 4095U, 4096U, 4097U, 8190U), sizeOf);
INSTANTIATE_TEST_SUITE_P(Sizes, RecordThatFits, testing::Values(8U, 4093U, 4094U, 4095U), sizeOf);
INSTANTIATE_TEST_SUITE_P(Sizes, RecordTooLong, testing::Values(4096U, 4097U, 8190U), sizeOf);
INSTANTIATE_TEST_SUITE_P(Sizes, AsyncRecord,
                         testing::Values(8U, 4093U, 4094U, 4095U, 4096U, 4097U, 8190U), sizeOf);
INSTANTIATE_TEST_SUITE_P(Sizes, AsyncRecordBelowTheLimit, testing::Values(8U, 4093U, 4094U),
                         sizeOf);
INSTANTIATE_TEST_SUITE_P(Sizes, AsyncRecordThatFillsTheRead,
                         testing::Values(4095U, 4096U, 4097U, 8190U), sizeOf);

// --- the blocking client ---

TEST_P(Record, IsSentWhole) {
  EXPECT_EQ(client_.sendMsg(parsed(text_), false), 0);
  EXPECT_EQ(rawReceive(peer_.get()), text_);
  EXPECT_EQ(rawReceiveNow(peer_.get()), "<nothing>");
}

TEST_P(RecordThatFits, IsReceivedWhole) {
  rawSend(peer_.get(), text_);
  rawSend(peer_.get(), "[]");
  EXPECT_EQ(compact(client_.waitForMsg()), text_);
  EXPECT_EQ(compact(client_.waitForMsg()), "[]");
}

TEST_P(RecordTooLong, IsNoReply) {
  rawSend(peer_.get(), text_);
  EXPECT_EQ(client_.waitAck(), -1);
  EXPECT_EQ(log_.lines(),
            Lines{"0 Api/Json/Client waitAck: Client::waitAck(): message isn't valid JSON"});
}

TEST_P(RecordTooLong, IsCutBehindItsFirst4095Bytes) {
  rawSend(peer_.get(), recordCutToJson(GetParam()));
  EXPECT_EQ(compact(client_.waitForMsg()), messageOfSize(kLongestRead));
}

TEST_P(RecordTooLong, LeavesNothingOfItselfForTheNextRead) {
  rawSend(peer_.get(), text_);
  rawSend(peer_.get(), "[]");
  EXPECT_TRUE(client_.waitForMsg().HasParseError());
  EXPECT_EQ(compact(client_.waitForMsg()), "[]");
}

TEST_P(Record, IsReadInOneCall) {
  rawSend(peer_.get(), text_);
  const Faults::Trace trace;
  client_.waitForMsg();
  ASSERT_EQ(trace.count(Call::kRead), 1);
  EXPECT_EQ(trace.of(Call::kRead).at(0).size, 4095U);
}

// --- the asynchronous client ---

TEST_P(AsyncRecord, IsSentWhole) {
  const Faults::Trace trace;
  client_.asyncSendMsg(parsed(text_));
  EXPECT_EQ(rawReceive(peer_.get()), text_);
  EXPECT_EQ(rawReceiveNow(peer_.get()), "<nothing>");
  ASSERT_EQ(trace.count(Call::kWrite), 1);
  EXPECT_EQ(trace.of(Call::kWrite).at(0).size, GetParam());
}

TEST_P(AsyncRecordBelowTheLimit, IsReceivedWholeInOneCallWhateverFollows) {
  rawSend(peer_.get(), text_);
  rawSend(peer_.get(), text_);
  rawSend(peer_.get(), "[]");
  const Faults::Trace trace;
  deliver();
  EXPECT_EQ(messages_, (Lines{text_, text_, "[]"}));
  ASSERT_EQ(trace.count(Call::kRead), 3);
  EXPECT_EQ(trace.of(Call::kRead).at(0).size, 4095U);
}

TEST_P(AsyncRecordThatFillsTheRead, IsJoinedWithARecordThatWaitsBehindIt) {
  Kelvo::Platform::setDebugLevels("Tovik", 0x9);
  rawSend(peer_.get(), text_);
  rawSend(peer_.get(), R"({"next":1})");
  rawSend(peer_.get(), "[]");
  deliver();
  ASSERT_EQ(log_.lines().size(), 3U);
  EXPECT_EQ(log_.lines().at(0),
            "3 Api/Json/Client readFdEvent: AsyncClient::readFdEvent(): msg = '" +
                text_.substr(0, kLongestRead) + R"({"next":1}')");
  EXPECT_EQ(log_.lines().at(1), kMalformed);
  EXPECT_EQ(messages_, Lines{"[]"});
}

TEST_P(AsyncRecordThatFillsTheRead, IsStillDeliveredIfTheServerClosesBehindIt) {
  rawSend(peer_.get(), recordCutToJson(GetParam()));
  peer_.reset();
  EXPECT_TRUE(Kelvo::Platform::EventLoop::current().dispatch());
  EXPECT_EQ(messages_, Lines{messageOfSize(kLongestRead)});
}

TEST_P(AsyncRecordThatFillsTheRead, IsDroppedIfTheReadBehindItFails) {
  rawSend(peer_.get(), recordCutToJson(GetParam()));
  const Faults::Fail fail(Call::kRead, ECONNRESET, 1, 1);
  turnUntilIdle();
  EXPECT_EQ(messages_, Lines());
  EXPECT_FALSE(client_.isAttached());
}

TEST_P(AsyncRecordThatFillsTheRead, IsCutBehindItsFirst4095BytesAndReadOnUntilNothingIsLeft) {
  rawSend(peer_.get(), recordCutToJson(GetParam()));
  const Faults::Trace trace;
  deliver();
  EXPECT_EQ(messages_, Lines{messageOfSize(kLongestRead)});
  ASSERT_EQ(trace.count(Call::kRead), 2);
  EXPECT_EQ(trace.of(Call::kRead).at(0).result, 4095);
  EXPECT_EQ(trace.of(Call::kRead).at(1).size, 4095U);
}
