#pragma once

#include <glib-unix.h>
#include <glib.h>

#include <functional>
#include <memory>
#include <utility>

#include "Guest.h"

namespace Kelvo::Adapters {

/// This thread's loop in a GLib main loop. Guest.h tells what adapters promise. It is served at the
/// default priority, and also while a callback runs a main loop of its own (a dialog, say).
class GLib {
 public:
  /// Watches from now on, until it is destroyed; an exception quits `host`.
  explicit GLib(GMainLoop* host)
      : GLib(g_main_loop_get_context(host), [host] { g_main_loop_quit(host); }) {
    run_ = [host] { g_main_loop_run(host); };
  }

  /// For applications without a `GMainLoop`: `stop` makes theirs return, for instance through
  /// `g_application_quit`. They call `rethrow` and not `run`.
  GLib(GMainContext* context, std::function<void()> stop)
      : guest_(std::make_shared<Guest>()), source_(g_unix_fd_source_new(guest_->fd(), G_IO_IN)) {
    g_source_set_callback(source_, G_SOURCE_FUNC(&ready), new Callback{guest_, std::move(stop)},
                          [](gpointer data) { delete static_cast<Callback*>(data); });
    g_source_set_can_recurse(source_, TRUE);
    g_source_attach(source_, context);
  }
  GLib(const GLib&) = delete;
  GLib& operator=(const GLib&) = delete;
  ~GLib() {
    g_source_destroy(source_);
    g_source_unref(source_);
  }

  /// Runs the host until it is quit; throws what a callback throws, and may be called again.
  void run() {
    const auto guest = guest_;  // a callback may destroy this adapter
    const auto run = run_;
    run();
    guest->rethrow();
  }

  /// For applications that run the host themselves: to be called when it returns.
  void rethrow() { guest_->rethrow(); }

 private:
  /// Owned by the source, which keeps it until a callback in progress is over.
  struct Callback {
    std::shared_ptr<Guest> guest;
    std::function<void()> stop;
  };

  static gboolean ready(gint /*fd*/, GIOCondition /*condition*/, gpointer data) {
    const auto* callback = static_cast<const Callback*>(data);
    if (!callback->guest->dispatch()) {
      callback->stop();
    }
    return G_SOURCE_CONTINUE;
  }

  const std::shared_ptr<Guest> guest_;
  GSource* const source_;
  std::function<void()> run_;
};

}  // namespace Kelvo::Adapters
