#include "tests/support/Allocations.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "OPL_Mem.h"

namespace opltest {

namespace {

Allocations& Self(void* state) { return *static_cast<Allocations*>(state); }

void* Malloc(void* state, uint32_t size, uint32_t, const char*, const char*, const char*, uint32_t) {
  return Self(state).Allow() ? std::malloc(size) : nullptr;
}

void* Calloc(void* state, uint32_t count, uint32_t size, uint32_t, const char*, const char*, const char*,
             uint32_t) {
  return Self(state).Allow() ? std::calloc(count, size) : nullptr;
}

char* Strdup(void* state, const char* text, uint32_t, const char*, const char*, const char*, uint32_t) {
  return Self(state).Allow() ? ::strdup(text) : nullptr;
}

void Free(void* state, void* pointer, uint32_t, const char*, const char*, const char*, uint32_t) {
  if (pointer != nullptr) Self(state).Forget();
  std::free(pointer);
}

}  // namespace

Allocations::Allocations() {
  if (OPL_MemContextCreate(&context_) != OPL_OK) std::abort();
  (void)OPL_MemMallocCallbackSet(context_, Malloc);
  (void)OPL_MemCallocCallbackSet(context_, Calloc);
  (void)OPL_MemStrdupCallbackSet(context_, Strdup);
  (void)OPL_MemFreeCallbackSet(context_, Free);
  (void)OPL_MemCallbackStateSet(context_, this);
  (void)OPL_MemDefaultHandleSet(context_);
}

Allocations::~Allocations() {
  (void)OPL_MemDefaultHandleSet(nullptr);
  (void)OPL_MemContextDestroy(&context_);
}

void Allocations::Fail(int nth) { failIn_ = nth; }

bool Allocations::Allow() {
  if (failIn_ > 0 && --failIn_ == 0) {
    errno = ENOMEM;
    return false;
  }
  ++live_;
  return true;
}

}  // namespace opltest
