// What the blocking client takes for a reply, record by record. The texts and the order of the
// checks are part of the protocol, the assertions included.

#include <csignal>
#include <ostream>
#include <string>
#include <vector>

#include "tests/tovik/ClientSupport.h"

using namespace std::string_literals;
using Lines = std::vector<std::string>;

namespace {

const std::string kNoJson = "message isn't valid JSON";
const std::string kNoReply = "message isn't valid ack";

struct Answer {
  const char* name;
  std::string record;
  int result;
  std::string complaint;  // none if empty
};

void PrintTo(const Answer& answer, std::ostream* out) {
  *out << answer.name;
}

template <class Case>
std::string nameOf(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

}  // namespace

class Reply : public ConnectedClient, public testing::TestWithParam<Answer> {};

TEST_P(Reply, IsJudgedByItsRecord) {
  const Answer& answer = GetParam();
  rawSend(peer_.get(), answer.record);
  EXPECT_EQ(client_.waitAck(), answer.result);
  EXPECT_EQ(log_.lines(),
            answer.complaint.empty()
                ? Lines()
                : Lines{"0 Api/Json/Client waitAck: Client::waitAck(): " + answer.complaint});
  rawSend(peer_.get(), R"({"type":"reply","status":5})");
  EXPECT_EQ(client_.waitAck(), 5) << "the client goes on with the next record";
}

/// Members that a record lacks, and that stood in the same place of the one before it, whose memory
/// it is likely to get.
TEST(ReplyAfterAnother, IsNotCompletedFromIt) {
  RawServer server;
  const Tovik::Client client(server.name());
  const Fd peer = server.accept();
  const CapturedLog log;
  for (const auto& [whole, part] :
       {std::pair{R"({"type":"reply","status":7})", R"({"type":"reply"})"},
        std::pair{R"({"status":7,"type":"reply"})", R"({"status":7})"}}) {
    rawSend(peer.get(), whole);
    rawSend(peer.get(), part);
    EXPECT_EQ(client.waitAck(), 7);
    EXPECT_EQ(client.waitAck(), -1) << part;
  }
  EXPECT_EQ(log.lines(), Lines(2, "0 Api/Json/Client waitAck: Client::waitAck(): " + kNoReply));
}

INSTANTIATE_TEST_SUITE_P(
    Accepted, Reply,
    testing::Values(
        Answer{"StatusZero", R"({"type":"reply","status":0})", 0, ""},
        Answer{"StatusOne", R"({"type":"reply","status":1})", 1, ""},
        Answer{"MembersTheOtherWayRound", R"({"status":7,"type":"reply"})", 7, ""},
        Answer{"LargestStatus", R"({"type":"reply","status":2147483647})", 2147483647, ""},
        Answer{"MoreMembers", R"({"a":{},"type":"reply","b":[1],"status":3,"c":null})", 3, ""},
        Answer{"FirstOfTwoStatuses", R"({"type":"reply","status":1,"status":2})", 1, ""},
        Answer{"FirstOfTwoTypes", R"({"type":"reply","type":"x","status":1})", 1, ""},
        Answer{"Whitespace", " { \"type\" : \"reply\" ,\n\"status\" : 4 }\r\n\t ", 4, ""},
        Answer{"TypeEscaped", R"({"type":"\u0072eply","status":4})", 4, ""},
        Answer{"TypeUpToItsNul", R"({"type":"reply\u0000x","status":6})", 6, ""},
        Answer{"RecordUpToItsNul", "{\"type\":\"reply\",\"status\":8}\0{"s, 8, ""}),
    nameOf<Answer>);

INSTANTIATE_TEST_SUITE_P(
    NoJson, Reply,
    testing::Values(Answer{"Truncated", R"({"type":"reply","sta)", -1, kNoJson},
                    Answer{"Blank", " ", -1, kNoJson},
                    Answer{"StartsWithANul", "\0{}"s, -1, kNoJson},
                    Answer{"TwoValues", "{} {}", -1, kNoJson},
                    Answer{"TrailingBytes", R"({"type":"reply","status":0}x)", -1, kNoJson},
                    Answer{"TrailingComma", R"({"type":"reply","status":0,})", -1, kNoJson},
                    Answer{"Comment", R"({"type":"reply","status":0}//)", -1, kNoJson},
                    Answer{"NotANumber", R"({"type":"reply","status":NaN})", -1, kNoJson},
                    Answer{"ByteOrderMark", "\xef\xbb\xbf{}", -1, kNoJson},
                    Answer{"BrokenArray", "[1,2", -1, kNoJson}),
    nameOf<Answer>);

INSTANTIATE_TEST_SUITE_P(
    NoReply, Reply,
    testing::Values(
        Answer{"Empty", "{}", -1, kNoReply},
        Answer{"WithoutStatus", R"({"type":"reply"})", -1, kNoReply},
        Answer{"WithoutType", R"({"status":0})", -1, kNoReply},
        Answer{"Notification", R"({"event":"news"})", -1, kNoReply},
        Answer{"CapitalInType", R"({"type":"Reply","status":0})", -1, kNoReply},
        Answer{"LongerType", R"({"type":"reply ","status":0})", -1, kNoReply},
        Answer{"ShorterType", R"({"type":"repl","status":0})", -1, kNoReply},
        Answer{"EmptyType", R"({"type":"","status":0})", -1, kNoReply},
        Answer{"OtherType", R"({"type":"notice","status":0})", -1, kNoReply},
        Answer{"CapitalInName", R"({"Type":"reply","status":0})", -1, kNoReply},
        Answer{"NegativeStatus", R"({"type":"reply","status":-1})", -1, kNoReply},
        Answer{"FractionalStatus", R"({"type":"reply","status":1.0})", -1, kNoReply},
        Answer{"ExponentStatus", R"({"type":"reply","status":1e0})", -1, kNoReply},
        Answer{"TextStatus", R"({"type":"reply","status":"0"})", -1, kNoReply},
        Answer{"BooleanStatus", R"({"type":"reply","status":true})", -1, kNoReply},
        Answer{"NullStatus", R"({"type":"reply","status":null})", -1, kNoReply},
        Answer{"ObjectStatus", R"({"type":"reply","status":{}})", -1, kNoReply},
        Answer{"StatusBeyond32Bits", R"({"type":"reply","status":4294967296})", -1, kNoReply},
        // The status is looked at before the type is relied on.
        Answer{"NumberTypeWithoutStatus", R"({"type":5})", -1, kNoReply},
        Answer{"NumberTypeWithTextStatus", R"({"type":5,"status":"0"})", -1, kNoReply},
        Answer{"NullTypeWithNegativeStatus", R"({"type":null,"status":-1})", -1, kNoReply},
        // The type is judged before the status's value.
        Answer{"OtherTypeWithInvalidStatus", R"({"type":"x","status":4294967295})", -1, kNoReply}),
    nameOf<Answer>);

INSTANTIATE_TEST_SUITE_P(
    InvalidStatus, Reply,
    testing::Values(Answer{"Smallest", R"({"type":"reply","status":2147483648})", -1,
                           "invalid status -2147483648"},
                    Answer{"OneMore", R"({"status":2147483649,"type":"reply"})", -1,
                           "invalid status -2147483647"},
                    Answer{"Largest", R"({"type":"reply","status":4294967295})", -1,
                           "invalid status -1"}),
    nameOf<Answer>);

// --- answers that end the process ---

namespace {

struct Shape {
  const char* name;
  std::string record;
  const char* assertion;
};

void PrintTo(const Shape& shape, std::ostream* out) {
  *out << shape.name;
}

constexpr auto kIsObject = "Assertion.*IsObject\\(\\)";
constexpr auto kIsString = "Assertion.*IsString\\(\\)";

}  // namespace

class ReplyDeathTest : public ConnectedClient, public testing::TestWithParam<Shape> {};

TEST_P(ReplyDeathTest, EndsTheProcessByAssertion) {
  rawSend(peer_.get(), GetParam().record);
  EXPECT_EQ(compact(client_.waitForMsg()), GetParam().record) << "if no reply is awaited";
  rawSend(peer_.get(), GetParam().record);
  EXPECT_EXIT(client_.waitAck(), testing::KilledBySignal(SIGABRT), GetParam().assertion);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, ReplyDeathTest,
    testing::Values(Shape{"Array", "[1,2]", kIsObject}, Shape{"EmptyArray", "[]", kIsObject},
                    Shape{"Text", R"("reply")", kIsObject}, Shape{"Number", "0", kIsObject},
                    Shape{"Null", "null", kIsObject}, Shape{"True", "true", kIsObject},
                    Shape{"NumberType", R"({"type":5,"status":0})", kIsString},
                    Shape{"NullType", R"({"status":0,"type":null})", kIsString},
                    Shape{"ObjectType", R"({"type":{},"status":0})", kIsString},
                    Shape{"TrueTypeWithInvalidStatus", R"({"type":true,"status":4294967295})",
                          kIsString}),
    nameOf<Shape>);
