#pragma once

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <functional>
#include <optional>
#include <utility>

#include "Kelvo/Adapters/QtCore.h"

/// The event loop of a Qt application. Qt allows one application object at a time.
class QtHost {
 public:
  void attach() { adapter_.emplace(); }
  void detach() { adapter_.reset(); }
  void stop() { QCoreApplication::exit(5); }
  void soon(std::function<void()> function) { QTimer::singleShot(0, &context_, function); }
  void run() { exitCode = adapter_->run(); }
  void runByItself() {
    exitCode = QCoreApplication::exec();
    adapter_->rethrow();
  }

  void turn(std::chrono::milliseconds atMost) {
    QTimer limit;
    limit.setTimerType(Qt::PreciseTimer);
    limit.setSingleShot(true);
    limit.start(static_cast<int>(atMost.count()));
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    if (adapter_) {
      adapter_->rethrow();
    }
  }

  int exitCode = 0;

 private:
  int argumentCount_ = 1;
  char name_[5] = "test";
  char* arguments_[2] = {name_, nullptr};
  QCoreApplication application_{argumentCount_, arguments_};
  QObject context_;
  std::optional<Kelvo::Adapters::QtCore> adapter_;
};
