#include "tests/adapters/QtHost.h"

#include <QEvent>
#include <QPointer>

#include "tests/adapters/LoopSuite.h"

INSTANTIATE_TYPED_TEST_SUITE_P(QtAdapter, Adapter, QtHost, Numbered);

namespace {

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
