#pragma once

#include <string>
#include <vector>

namespace Soak {

enum class Allowed { kAnything, kExactly, kAtMost, kAtLeast };

/// One figure, and what it may be.
struct Row {
  std::string scenario;
  std::string what;
  double figure = 0;
  std::string unit;
  Allowed allowed = Allowed::kAnything;
  double bound = 0;
  std::string note;

  bool good() const;
};

class Report {
 public:
  void add(Row row);

  void print() const;
  /// Throws std::runtime_error if the file cannot be written.
  void writeJson(const std::string& path, const std::string& form, unsigned long seed) const;
  bool good() const;

 private:
  std::vector<Row> rows_;
};

/// 1234567.8 as "1,234,568"; below 100 with two digits behind the point, unless they are zero.
std::string formatted(double number);

/// Says how far a scenario is, on one line of a terminal, else now and then.
void progress(const std::string& scenario, double done, double of);
/// Ends that line.
void endProgress();

}  // namespace Soak
