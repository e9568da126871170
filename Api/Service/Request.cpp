// One call's answers: each becomes the text of a record, or a refusal that says why it cannot.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "Api/Service/detail/Convention.h"
#include "Api/Service/detail/ServiceCore.h"

namespace Tovik {

namespace {

struct Answer {
  unsigned status;
  std::optional<std::uint64_t> id;
  const rapidjson::Value* result;
  std::string_view error;
  bool more;
};

/// Nothing if JSON cannot express the result.
std::optional<std::string> textOf(const Answer& answer) {
  std::string text = R"({"type":"reply","status":)" + std::to_string(answer.status);
  if (answer.id.has_value()) {
    text += R"(,"id":)" + std::to_string(*answer.id);
  }
  if (answer.result != nullptr && !answer.result->IsNull()) {
    const auto result = Convention::textOf(*answer.result);
    if (!result.has_value()) {
      return std::nullopt;
    }
    text += R"(,"result":)" + *result;
  }
  if (!answer.error.empty()) {
    text += R"(,"error":)" + Convention::quoted(answer.error);
  }
  return text + (answer.more ? R"(,"more":true})" : "}");
}

/// As much of a text, in whole characters, as a record holds whatever they are.
std::string_view shortened(std::string_view text) {
  constexpr std::size_t kLongest = 500;  // bytes, each of which may take six
  auto size = std::min(text.size(), kLongest);
  while (0 < size && size < text.size() && (text[size] & 0xC0) == 0x80) {
    --size;
  }
  return text.substr(0, size);
}

}  // namespace

Refusal::~Refusal() = default;

Request::Request(std::shared_ptr<Call> call) : call_(std::move(call)) {}

std::string Request::command() const {
  return std::string(Convention::textMember(message(), "command").value_or(""));
}

const Message& Request::message() const {
  return call_->message;
}

bool Request::fail(unsigned status, std::string_view text) {
  return answer(status, nullptr, text, false);
}

bool Request::isOpen() const noexcept {
  const auto session = call_->session.lock();
  return !call_->isAnswered && session != nullptr && session->isOpen();
}

std::shared_ptr<Session> Request::session() const {
  return call_->session.lock();
}

bool Request::answer(unsigned status, const rapidjson::Value* result, std::string_view error,
                     bool more) {
  return call_->answer(status, result, error, more);
}

void Request::refuse(std::string_view name, const char* type) {
  throw Refusal(EINVAL, "argument '" + std::string(name) + "' is missing or no " + type);
}

/// A last copy that goes on another thread leaves the answer to the loop's.
Request::Call::~Call() {
  if (isAnswered) {
    return;
  }
  if (std::this_thread::get_id() == home->thread) {
    answer(EIO, nullptr, "the service has not answered", false);
    return;
  }
  home->loop.post([home = home, session = session, id = id, turn = turn, inFlight = isInFlight] {
    Call left(home);
    left.session = session;
    left.id = id;
    left.turn = turn;
    left.isInFlight = inFlight;
  });
}

/// What cannot be sent ends the call, with a reason that can.
bool Request::Call::answer(unsigned status, const rapidjson::Value* result, std::string_view error,
                           bool more) {
  if (isAnswered) {
    TOVIK_SERVICE_LOG(0, "a call that has been answered is answered again; this is not sent");
    return false;
  }
  const auto to = session.lock();
  if (to == nullptr || !to->isOpen()) {
    isAnswered = !more;
    return false;
  }
  const auto refused = [this](int why, const std::string& explained) {
    answer(static_cast<unsigned>(why), nullptr, explained, false);
    return false;
  };
  if (more && !id.has_value()) {
    return refused(EMSGSIZE, "the answer takes several records: give the call an id");
  }
  auto text = textOf({status, id, result, shortened(error), more});
  if (!text.has_value()) {
    return refused(EINVAL, "the result holds a number that JSON cannot express");
  }
  if (text->size() > Convention::kLongestRecord) {
    return refused(EMSGSIZE,
                   "the answer of " + std::to_string(text->size()) + " bytes is too long");
  }
  isAnswered = !more;
  if (isAnswered && isInFlight) {
    to->finish(*this);
  }
  to->sendReply(*this, *std::move(text));
  return true;
}

}  // namespace Tovik
