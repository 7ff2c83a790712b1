#include "platform/xpu/one_thread.hpp"

#include <ATen/Parallel.h>
#include <omp.h>

// Of MKL, where the framework has it: its threads, which a program's torch.set_num_threads sets apart from OpenMP's.
extern "C" [[gnu::weak]] int MKL_Set_Num_Threads_Local(int);

namespace xpu {

// at::get_num_threads(), since it sets the framework's own default on a thread that has not yet been asked.
one_thread::one_thread() : before_(at::get_num_threads()) {
  omp_set_num_threads(1);
  if (MKL_Set_Num_Threads_Local != nullptr) mkl_before_ = MKL_Set_Num_Threads_Local(1);
}

one_thread::~one_thread() {
  omp_set_num_threads(before_);
  if (MKL_Set_Num_Threads_Local != nullptr) MKL_Set_Num_Threads_Local(mkl_before_);
}

}  // namespace xpu
