#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include "BasicAsio.h"

namespace Kelvo::Adapters {

/// This thread's loop in an `io_context` of Boost.Asio. A source file includes this header or
/// Asio.h: the two libraries define the same global names.
class BoostAsio : public BasicAsio<boost::asio::io_context, boost::asio::posix::stream_descriptor> {
 public:
  using BasicAsio::BasicAsio;
};

}  // namespace Kelvo::Adapters
