#include "Kelvo/Adapters/QtCore.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEvent>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include "tests/adapters/LoopSuite.h"

namespace {

/// The event loop of a Qt application. Qt allows one application object at a time.
class QtHost : public HostOf<Kelvo::Adapters::QtCore> {
 public:
  ~QtHost() { detach(); }

  void attach() { adapter_.emplace(); }
  void stop() { QCoreApplication::exit(5); }
  void soon(std::function<void()> function) {
    QTimer::singleShot(0, &context_, std::move(function));
  }
  void run() { exitCode = adapter_->run(); }
  void runByItself() {
    exitCode = QCoreApplication::exec();
    rethrow();
  }

  void turn(milliseconds atMost) {
    QTimer limit;
    limit.setTimerType(Qt::PreciseTimer);
    limit.setSingleShot(true);
    limit.start(static_cast<int>(atMost.count()));
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    rethrow();
  }

  int exitCode = 0;

 private:
  int argumentCount_ = 1;
  char name_[5] = "test";
  char* arguments_[2] = {name_, nullptr};
  QCoreApplication application_{argumentCount_, arguments_};
  QObject context_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(QtAdapter, Adapter, QtHost, Numbered);

TEST(QtAdapterAlone, ReturnsTheApplicationsExitCode) {
  QtHost host;
  host.attach();
  CallingTimer timer([&] { host.stop(); });
  timer.arm(0);
  host.run();
  EXPECT_EQ(host.exitCode, 5);
}

/// Notes which notifier the application is activating.
class NoteOfNotifier : public QObject {
 public:
  NoteOfNotifier() { QCoreApplication::instance()->installEventFilter(this); }

  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() == QEvent::SockAct) {
      notifier = watched;
    }
    return false;
  }

  QPointer<QObject> notifier;
};

TEST(QtAdapterAlone, OutlivesItselfInTheNotifierThatActivatesIt) {
  QtHost host;
  host.attach();
  NoteOfNotifier note;
  bool alive = false;
  CallingTimer destroyer([&] {
    host.detach();
    alive = !note.notifier.isNull();
    host.soon([&] { host.stop(); });
  });
  destroyer.arm(0);
  host.run();
  EXPECT_TRUE(alive) << "Qt has still to return from it";
  EXPECT_TRUE(note.notifier.isNull()) << "nobody else releases it";
}

}  // namespace
