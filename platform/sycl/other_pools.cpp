#include "platform/sycl/other_pools.hpp"

#include <omp.h>

namespace host {

void end_openmp_threads() {
  static const int here = omp_get_initial_device();
  omp_pause_resource(omp_pause_soft, here);
}

}  // namespace host
