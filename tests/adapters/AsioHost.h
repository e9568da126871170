#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <utility>

// One source cannot hold both Asios: they define the same global names. Where both are here, the
// standalone one is taken.
#ifdef TOVIK_HOST_ASIO
#include <asio/post.hpp>

#include "Kelvo/Adapters/Asio.h"
#else
#include <boost/asio/post.hpp>

#include "Kelvo/Adapters/BoostAsio.h"
#endif

/// An `io_context`.
template <class IoContext, class Adapter>
class BasicAsioHost {
 public:
  void attach() { adapter_.emplace(context_); }
  void detach() { adapter_.reset(); }
  void stop() { context_.stop(); }
  void soon(std::function<void()> function) { post(context_, std::move(function)); }
  void run() {
    context_.restart();
    context_.run();
  }
  void runByItself() { run(); }
  void turn(std::chrono::milliseconds atMost) {
    context_.restart();
    context_.run_one_for(atMost);
  }

 private:
  IoContext context_{1};
  std::optional<Adapter> adapter_;
};

#ifdef TOVIK_HOST_ASIO
using AsioHost = BasicAsioHost<asio::io_context, Kelvo::Adapters::Asio>;
#else
using AsioHost = BasicAsioHost<boost::asio::io_context, Kelvo::Adapters::BoostAsio>;
#endif
