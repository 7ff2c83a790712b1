// Calls the fuzzer's inputs one after the other, without sanitizers or feedback, as fast as the calls are: inputs that
// follow from a seed and a number, each a known one (files of the folders named) with some bytes changed.
//
//   fuzz_surface <seed> <first> <inputs> <finding> <folder...>
#include <c10/util/Logging.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz/byte_source.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using input = std::vector<uint8_t>;

input current;
uint64_t number = 0;
const char* finding = nullptr;

// Keeps the input that a signal ends. Nothing else is left to be done by then.
void keep(int signal) {
  if (FILE* file = std::fopen(finding, "wb")) {
    std::fwrite(current.data(), 1, current.size(), file);
    std::fclose(file);
  }
  std::fprintf(stderr, "signal %d in input %lu, which is in %s\n", signal, number, finding);
  _exit(1);
}

std::vector<input> files_of(int folders, char** names) {
  std::vector<std::filesystem::path> paths;
  for (int i = 0; i < folders; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(names[i])) paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<input> all{input{}};
  for (const auto& path : paths) {
    std::ifstream file(path, std::ios::binary);
    all.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return all;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 5) return 2;
  const uint64_t seed = std::strtoull(arguments[1], nullptr, 10), first = std::strtoull(arguments[2], nullptr, 10),
                 inputs = std::strtoull(arguments[3], nullptr, 10);
  finding = arguments[4];
  const std::vector<input> known = files_of(count - 5, arguments + 5);
  const rlimit memory{rlim_t{4} << 30, rlim_t{4} << 30};  // absurd sizes are refused here as anywhere
  setrlimit(RLIMIT_AS, &memory);
  c10::SetStackTraceFetcher([] { return std::string(); });  // most of the time of a refusal
  for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGPROF}) std::signal(signal, &keep);
  const auto start = std::chrono::steady_clock::now();
  for (number = first; number < first + inputs; ++number) {
    fuzz::random_bits random(seed + number * 0xD1B54A32D192ED03);
    current = known[random.next() % known.size()];
    current.resize(std::max<size_t>(current.size(), 64 + random.next() % 32));
    // From a byte or two of it to nearly all: most calls are good ones beside the known.
    for (uint64_t changes = 1 + random.next() % (2ULL << random.next() % 6); changes != 0; --changes) {
      const uint64_t bits = random.next();
      current[(bits >> 8) % current.size()] = static_cast<uint8_t>(bits);
    }
    const itimerval limit{{}, {20, 0}};  // of the processor, however busy the machine is
    setitimer(ITIMER_PROF, &limit, nullptr);
    LLVMFuzzerTestOneInput(current.data(), current.size());
  }
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  std::printf("Done %lu inputs in %.0f s, from %zu known ones\n", inputs, seconds.count(), known.size());
}
