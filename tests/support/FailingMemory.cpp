#include "tests/support/FailingMemory.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace opltest {

namespace {

// One FailingMemory is in force at a time, as there is one default context.
std::atomic<int> gCalls{0};
std::atomic<int> gNth{0};
std::atomic<bool> gForGood{false};
std::atomic<int> gError{0};

bool Fails() {
  const int call = ++gCalls;
  if (call != gNth && !(gForGood && call > gNth)) return false;
  if (gError != 0) errno = gError;
  return true;
}

void* Malloc(void*, uint32_t size, uint32_t, const char*, const char*, const char*, uint32_t) {
  return Fails() ? nullptr : std::malloc(size);
}

void* Calloc(void*, uint32_t count, uint32_t size, uint32_t, const char*, const char*, const char*,
             uint32_t) {
  return Fails() ? nullptr : std::calloc(count, size);
}

void* Realloc(void*, void* pointer, uint32_t size, uint32_t, const char*, const char*, const char*,
              uint32_t) {
  return Fails() ? nullptr : std::realloc(pointer, size);
}

char* Strdup(void*, const char* text, uint32_t, const char*, const char*, const char*, uint32_t) {
  return Fails() ? nullptr : ::strdup(text);
}

}  // namespace

FailingMemory::FailingMemory(int nth, Fault::Duration duration, int error) {
  gCalls = 0;
  gNth = nth;
  gForGood = duration == Fault::kForGood;
  gError = error;
  if (OPL_MemContextCreate(&context_) != OPL_OK) std::abort();
  (void)OPL_MemMallocCallbackSet(context_, Malloc);
  (void)OPL_MemCallocCallbackSet(context_, Calloc);
  (void)OPL_MemReallocCallbackSet(context_, Realloc);
  (void)OPL_MemStrdupCallbackSet(context_, Strdup);
  (void)OPL_MemDefaultHandleSet(context_);
}

FailingMemory::~FailingMemory() {
  (void)OPL_MemDefaultHandleSet(nullptr);
  (void)OPL_MemContextDestroy(&context_);
}

bool FailingMemory::Fired() const { return gCalls >= gNth; }

int FailingMemory::Calls() const { return gCalls; }

}  // namespace opltest
