// Thread pools beside our own, which take its cores.
#pragma once

namespace host {

// Ends the threads that OpenMP keeps for the calling thread, if there are any: those on which the framework's CPU
// operators fork. They spin for milliseconds after each parallel region, in which our workers would get no core. The
// next region makes them again, which takes as long as waking them would have. Without effect within a region.
void end_openmp_threads();

}  // namespace host
