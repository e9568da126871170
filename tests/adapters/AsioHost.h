#pragma once

#include <asio/post.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <utility>

#include "Kelvo/Adapters/Asio.h"

/// An `io_context` of standalone Asio.
class AsioHost {
 public:
  void attach() { adapter_.emplace(context_); }
  void detach() { adapter_.reset(); }
  void stop() { context_.stop(); }
  void soon(std::function<void()> function) { asio::post(context_, std::move(function)); }
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
  asio::io_context context_{1};
  std::optional<Kelvo::Adapters::Asio> adapter_;
};
