// A handler's own part in the contract. What it says about its callbacks is noted in the frames of
// those that run; a dead handler is asked nothing.

#include "Kelvo/Platform/FdEventHandler.h"

#include <utility>

#include "Kelvo/Platform/EventLoop.h"
#include "Kelvo/Platform/detail/CallbackFrame.h"
#include "Kelvo/Platform/detail/EpollControl.h"

namespace Kelvo::Platform {

FdEventHandler::~FdEventHandler() {
  CallbackFrame<FdEventHandler>::forget(this);
}

// NOLINTBEGIN(readability-make-member-function-const): they change what becomes of the handler
void FdEventHandler::keepWhileRunning(std::shared_ptr<const void> owner) noexcept {
  CallbackFrame<FdEventHandler>::keep(this, std::move(owner));
}

void FdEventHandler::deferReadEvent() noexcept {
  CallbackFrame<FdEventHandler>::defer(this, Event::kRead);
}

void FdEventHandler::deferWriteEvent() noexcept {
  CallbackFrame<FdEventHandler>::defer(this, Event::kWrite);
}
// NOLINTEND(readability-make-member-function-const)

void FdEventHandler::writeFdEvent(int /*fd*/) {}

bool FdEventHandler::handleFdException(int /*fd*/) {
  return false;
}

Ptr<FdControl> getFdControl(FdEventHandler* handler) {
  return Ptr<FdControl>(new EpollControl(EventLoop::current().core_, *handler));
}

}  // namespace Kelvo::Platform
