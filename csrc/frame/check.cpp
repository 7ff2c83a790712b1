#include "frame/check.hpp"

#include <c10/util/Exception.h>

#include <mutex>
#include <set>

#include "platform/sycl/fork.hpp"

namespace corvane {
namespace {

std::mutex& adding = host::held_while_forking(new std::mutex);  // to the names below

// The name of a source file, for as long as the process lives: newer frameworks read it when they are asked for the
// message, long after the throw.
const char* file_of(const char* source) {
  static auto* names = new std::set<std::string>;
  const std::lock_guard<std::mutex> alone(adding);
  return names->insert(std::string(source) + ".cpp").first->c_str();
}

}  // namespace

void fail(const origin& where, const std::string& message) {
  throw c10::Error({where.function, file_of(where.source), 0}, message);
}

void check_multiple(uint64_t value, uint64_t of, const origin& where) {
  if (value % of != 0) fail(where, std::to_string(value) + " must be a multiple of " + std::to_string(of));
}

void check_whole_blocks(uint64_t state_size, uint64_t block_elements, const origin& where) {
  if (state_size % block_elements != 0) {
    fail(where, "state_size " + std::to_string(state_size) + " must be a multiple of " +
                    std::to_string(block_elements) + ", the elements of a block: a weight row has to begin on a block");
  }
}

}  // namespace corvane
