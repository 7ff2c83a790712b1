#include "platform/xpu/program_room.hpp"

#include <c10/util/Exception.h>
#include <sys/mman.h>

#include <cstddef>

namespace xpu {

void check_room_for_a_program() {
  constexpr std::size_t room = std::size_t{8} << 20;
  void* found = mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  TORCH_CHECK_WITH(OutOfMemoryError, found != MAP_FAILED, "XPU out of memory: no room for the program of a product");
  munmap(found, room);
}

}  // namespace xpu
