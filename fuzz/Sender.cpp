// Random operations on a sender: sending, flushing, reading, turns, new sockets, and a peer that
// reads, sends and goes as it likes. How much a socket takes is the kernel's affair; so the model
// learns from the queue how much was written, and checks that nothing more would have gone in.

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "Api/Json/Async.h"
#include "fuzz/Support.h"

using namespace fuzz;

namespace {

class Sender : public Tovik::AsyncSender {
 public:
  void readFdEvent(int /*fd*/) override {
    ++reads;
    Kelvo::String read;
    result = asyncRead(read);
    text = std::string(std::string_view(read));
    if (result < 0 || read.empty()) {
      terminateConnection();
    }
  }
  void writeFdEvent(int fd) override {
    ++writes;
    AsyncSender::writeFdEvent(fd);
  }
  void terminateConnection() override {
    AsyncSender::terminateConnection();
    ++terminations;
  }
  std::vector<std::string> queue() const {
    std::vector<std::string> texts;
    for (const auto& queued : sendQueue_) {
      texts.emplace_back(queued.data());
    }
    return texts;
  }

  int reads = 0, writes = 0, terminations = 0, result = 0;
  std::string text;
};

std::string payload(unsigned sizeClass) {
  constexpr std::size_t kSizes[] = {1, 2, 60, 500, 1000, 4080, 9000, 20000};
  return std::string(kSizes[sizeClass % 8], 'x');
}

class Run {
 public:
  void run(std::string_view input) {
    for (Decisions decisions(input); decisions.any();) {
      step(decisions);
    }
    peerReads(1000);
    turn();
    require(sender_.terminations == terminations_, "teardowns past terminateConnection");
  }

 private:
  void step(Decisions& decisions) {
    switch (decisions.below(12)) {
      case 0:
        return setFd();
      case 1:
      case 2:
        return send(payload(decisions.byte()));
      case 3:
        sender_.flushQueue();
        return flushed();
      case 4:
      case 5:
        return turn();
      case 6:
        return peerReads(1 + decisions.below(60));
      case 7:
        return peerSends(decisions.byte());
      case 8:
        return peerCloses();
      case 9:
        return decisions.below(8) == 0 ? clear() : terminate();
      case 10:
        return readDirectly();
      case 11:
        return shrinkBuffer(decisions.byte());
    }
  }

  void setFd() {
    ++terminations_;
    forgetConnection();
    auto pair = nonBlockingPair();
    fd_ = pair.first.release();
    sender_.setFd(fd_);
    peer_ = std::move(pair.second);
    attached_ = peerOpen_ = true;
    peerReset_ = peerResetPerhaps_ = false;
    inFlight_.clear();
    shrinkBuffer(40);
    requireState();
  }

  void send(const std::string& text) {
    Tovik::Message message;
    message.SetString(text.c_str(), message.GetAllocator());
    sender_.asyncSendMsg(message);
    queue_.push_back('"' + text + '"');
    flushed();
  }

  /// What a flush has done, given what was to be sent.
  void flushed() {
    if (attached_ && !queue_.empty() && !peerOpen_) {
      flushedToNobody();
    } else if (attached_) {
      flushedToPeer();
    }
    requireState();
  }

  /// Two errors come before EPIPE: that the peer was reset, and that the text is too large.
  void flushedToNobody() {
    if (std::exchange(reset_, false) || isTooLarge(queue_.front())) {
      interest_ = true;
    } else {
      terminated();
    }
  }

  void flushedToPeer() {
    const auto left = sender_.queue().size();
    require(left <= queue_.size(), "the queue has grown");
    while (queue_.size() > left) {
      inFlight_.push_back(queue_.front());
      queue_.pop_front();
    }
    if (!queue_.empty()) {
      const int error = sendRecord(fd_, queue_.front());
      require(error == EAGAIN || error == EMSGSIZE,
              "there was room for more: " + std::to_string(error));
    }
    setInterest(!queue_.empty());
  }

  void setInterest(bool on) {
    stuck_ = stuck_ && on;
    interest_ = on;
  }

  void turn() {
    const bool readable = attached_ && (!peerOpen_ || !toRead_.empty());
    const bool writable = interest_ && (poll() & POLLOUT) != 0;
    const int readsBefore = sender_.reads;
    const int writesBefore = sender_.writes;
    const bool called = Kelvo::Platform::EventLoop::current().dispatch();
    const int reads = sender_.reads - readsBefore;
    const int writes = sender_.writes - writesBefore;
    require(called == (reads + writes > 0), "what dispatch() returns");
    require(reads == (readable ? 1 : 0), "the read event");
    if (readable) {
      wasRead();
    }
    const bool expectWrite = writable && attached_;
    require(writes == (expectWrite ? 1 : 0) || (stuck_ && writes == 0), "the write event");
    if (writes == 1) {
      flushed();
      stuck_ = attached_ && interest_ && (isTooLarge(queue_.front()) || (poll() & POLLOUT) != 0);
    }
    requireState();
  }

  void wasRead() {
    const auto [result, text] = predictRead();
    require(sender_.result == result, "the result of a read event");
    requireEqual(sender_.text, text, "the text of a read event");
    if (result < 0 || text.empty()) {
      terminated();
    }
  }

  std::pair<int, std::string> predictRead() {
    if (std::exchange(reset_, false)) {
      return {-1, ""};
    }
    return {0, takeText(toRead_)};
  }

  void readDirectly() {
    Kelvo::String out("before");
    const int result = sender_.asyncRead(out);
    if (!attached_) {
      return require(result == -1 && out == "before", "a read without a socket");
    }
    const auto [expected, text] = predictRead();
    require(result == expected, "the result of a read");
    requireEqual(out.data(), text, "the text of a read");
  }

  void peerReads(unsigned most) {
    for (unsigned i = 0; i < most && peerOpen_; ++i) {
      std::string expected = "<nothing>";
      if (std::exchange(peerReset_, false)) {
        expected = "<error>";
      } else if (!inFlight_.empty()) {
        expected = inFlight_.front();
        inFlight_.pop_front();
      } else if (!attached_) {
        expected = "<end>";
      } else {
        i = most;
      }
      std::string actual = rawReceiveNow(peer_.get());
      if (std::exchange(peerResetPerhaps_, false) && actual == "<error>") {
        actual = rawReceiveNow(peer_.get());
      }
      requireEqual(actual, expected, "what the peer gets");
    }
  }

  void peerSends(unsigned which) {
    if (!attached_ || !peerOpen_ || toRead_.size() > 40) {
      return;
    }
    constexpr std::size_t kSizes[] = {0, 1, 4094, 4095, 4096, 9000, 30, 31};
    std::string record(kSizes[which % 8], static_cast<char>('a' + which % 16));
    if ((which & 16) != 0 && !record.empty()) {
      record[record.size() * (which / 32) / 8] = '\0';
    }
    const int error = sendRecord(peer_.get(), record);
    require(error == 0 || error == EAGAIN, "the peer cannot send");
    if (error == 0) {  // and the socket was not full
      toRead_.push_back(record);
    }
  }

  void peerCloses() {
    if (!std::exchange(peerOpen_, false)) {
      return;
    }
    peer_.reset();
    reset_ = attached_ && !inFlight_.empty();
    inFlight_.clear();
  }

  void terminate() {
    sender_.terminateConnection();
    if (attached_) {
      terminated();
    } else {
      ++terminations_;
    }
    requireState();
  }

  void clear() {
    sender_.clearQueue();
    queue_.clear();
    requireState();
  }

  void shrinkBuffer(unsigned by) {
    const int size = static_cast<int>(4608 + by * 100);
    if (attached_) {
      ::setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
  }

  void terminated() {
    ++terminations_;
    forgetConnection();
  }

  void forgetConnection() {
    if (!std::exchange(attached_, false)) {
      return;
    }
    peerReset_ = std::any_of(toRead_.begin(), toRead_.end(),
                             [](const std::string& record) { return !record.empty(); });
    peerResetPerhaps_ = !peerReset_ && !toRead_.empty();
    toRead_.clear();
    queue_.clear();
    reset_ = interest_ = stuck_ = false;
  }

  bool isTooLarge(const std::string& text) const {
    int size = 0;
    socklen_t length = sizeof size;
    ::getsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, &length);
    return text.size() > static_cast<std::size_t>(size) - 32;
  }

  int poll() const {
    pollfd query{fd_, POLLOUT, 0};
    return attached_ && ::poll(&query, 1, 0) == 1 ? query.revents : 0;
  }

  void requireState() const {
    require(sender_.isAttached() == attached_, "whether the sender is attached");
    const auto queue = sender_.queue();
    require(std::equal(queue.begin(), queue.end(), queue_.begin(), queue_.end()), "the queue");
    require(sender_.terminations == terminations_, "the number of teardowns");
  }

  Sender sender_;
  Fd peer_;
  int fd_ = -1;

  // The model.
  bool attached_ = false;
  bool peerOpen_ = false;
  bool interest_ = false;
  bool stuck_ = false;  // a record cannot be written: the next write event takes its time
  bool reset_ = false;  // the peer left without reading all; the next call to the socket says so
  bool peerReset_ = false;         // the same, the other way round
  bool peerResetPerhaps_ = false;  // kernels differ about unread records without bytes
  int terminations_ = 0;
  std::deque<std::string> queue_;
  std::deque<std::string> inFlight_;  // in the socket, towards the peer
  Batch toRead_;                      // in the socket, towards the sender
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return converse<Run>(data, size);
}
