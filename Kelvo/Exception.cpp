#include "Kelvo/Exception.h"

#include <utility>

namespace Kelvo {

Exception::Exception(String&& message, bool external)
    : message_(std::move(message)), external_(external) {}

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
  return message_.data();
}

const char* Exception::name() const noexcept {
  return "Kelvo::Exception";
}

}  // namespace Kelvo
