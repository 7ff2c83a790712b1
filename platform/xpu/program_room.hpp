// Room for the machine code that a product library makes: with a product of a new shape, and when it first runs. The
// libraries do not look whether the system refuses it.
#pragma once

namespace xpu {

// OutOfMemoryError where there are no 8 MiB of address space.
void check_room_for_a_program();

}  // namespace xpu
