#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Platform/detail/CallbackFrame.h"
#include "Kelvo/Platform/detail/LoopCore.h"

namespace Kelvo::Platform {

/// The loop's `FdControl`: one descriptor's registration, its write interest, and the pauses of
/// events that the handler has deferred.
class EpollControl final : public FdControl, private LoopCore::Registration {
 public:
  EpollControl(Ptr<LoopCore> core, FdEventHandler& handler);
  ~EpollControl() override;

  void setWriteInterest(bool wanted) override;
  void attach(int fd) override;
  int fd() const override { return fd_; }
  void detach() override;

 private:
  class Pause;

  bool deliverRead() override;
  bool deliverWrite() override;
  const FdEventHandler* handler() const override { return &handler_; }

  void deliver(Event event);
  void pause(Event event);
  void resume(Pause& pause);
  void endPause(Event event) noexcept;
  bool paused(Event event) const noexcept;
  std::uint32_t events() const noexcept;

  std::unique_ptr<Pause>& pauseOf(Event event) { return pauses_[static_cast<std::size_t>(event)]; }

  const Ptr<LoopCore> core_;
  FdEventHandler& handler_;
  int fd_ = -1;
  LoopCore::Token token_ = 0;  // of the descriptor's present registration
  bool writeInterest_ = false;
  std::array<std::unique_ptr<Pause>, 2> pauses_;  // of reading and of writing, made when needed
};

}  // namespace Kelvo::Platform
