#include "Kelvo/Platform/TimeoutHandler.h"

#include "Kelvo/Platform/CallbackFrame.h"
#include "Kelvo/Platform/EventLoop.h"
#include "Kelvo/Platform/LoopTimer.h"

namespace Kelvo::Platform {

TimeoutHandler::~TimeoutHandler() {
  CallbackFrame<TimeoutHandler>::forget(this);
}

bool TimeoutHandler::handleTimeoutException() {
  return false;
}

Ptr<Timer> getTimer(TimeoutHandler* handler, const FdEventHandler* unlessAttached) {
  return Ptr<Timer>(new LoopTimer(EventLoop::current().core_, *handler, unlessAttached));
}

}  // namespace Kelvo::Platform
