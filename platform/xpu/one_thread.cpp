// Libraries fork as many threads as OpenMP allows to the thread that calls them.
#include <omp.h>

#include "platform/xpu/tile_product.hpp"

namespace xpu {

one_thread::one_thread() : before_(omp_get_max_threads()) { omp_set_num_threads(1); }
one_thread::~one_thread() { omp_set_num_threads(before_); }

}  // namespace xpu
