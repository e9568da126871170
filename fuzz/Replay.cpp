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

int main(int argc, char** argv) {
  constexpr std::size_t kLongest = 400;
  LLVMFuzzerInitialize(&argc, &argv);
  int inputs = 0;
  const auto run = [&inputs](const std::string& what, const Input& input) {
    std::fprintf(stderr, "%s\n", what.c_str());  // the last line tells which one has ended it
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++inputs;
  };
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 2 && words[0] == "--random") {
    for (int seed = 1; seed <= std::stoi(words[1]); ++seed) {
      std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
      Input input(random() % kLongest);
      std::generate(input.begin(), input.end(),
                    [&random] { return static_cast<std::uint8_t>(random()); });
      run("random input " + std::to_string(seed), input);
    }
  } else {
    for (const std::string& folder : words) {
      std::error_code missing;  // no input was found for that target
      for (const auto& entry : std::filesystem::directory_iterator(folder, missing)) {
        std::ifstream file(entry.path(), std::ios::binary);
        run(entry.path(), Input{std::istreambuf_iterator<char>(file), {}});
      }
    }
  }
  std::printf("%d inputs\n", inputs);
  return inputs > 0 ? 0 : 1;
}
