// The name that the host device reports: HOST_XPU_DEVICE_NAME as it stood when this library was loaded, else a
// name of class 1 with the processor's brand string: the host's cores do what that class's systolic unit does.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "platform/sycl/queue.hpp"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace host {
namespace {

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string processor_brand() {
#if defined(__x86_64__)
  constexpr unsigned first_leaf = 0x80000002, last_leaf = 0x80000004;  // 16 characters of the brand in each
  if (__get_cpuid_max(0x80000000, nullptr) >= last_leaf) {
    char text[49] = {};
    for (unsigned leaf = first_leaf; leaf <= last_leaf; ++leaf) {
      unsigned words[4] = {};
      __get_cpuid(leaf, &words[0], &words[1], &words[2], &words[3]);
      std::memcpy(text + (leaf - first_leaf) * 16, words, 16);
    }
    std::string brand = trimmed(text);
    if (!brand.empty()) return brand;
  }
#endif
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    const auto colon = line.find(':');
    if (line.rfind("model name", 0) == 0 && colon != std::string::npos) return trimmed(line.substr(colon + 1));
  }
  return "host processor";
}

std::string read_name() {
  const char* name = std::getenv("HOST_XPU_DEVICE_NAME");
  return name != nullptr ? std::string(name) : "Cirrus(TM) A host (" + processor_brand() + ")";
}

const std::string& stored_name() {
  static const auto* name = new std::string(read_name());  // leaked: asked for by other libraries' initialisers
  return *name;
}

[[maybe_unused]] const std::string& read_at_load = stored_name();

}  // namespace

std::string device_name() { return stored_name(); }

}  // namespace host
