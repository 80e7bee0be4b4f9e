// Recording an error against what a program without the library would do: formatting into a buffer of the
// thread.
#include <cstdio>

#include "OPL_Err.h"
#include "bench/support/Bench.h"

namespace {

thread_local char tMessage[OPL_ERR_TEXT_SIZE];

struct Failure {
  const char* function = "OPL_SyncMutexAcquire";
  int error = 43;
  const char* text = "Identifier removed";
};

void RecordOpl(benchmark::State& state) {
  Failure failure;
  benchmark::DoNotOptimize(failure);
  for (auto _ : state) {
    benchmark::ClobberMemory();
    (void)OPL_ErrSet(0, static_cast<uint32_t>(failure.error), "%s: semop error :%i,%s", failure.function,
                     failure.error, failure.text);
  }
}

void RecordLibc(benchmark::State& state) {
  Failure failure;
  benchmark::DoNotOptimize(failure);
  for (auto _ : state) {
    benchmark::ClobberMemory();
    (void)std::snprintf(tMessage, sizeof tMessage, "%s: semop error :%i,%s", failure.function, failure.error,
                        failure.text);
    benchmark::DoNotOptimize(tMessage);
  }
}

const oplbench::Row kRecord("error: record a failed call", RecordOpl, {{"snprintf", RecordLibc, 1.1}});

}  // namespace
