#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "../Json/Export.h"
#include "../Json/Types.h"
#include "Object.h"

/// @file
/// A service: commands that can fail with a reason and give back values, and topics to follow.
///
///     Tovik::Service lamp("lamp", Tovik::Admission::sameUser());
///     lamp.topic("state", {"Whether it is on.", Tovik::Topic::kKeepLast});
///     lamp.command("switch", "Switches the lamp.",
///                  {Tovik::required<bool>("on", "True switches it on.")},
///                  [&](Tovik::Request request) {
///                    lamp.publish("state", Tovik::object("on", request.get<bool>("on")));
///                    request.reply();
///                  });
///
/// What goes over the wire is described in docs/wire.md. Plain clients can call a service, too.

namespace Tovik {

/// One client of a service, from its admission to the end of its connection. The service owns it
/// and tells of both ends; it stays where it is in between. Used on the service's thread only.
class TOVIK_API Session {
 public:
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  virtual ~Session();

  /// Counts the sessions of one service, from 1: no two have the same number.
  std::uint64_t number() const noexcept { return number_; }

  /// Who connected, as the kernel noted it then. The process may be gone and its id reused.
  /// @{
  int pid() const noexcept { return pid_; }
  unsigned uid() const noexcept { return uid_; }
  unsigned gid() const noexcept { return gid_; }
  /// @}

  /// The application's own data about this client: one object, made on the first use and destroyed
  /// with the session.
  /// @throws std::bad_any_cast if it was made as another type.
  template <class T>
  T& data() {
    if (!data_.has_value()) {
      data_.emplace<T>();
    }
    return std::any_cast<T&>(data_);
  }

  /// What waits because the client does not read.
  /// @{
  virtual std::size_t queuedRecords() const noexcept = 0;
  virtual std::size_t queuedBytes() const noexcept = 0;
  /// @}

  /// Ends the connection. What waits is dropped; the service's `onLeave` follows in a later turn.
  virtual void close() = 0;

  /// @cond INTERNAL
 protected:
  Session(std::uint64_t number, int pid, unsigned uid, unsigned gid);
  /// @endcond

 private:
  const std::uint64_t number_;
  const int pid_;
  const unsigned uid_;
  const unsigned gid_;
  std::any data_;
};

/// Thrown inside a command's handler, it answers the request with this status and text: the short
/// way to fail.
class TOVIK_API Refusal : public std::runtime_error {
 public:
  /// An errno number, or the application's own from 1000 on, and a text for people.
  Refusal(unsigned status, const std::string& text) : std::runtime_error(text), status_(status) {}
  ~Refusal() override;
  /// As the constructor was told.
  unsigned status() const noexcept { return status_; }

 private:
  unsigned status_;
};

/// One call of a command. A handle: copies stand for the same call. A handler may answer at once,
/// or keep a copy and answer later, from a timer or from what a worker thread posts to the loop.
/// Other threads may hold and drop copies; everything else is for the service's thread. A call
/// whose last copy goes without an answer is answered with 5. All this is safe when the client, or
/// the service, has gone.
class TOVIK_API Request {
 public:
  /// @cond INTERNAL
  struct TOVIK_INTERNAL Call;
  explicit Request(std::shared_ptr<Call> call);
  /// @endcond

  /// The command's name.
  std::string command() const;

  /// The whole message as it came. Its root is an object.
  const Message& message() const;

  /// An argument. Those that the command was declared with have been looked at before its handler
  /// runs, so reading them as the declared type succeeds.
  /// @throws Refusal with status 22 if it is missing or cannot be read as a `T`.
  template <class T>
  T get(std::string_view name) const {
    auto value = Tovik::get<T>(message(), name);
    if (!value.has_value()) {
      refuse(name, Json<T>::kName);
    }
    return *std::move(value);
  }

  /// An argument that may be missing.
  /// @throws Refusal with status 22 if it is there and cannot be read as a `T`.
  template <class T>
  T get(std::string_view name, T otherwise) const {
    return find(message(), name) == nullptr ? otherwise : get<T>(name);
  }

  /// Answers with status 0, and with a result: any value that `object` takes; null is none. False
  /// if the call has been answered before, its client has gone, or the result does not fit into a
  /// record or into JSON; in the last two cases the client is told so, with 90 or 22.
  /// @{
  bool reply() { return answer(0, nullptr, {}, false); }
  template <class T>
  bool reply(const T& result) {
    return answerWith(result, false);
  }
  /// @}

  /// Sends a part of the result; `reply` or `fail` follows later. Only calls with an id can be
  /// answered in parts: others are answered with 90.
  template <class T>
  bool more(const T& result) {
    return answerWith(result, true);
  }

  /// Answers with a status other than 0 (an errno number, or the application's own from 1000 on)
  /// and a text for people, of which 500 bytes are sent at most.
  bool fail(unsigned status, std::string_view text);

  /// False once it is answered or its client has gone.
  bool isOpen() const noexcept;

  /// Whose call it is; null once the client has gone.
  std::shared_ptr<Session> session() const;

 private:
  template <class T>
  bool answerWith(const T& result, bool more) {
    if constexpr (std::is_base_of_v<rapidjson::Value, T>) {
      return answer(0, &result, {}, more);
    } else {
      Message holder;
      Internal::set(holder, result, holder.GetAllocator());
      return answer(0, &holder, {}, more);
    }
  }
  bool answer(unsigned status, const rapidjson::Value* result, std::string_view error, bool more);
  [[noreturn]] static void refuse(std::string_view name, const char* type);

  std::shared_ptr<Call> call_;
};

/// An argument of a command, made by `required` or `optional`.
struct Argument {
  std::string name;         ///< Its member in the request.
  std::string description;  ///< One sentence.
  const char* type;         ///< Its JSON type, for people.
  bool isRequired;          ///< Whether a request without it is refused.
  /// Whether a value can be read as the declared type.
  bool (*accepts)(const rapidjson::Value&);
};

/// An argument that has to be there and readable as a `T`: bool, a number, std::string, a vector,
/// or `Message` for any JSON.
template <class T>
Argument required(std::string name, std::string description) {
  return {std::move(name), std::move(description), Json<T>::kName, true, &Json<T>::is};
}

/// An argument that may be missing.
template <class T>
Argument optional(std::string name, std::string description) {
  return {std::move(name), std::move(description), Json<T>::kName, false, &Json<T>::is};
}

/// What a topic is, and how it treats those who do not read.
struct Topic {
  /// Whether a new follower gets the last event at once.
  enum Memory { kKeepNothing, kKeepLast };
  /// What becomes of events that wait for a slow reader: all of them wait, until the bound of its
  /// queue ends the session, or a newer one replaces the one that waits.
  enum Backlog { kQueueAll, kQueueLatest };

  std::string description;       ///< One sentence.
  Memory memory = kKeepNothing;  ///< What a new follower gets.
  Backlog backlog = kQueueAll;   ///< What a slow one gets.
};

/// What a service says about itself, and its bounds.
struct ServiceOptions {
  /// One sentence.
  std::string description;
  /// Calls of one session that are not answered yet; those beyond are answered with 16.
  std::size_t callsPerSession = 16;
  /// What may wait for a session that does not read, beyond what the kernel's buffer takes. More
  /// ends the session.
  /// @{
  std::size_t queuedRecords = 1000;
  std::size_t queuedBytes = std::size_t{256} * 1024;
  /// @}
};

/// A server of commands and topics. It listens from its construction to its destruction, on the
/// event loop of the thread that makes it, and is used on that thread only.
///
/// A client cannot end the process: every record is looked at before it is used, and what is wrong
/// is answered with a status and a text, or logged on the channel "TovikService". All memory that
/// a client can make it use is bounded.
///
/// All callbacks run in the loop. They may do anything, destroying the service included. A
/// `Refusal` thrown by a handler answers its request. Any other exception leaves through the loop,
/// as it does everywhere in these libraries, and its request is answered with 5 unless somebody
/// keeps it.
class TOVIK_API Service {
 public:
  /// Carries out a command.
  using Handler = std::function<void(Request)>;
  /// Judges a client by its process id, user id and group id; the rules of Api/Admission.h, for
  /// example.
  using Admission = std::function<bool(int pid, unsigned uid, unsigned gid)>;
  /// Hears of a session's beginning or end.
  using SessionHandler = std::function<void(Session&)>;

  /// Listens under `name`.
  /// @throws SocketException if it cannot, for example because the name is taken; Kelvo::Exception
  /// if the name has more than 106 bytes or holds a NUL, or the description does not fit a record.
  Service(const std::string& name, Admission admission, ServiceOptions options = {});
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service();

  /// Adds a command. Every argument that is declared here is checked before the handler runs;
  /// others are not looked at.
  /// @throws Kelvo::Exception if the name is taken, is one of the convention's own (subscribe,
  /// unsubscribe, describe), or its description does not fit into a record.
  void command(const std::string& name, const std::string& description,
               const std::vector<Argument>& arguments, Handler handler);

  /// Adds a topic.
  /// @throws Kelvo::Exception if there is one of that name, or the description does not fit into a
  /// record.
  void topic(const std::string& name, Topic topic);

  /// Sends an object to all who follow the topic. A refusal is logged, too.
  /// @return 0; 22, and nothing is sent, if there is no such topic, the message is no object, holds
  /// what JSON cannot express, or has a member "type", "topic" or "snapshot"; 90 if it is too long.
  int publish(std::string_view topic, const Message& message);

  /// Answers requests that no command is for: with another command, or with none. For a service
  /// that stands for another one. Without a handler they are answered with 38 and 22.
  void otherwise(Handler handler);

  /// Sends an object as it is, as a plain server does, to those who have switched on all
  /// notifications. A refusal is logged, too.
  /// @return 0; 22, and nothing is sent, if the message is no object, holds what JSON cannot
  /// express, or could be taken for a reply or an event; 90 if it is too long.
  int notify(const Message& message);

  /// Called when a client was admitted, and when its connection has ended. The latter is not called
  /// for those who are there when the service is destroyed.
  /// @{
  void onJoin(SessionHandler handler);
  void onLeave(SessionHandler handler);
  /// @}

  /// How many clients there are.
  std::size_t sessions() const noexcept;

  struct TOVIK_INTERNAL Core;  ///< Private.

 private:
  std::unique_ptr<Core> core_;
};

}  // namespace Tovik
