#include "tests/soak/Report.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "Api/Json/Types.h"

namespace Soak {

namespace {

std::string textOf(const Row& row) {
  return formatted(row.figure) + (row.unit.empty() ? "" : " " + row.unit);
}

std::string allowedText(const Row& row) {
  switch (row.allowed) {
    case Allowed::kExactly:
      return formatted(row.bound);
    case Allowed::kAtMost:
      return "at most " + formatted(row.bound);
    case Allowed::kAtLeast:
      return "at least " + formatted(row.bound);
    default:
      return "-";
  }
}

std::string verdict(const Row& row) {
  return row.allowed == Allowed::kAnything ? "-" : row.good() ? "ok" : "BAD";
}

}  // namespace

bool Row::good() const {
  switch (allowed) {
    case Allowed::kExactly:
      return figure == bound;
    case Allowed::kAtMost:
      return figure <= bound;
    case Allowed::kAtLeast:
      return figure >= bound;
    default:
      return true;
  }
}

void Report::add(Row row) {
  rows_.push_back(std::move(row));
}

bool Report::good() const {
  return std::all_of(rows_.begin(), rows_.end(), [](const Row& row) { return row.good(); });
}

void Report::print() const {
  std::size_t width = 0;
  for (const Row& row : rows_) {
    width = std::max(width, row.what.size());
  }
  const int wide = static_cast<int>(width);
  std::printf("%-14s  %-*s  %16s  %-18s  %-7s  %s\n", "scenario", wide, "what", "figure", "allowed",
              "verdict", "note");
  for (const Row& row : rows_) {
    std::printf("%-14s  %-*s  %16s  %-18s  %-7s  %s\n", row.scenario.c_str(), wide,
                row.what.c_str(), textOf(row).c_str(), allowedText(row).c_str(),
                verdict(row).c_str(), row.note.c_str());
  }
  std::printf("%s\n", good() ? "All figures are as they should be." : "Some figures are BAD.");
}

void Report::writeJson(const std::string& path, const std::string& form, unsigned long seed) const {
  Tovik::Message all;
  all.SetObject();
  auto& allocator = all.GetAllocator();
  const auto text = [&](const std::string& string) {
    return rapidjson::Value(string.c_str(), allocator);
  };
  rapidjson::Value rows(rapidjson::kArrayType);
  for (const Row& row : rows_) {
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("scenario", text(row.scenario), allocator);
    entry.AddMember("what", text(row.what), allocator);
    entry.AddMember("figure", row.figure, allocator);
    entry.AddMember("unit", text(row.unit), allocator);
    entry.AddMember("allowed", text(allowedText(row)), allocator);
    entry.AddMember("verdict", text(verdict(row)), allocator);
    entry.AddMember("note", text(row.note), allocator);
    rows.PushBack(entry, allocator);
  }
  all.AddMember("form", text(form), allocator);
  all.AddMember("seed", std::uint64_t{seed}, allocator);
  all.AddMember("good", good(), allocator);
  all.AddMember("rows", rows, allocator);
  std::ofstream file(path);
  file << Tovik::Message::toStr(all, true) << '\n';
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

std::string formatted(double number) {
  char text[64];
  const bool whole = number == std::round(number) || std::fabs(number) >= 100;
  std::snprintf(text, sizeof text, whole ? "%.0f" : "%.2f", number);
  std::string result = text;
  const auto digits = result.find('.') == std::string::npos ? result.size() : result.find('.');
  for (auto at = static_cast<int>(digits) - 3; at > (number < 0 ? 1 : 0); at -= 3) {
    result.insert(static_cast<std::size_t>(at), ",");
  }
  return result;
}

namespace {

double secondsNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

void progress(const std::string& scenario, double done, double of) {
  static const double start = secondsNow();
  static double last = start - 60;
  static const bool terminal = ::isatty(STDERR_FILENO) != 0;
  const double now = secondsNow();
  if (now - last < (terminal ? 0.1 : 20)) {
    return;
  }
  last = now;
  const int elapsed = static_cast<int>(now - start);
  std::fprintf(stderr, "%s%3d:%02d  %-14s %s of %s%s", terminal ? "\r\033[K" : "", elapsed / 60,
               elapsed % 60, scenario.c_str(), formatted(done).c_str(), formatted(of).c_str(),
               terminal ? "" : "\n");
}

void endProgress() {
  if (::isatty(STDERR_FILENO) != 0) {
    std::fprintf(stderr, "\r\033[K");
  }
}

}  // namespace Soak
