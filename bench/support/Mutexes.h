// Many named mutexes at once, as processes that were killed leave them.
#ifndef OPL_BENCH_SUPPORT_MUTEXES_H
#define OPL_BENCH_SUPPORT_MUTEXES_H

namespace oplbench {

// In the instance of the benchmarks, with nobody who uses them.
void MakeMutexes(int count);

}  // namespace oplbench

#endif
