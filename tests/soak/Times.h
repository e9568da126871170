#pragma once

#include <array>
#include <cstdint>

namespace Soak {

/// Counts durations in buckets, each less than 1 % wide, in memory that does not grow.
class Times {
 public:
  void add(std::uint64_t duration) {
    ++counts_[indexOf(duration)];
    ++count_;
  }

  void clear() { *this = Times(); }

  std::uint64_t p99() const {
    std::size_t index = 0;
    for (std::uint64_t passed = 0; index + 1 < counts_.size(); ++index) {
      passed += counts_[index];
      if (passed > count_ * 99 / 100) {
        break;
      }
    }
    return durationAt(index);
  }

 private:
  static constexpr unsigned kPart = 128;  // buckets for each power of two

  static std::size_t indexOf(std::uint64_t duration) {
    unsigned shift = 0;
    while ((duration >> shift) >= 2 * kPart) {
      ++shift;
    }
    return std::size_t{shift} * kPart + static_cast<std::size_t>(duration >> shift);
  }

  static std::uint64_t durationAt(std::size_t index) {
    const std::size_t shift = index < 2 * kPart ? 0 : index / kPart - 1;
    return std::uint64_t{index - shift * kPart} << shift;
  }

  std::array<std::uint64_t, 58 * kPart> counts_{};
  std::uint64_t count_ = 0;
};

}  // namespace Soak
