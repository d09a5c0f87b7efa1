// Runs a fuzz target without libFuzzer: over every file of a directory, then
// over inputs that its own mutator makes of them, always the same ones.
//
//   <target> <directory> <executions> [seed]
//
// A finding ends the program; the line before it names the input, which is
// written to the working directory.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/RecordMutator.h"
#include "tests/fuzz/Target.h"

namespace {

using Input = std::vector<std::uint8_t>;

constexpr std::size_t kMaxInput = 8192;
constexpr std::size_t kMaxSteps = 6;

fuzz::Random plainChanges(0);
const Input* current = nullptr;

void SaveAndEnd(int signal) {
  if (std::FILE* file = std::fopen("finding", "wb")) {
    std::fwrite(current->data(), 1, current->size(), file);
    std::fclose(file);
  }
  std::fputs("the input is in the file 'finding'\n", stderr);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void Execute(const Input& input) {
  current = &input;
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

std::vector<Input> ReadAll(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) paths.push_back(entry.path());
  std::sort(paths.begin(), paths.end());
  std::vector<Input> inputs;
  for (const std::filesystem::path& path : paths) {
    std::ifstream stream(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }
  return inputs;
}

// A few changes of one of the inputs, or a join of two.
Input Derive(const std::vector<Input>& inputs, fuzz::Random& random) {
  const auto seed = [&] { return random.Below(0xFFFFFFFFU); };
  Input input(kMaxInput);
  const Input& first = inputs[random.Below(inputs.size())];
  std::size_t size = std::min(first.size(), kMaxInput);
  std::copy_n(first.begin(), size, input.begin());
  if (random.OneIn(8)) {
    const Input& second = inputs[random.Below(inputs.size())];
    size = LLVMFuzzerCustomCrossOver(first.data(), first.size(), second.data(), second.size(), input.data(), kMaxInput,
                                     seed());
  }
  for (std::size_t n = 1 + random.Below(kMaxSteps); n > 0; --n)
    size = LLVMFuzzerCustomMutator(input.data(), size, kMaxInput, seed());
  input.resize(size);
  return input;
}

}  // namespace

std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize) {
  const std::size_t at = plainChanges.Below(size + 1);
  const auto byte = static_cast<std::uint8_t>(plainChanges.Below(256));
  switch (plainChanges.Below(4)) {
    case 0:
      if (size == maxSize) return size;
      std::memmove(data + at + 1, data + at, size - at);
      data[at] = byte;
      return size + 1;
    case 1:
      return at == 0 ? size : at;
    default:
      if (at < size) data[at] = byte;
      return size;
  }
}

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s directory executions [seed]\n", argv[0]);
    return 2;
  }
  std::signal(SIGABRT, SaveAndEnd);
  std::signal(SIGSEGV, SaveAndEnd);
  const std::vector<Input> inputs = ReadAll(argv[1]);
  if (inputs.empty()) {
    std::fprintf(stderr, "no file in %s\n", argv[1]);
    return 2;
  }
  for (const Input& input : inputs) Execute(input);
  const unsigned long executions = std::strtoul(argv[2], nullptr, 10);
  fuzz::Random random(argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1);
  for (unsigned long n = 0; n < executions; ++n) Execute(Derive(inputs, random));
  std::printf("%zu files and %lu executions, nothing found\n", inputs.size(), executions);
  return 0;
}
