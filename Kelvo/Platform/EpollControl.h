#pragma once

#include <cstdint>
#include <memory>

#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Platform/LoopCore.h"

namespace Kelvo::Platform {

/// The loop's `FdControl`: one descriptor's registration, its cached write interest, and the
/// falling rate at which a condition without progress is delivered.
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
  enum class Listening : std::uint8_t { kUnknown, kNo, kYes };

  bool deliverRead() override;
  bool deliverWrite() override;
  const FdEventHandler* handler() const override { return &handler_; }

  bool stuckAccepting();
  bool stuckWriting() const;
  void pauseUnlessProgress(std::uint32_t event, bool progress);
  void resume();

  const Ptr<LoopCore> core_;
  FdEventHandler& handler_;
  int fd_ = -1;
  LoopCore::Token token_ = 0;  // of the descriptor's present registration
  bool writeInterest_ = false;
  bool readBefore_ = false;
  Listening listening_ = Listening::kUnknown;
  std::unique_ptr<Pause> pause_;  // made when first needed
};

}  // namespace Kelvo::Platform
