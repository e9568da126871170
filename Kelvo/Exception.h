#pragma once

#include <exception>

#include "Export.h"
#include "String.h"

namespace Kelvo {

/// Base of the exceptions of this library and of those built on it: one sentence of text.
class KELVO_API Exception : public std::exception {
 public:
  /// `external` tells whose doing it is: true when the cause lies outside the program (the
  /// operating system refused, a peer went away), false when the program misused an interface.
  Exception(String&& message, bool external);
  ~Exception() override;

  /// The sentence. It lives as long as the exception.
  const char* what() const noexcept override;
  /// The exception's qualified class name, for logs. A constant, never released.
  virtual const char* name() const noexcept;

  /// As the constructor was told.
  bool external() const noexcept { return external_; }

 private:
  String message_;
  bool external_;
};

}  // namespace Kelvo
