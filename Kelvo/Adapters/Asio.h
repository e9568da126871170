#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include "BasicAsio.h"

namespace Kelvo::Adapters {

/// This thread's loop in an `io_context` of standalone Asio.
class Asio : public BasicAsio<asio::io_context, asio::posix::stream_descriptor> {
 public:
  using BasicAsio::BasicAsio;
};

}  // namespace Kelvo::Adapters
