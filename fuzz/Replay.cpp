// Takes libFuzzer's place where there is none: runs a target on the files of the folders it is
// given, or on N random inputs, the same in each run.
//
//   replay_TARGET FOLDER...
//   replay_TARGET --random N

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

using Input = std::vector<std::uint8_t>;

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void run(const std::string& what, const Input& input) {
  std::fprintf(stderr, "%s\n", what.c_str());  // the last line tells which one has ended it
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

int runFiles(const std::string& folder) {
  int inputs = 0;
  if (!std::filesystem::exists(folder)) {
    return 0;
  }
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path(), std::ios::binary);
    run(entry.path(), Input{std::istreambuf_iterator<char>(file), {}});
    ++inputs;
  }
  return inputs;
}

int runRandom(int inputs) {
  constexpr std::size_t kLongest = 400;
  for (int seed = 1; seed <= inputs; ++seed) {
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    Input input(random() % kLongest);
    std::generate(input.begin(), input.end(),
                  [&random] { return static_cast<std::uint8_t>(random()); });
    run("random input " + std::to_string(seed), input);
  }
  return inputs;
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  const std::vector<std::string> words(argv + 1, argv + argc);
  int inputs = 0;
  if (words.size() == 2 && words[0] == "--random") {
    inputs = runRandom(std::stoi(words[1]));
  } else {
    for (const std::string& folder : words) {
      inputs += runFiles(folder);
    }
  }
  std::printf("%d inputs\n", inputs);
  return inputs > 0 ? 0 : 1;
}
