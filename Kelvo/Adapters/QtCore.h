#pragma once

#include <QCoreApplication>
#include <QObject>
#include <QSocketNotifier>
#include <cstdlib>
#include <memory>

#include "Guest.h"

namespace Kelvo::Adapters {

/// This thread's loop in the event loop of a Qt 5 or 6 application. Guest.h tells what adapters
/// promise. To be made after the `QCoreApplication`, and destroyed before it.
class QtCore {
 public:
  QtCore() : guest_(std::make_shared<HostedGuest>()) {
    notifier_ = new QSocketNotifier(guest_->fd(), QSocketNotifier::Read);
    QObject::connect(notifier_, &QSocketNotifier::activated, notifier_,
                     [guest = guest_] { turn(*std::shared_ptr(guest)); });
  }
  QtCore(const QtCore&) = delete;
  QtCore& operator=(const QtCore&) = delete;
  ~QtCore() {
    notifier_->setEnabled(false);
    if (guest_->turns == 0) {
      delete notifier_;
    } else {
      notifier_->deleteLater();  // it is what has called us
    }
  }

  /// Runs the application until it is quit, and returns its exit code; or throws what a callback
  /// throws, and may be called again after that.
  int run() {
    const auto guest = guest_;  // a callback may destroy this adapter
    const int code = QCoreApplication::exec();
    guest->rethrow();
    return code;
  }

  /// For applications that run the host themselves: to be called when `exec` returns, which it does
  /// with `EXIT_FAILURE` because of the exception.
  void rethrow() { guest_->rethrow(); }

 private:
  struct HostedGuest : Guest {
    int turns = 0;  // in progress, one within the other
  };

  static void turn(HostedGuest& guest) {
    ++guest.turns;
    const bool done = guest.dispatch();
    --guest.turns;
    if (!done) {
      QCoreApplication::exit(EXIT_FAILURE);
    }
  }

  const std::shared_ptr<HostedGuest> guest_;
  QSocketNotifier* notifier_ = nullptr;
};

}  // namespace Kelvo::Adapters
