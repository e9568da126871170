#pragma once

#include "Kelvo/Platform/LoopCore.h"
#include "Kelvo/Platform/TimeoutHandler.h"

namespace Kelvo::Platform {

/// The loop's `Timer`.
class LoopTimer final : public Timer,
                        private TimerQueue::Entry,
                        private LoopCore::AttachmentWatcher {
 public:
  LoopTimer(Ptr<LoopCore> core, TimeoutHandler& handler, const FdEventHandler* unlessAttached);
  ~LoopTimer() override;

  void arm(double seconds) override;
  void disarm() override;

 private:
  bool expire() override;
  void attachmentsChanged(int by) override;

  const Ptr<LoopCore> core_;
  TimeoutHandler& handler_;
  const FdEventHandler* const unlessAttached_;
  int attachments_ = 0;  // of that handler
  LoopCore::Time lastExpiry_ = LoopCore::Time::min();
  bool withheld_ = false;  // due, and waiting for that handler to detach
};

}  // namespace Kelvo::Platform
