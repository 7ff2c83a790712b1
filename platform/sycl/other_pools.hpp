// Thread pools beside our own, which take its cores.
#pragma once

namespace host {

// Makes OpenMP's threads sleep where they would wait for milliseconds at full speed: after each parallel region of the
// framework's CPU operators, when our workers would get no core. To be called before work is given to those; what
// does none keeps OpenMP as it was.
void let_openmp_sleep();

}  // namespace host
