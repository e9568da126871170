#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <utility>

#include "Kelvo/Adapters/GLib.h"

/// A GLib main loop on a context of its own.
class GLibHost {
 public:
  ~GLibHost() {
    detach();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  void attach() { adapter_.emplace(loop_); }
  void detach() { adapter_.reset(); }
  void stop() { g_main_loop_quit(loop_); }
  void soon(std::function<void()> function) {
    callAfter(g_idle_source_new(), G_PRIORITY_DEFAULT, std::move(function));
  }
  void run() { adapter_->run(); }
  void runByItself() {
    g_main_loop_run(loop_);
    adapter_->rethrow();
  }

  void turn(std::chrono::milliseconds atMost) {
    GSource* limit =
        callAfter(g_timeout_source_new(static_cast<guint>(atMost.count())), G_PRIORITY_LOW, [] {});
    g_source_ref(limit);
    g_main_context_iteration(context_, TRUE);
    g_source_destroy(limit);
    g_source_unref(limit);
    if (adapter_) {
      adapter_->rethrow();
    }
  }

  GMainContext* context() { return context_; }

 private:
  GSource* callAfter(GSource* source, int priority, std::function<void()> function) {
    g_source_set_priority(source, priority);
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
          (*static_cast<std::function<void()>*>(data))();
          return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(function)),
        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
    g_source_attach(source, context_);
    g_source_unref(source);
    return source;
  }

  GMainContext* const context_ = g_main_context_new();
  GMainLoop* const loop_ = g_main_loop_new(context_, FALSE);
  std::optional<Kelvo::Adapters::GLib> adapter_;
};
