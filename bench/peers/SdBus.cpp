// sd-bus without a broker: the server accepts connections and serves each as a bus of its own. A
// request is a method call with one string, a note is one that expects no reply.

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "bench/peers/Texts.h"
#include "bench/support/Raw.h"

namespace Bench {

namespace {

constexpr char kPath[] = "/bench";
constexpr char kInterface[] = "org.example.Bench";

int succeed(int result, const char* call) {
  if (result < 0) {
    throw std::runtime_error(std::string(call) + ": " + std::strerror(-result));
  }
  return result;
}

int answer(sd_bus_message* message, void* /*data*/, sd_bus_error* /*error*/) {
  const char* text = nullptr;
  const int read = sd_bus_message_read(message, "s", &text);
  if (read < 0) {
    return read;
  }
  const std::string reply = answerTo(text);
  return reply.empty() ? 1 : sd_bus_reply_method_return(message, "s", reply.c_str());
}

const sd_bus_vtable kTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Request", "s", "s", answer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int accept(sd_event_source* source, int listening, std::uint32_t /*events*/, void* /*data*/) {
  const int fd = ::accept4(listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    return -errno;
  }
  sd_id128_t id;
  sd_bus* bus = nullptr;  // kept by the event loop, and by us until the process ends
  succeed(sd_id128_randomize(&id), "sd_id128_randomize");
  succeed(sd_bus_new(&bus), "sd_bus_new");
  succeed(sd_bus_set_fd(bus, fd, fd), "sd_bus_set_fd");
  succeed(sd_bus_set_server(bus, 1, id), "sd_bus_set_server");
  succeed(sd_bus_start(bus), "sd_bus_start");
  succeed(sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kTable, nullptr),
          "sd_bus_add_object_vtable");
  return succeed(sd_bus_attach_event(bus, sd_event_source_get_event(source), 0),
                 "sd_bus_attach_event");
}

void serve(const std::string& path) {
  sd_event* loop = nullptr;
  succeed(sd_event_default(&loop), "sd_event_default");
  succeed(sd_event_add_io(loop, nullptr, listenAtPath(path), EPOLLIN, accept, nullptr),
          "sd_event_add_io");
  announceReady();
  succeed(sd_event_loop(loop), "sd_event_loop");
}

class SdBusClient : public TextClient {
 public:
  explicit SdBusClient(const std::string& path) {
    succeed(sd_bus_new(&bus_), "sd_bus_new");
    succeed(sd_bus_set_address(bus_, ("unix:path=" + path).c_str()), "sd_bus_set_address");
    succeed(sd_bus_start(bus_), "sd_bus_start");
  }
  ~SdBusClient() override { sd_bus_flush_close_unref(bus_); }

  void call() override {
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    const char* text = nullptr;
    succeed(sd_bus_call_method(bus_, nullptr, kPath, kInterface, "Request", &error, &reply, "s",
                               requestText().c_str()),
            "sd_bus_call_method");
    succeed(sd_bus_message_read(reply, "s", &text), "sd_bus_message_read");
    check(text);
    sd_bus_message_unref(reply);
  }

 private:
  void note() override {
    sd_bus_message* message = nullptr;
    succeed(sd_bus_message_new_method_call(bus_, &message, nullptr, kPath, kInterface, "Request"),
            "sd_bus_message_new_method_call");
    succeed(sd_bus_message_append(message, "s", noteText().c_str()), "sd_bus_message_append");
    succeed(sd_bus_message_set_expect_reply(message, 0), "sd_bus_message_set_expect_reply");
    int sent = sd_bus_send(bus_, message, nullptr);
    while (sent == -ENOBUFS) {  // its queue is full
      succeed(sd_bus_flush(bus_), "sd_bus_flush");
      sent = sd_bus_send(bus_, message, nullptr);
    }
    succeed(sent, "sd_bus_send");
    sd_bus_message_unref(message);
  }

  sd_bus* bus_ = nullptr;
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::runPeer<Bench::SdBusClient>(argc, argv, Bench::serve);
}
