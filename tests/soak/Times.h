#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>

namespace Soak {

/// The clock that all processes share.
inline std::uint64_t nowNanoseconds() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

/// How long things took, in nanoseconds.
struct Spread {
  std::uint64_t count = 0;
  std::uint64_t median = 0;
  std::uint64_t p99 = 0;
  std::uint64_t longest = 0;
};

/// Counts durations in buckets, each less than 1 % wide, in memory that does not grow.
class Times {
 public:
  void add(std::uint64_t duration) {
    ++counts_[indexOf(duration)];
    ++count_;
    longest_ = std::max(longest_, duration);
  }

  void clear() { *this = Times(); }

  Spread spread() const { return {count_, quantile(0.5), quantile(0.99), longest_}; }

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

  std::uint64_t quantile(double part) const {
    const auto wanted = static_cast<std::uint64_t>(part * static_cast<double>(count_));
    std::uint64_t passed = 0;
    for (std::size_t index = 0; index < counts_.size(); ++index) {
      passed += counts_[index];
      if (passed > wanted) {
        return durationAt(index);
      }
    }
    return longest_;
  }

  std::array<std::uint64_t, 58 * kPart> counts_{};
  std::uint64_t count_ = 0;
  std::uint64_t longest_ = 0;
};

}  // namespace Soak
