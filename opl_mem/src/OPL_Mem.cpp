// Memory contexts and the five allocation functions. Each function has one shape: find the context in force,
// hand the call to its callback, else serve it from the system. OPL_MemMalloc and OPL_MemFree, which are
// called all the time, first look for the common case that there is no context: it is to cost next to nothing
// beside the system's own function, in which it ends by a jump. The rest of the two is kept out of line.
#include "OPL_Mem.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

struct OPL_MemContext {
  int32_t valid;
  void* state;
  void* reserved;  // always null; no operation reads it
  OPL_MemMallocCallback mallocCallback;
  OPL_MemCallocCallback callocCallback;
  OPL_MemReallocCallback reallocCallback;
  OPL_MemStrdupCallback strdupCallback;
  OPL_MemFreeCallback freeCallback;
};

namespace {

// Set once by the host before other threads allocate; atomic so that a late setter is no undefined behaviour.
std::atomic<OPL_MemContext*> gDefaultContext{nullptr};

inline const OPL_MemContext* InForce(const OPL_MemContext* context) {
  return context != nullptr ? context : gDefaultContext.load(std::memory_order_acquire);
}

inline bool HasContext(const OPL_MemContext* context) {
  if (context != nullptr) [[unlikely]]
    return true;
  return gDefaultContext.load(std::memory_order_relaxed) != nullptr;
}

inline void* SystemMalloc(uint32_t size) {
  if (size == 0) [[unlikely]]
    return nullptr;
  return std::malloc(size);
}

[[gnu::noinline, gnu::cold]] void* MallocInContext(OPL_MemContext* context, uint32_t size, uint32_t flags,
                                                   const char* caller, const char* file, const char* revision,
                                                   uint32_t line) {
  const OPL_MemContext* const active = InForce(context);
  if (active != nullptr && active->mallocCallback != nullptr)
    return active->mallocCallback(active->state, size, flags, caller, file, revision, line);
  return SystemMalloc(size);
}

[[gnu::noinline, gnu::cold]] void FreeInContext(OPL_MemContext* context, void* pointer, uint32_t flags,
                                                const char* caller, const char* file, const char* revision,
                                                uint32_t line) {
  const OPL_MemContext* const active = InForce(context);
  if (active != nullptr && active->freeCallback != nullptr)
    return active->freeCallback(active->state, pointer, flags, caller, file, revision, line);
  std::free(pointer);
}

template <typename Callback>
OPL_Result SetCallback(OPL_MemContext* context, Callback OPL_MemContext::*member, Callback callback) {
  if (context == nullptr || callback == nullptr) return OPL_MEM_E_NULL_ARGUMENT;
  context->*member = callback;
  return OPL_OK;
}

}  // namespace

void* OPL_MemMalloc(OPL_MemContext* context, uint32_t size, uint32_t flags, const char* caller,
                    const char* file, const char* revision, uint32_t line) {
  if (HasContext(context)) [[unlikely]]
    return MallocInContext(context, size, flags, caller, file, revision, line);
  return SystemMalloc(size);
}

void* OPL_MemCalloc(OPL_MemContext* context, uint32_t count, uint32_t size, uint32_t flags,
                    const char* caller, const char* file, const char* revision, uint32_t line) {
  const OPL_MemContext* const active = InForce(context);
  if (active != nullptr && active->callocCallback != nullptr) [[unlikely]]
    return active->callocCallback(active->state, count, size, flags, caller, file, revision, line);
  if (count == 0 || size == 0) return nullptr;
  return std::calloc(count, size);
}

void* OPL_MemRealloc(OPL_MemContext* context, void* pointer, uint32_t size, uint32_t flags,
                     const char* caller, const char* file, const char* revision, uint32_t line) {
  const OPL_MemContext* const active = InForce(context);
  if (active != nullptr && active->reallocCallback != nullptr) [[unlikely]]
    return active->reallocCallback(active->state, pointer, size, flags, caller, file, revision, line);
  if (pointer == nullptr && size == 0) return nullptr;
  return std::realloc(pointer, size);
}

char* OPL_MemStrdup(OPL_MemContext* context, const char* text, uint32_t flags, const char* caller,
                    const char* file, const char* revision, uint32_t line) {
  const OPL_MemContext* const active = InForce(context);
  if (active != nullptr && active->strdupCallback != nullptr) [[unlikely]]
    return active->strdupCallback(active->state, text, flags, caller, file, revision, line);
  if (text == nullptr) return nullptr;
  return ::strdup(text);
}

void OPL_MemFree(OPL_MemContext* context, void* pointer, uint32_t flags, const char* caller, const char* file,
                 const char* revision, uint32_t line) {
  if (HasContext(context)) [[unlikely]]
    return FreeInContext(context, pointer, flags, caller, file, revision, line);
  std::free(pointer);
}

OPL_Result OPL_MemContextCreate(OPL_MemContext** pContext) {
  if (pContext == nullptr) return OPL_MEM_E_NULL_ARGUMENT;
  *pContext = static_cast<OPL_MemContext*>(std::calloc(1, sizeof(OPL_MemContext)));
  if (*pContext == nullptr) return OPL_MEM_E_NO_MEMORY;
  (*pContext)->valid = 1;
  return OPL_OK;
}

OPL_Result OPL_MemContextDestroy(OPL_MemContext** pContext) {
  if (pContext == nullptr) return OPL_MEM_E_NULL_ARGUMENT;
  std::free(*pContext);
  *pContext = nullptr;
  return OPL_OK;
}

OPL_Result OPL_MemMallocCallbackSet(OPL_MemContext* context, OPL_MemMallocCallback callback) {
  return SetCallback(context, &OPL_MemContext::mallocCallback, callback);
}

OPL_Result OPL_MemCallocCallbackSet(OPL_MemContext* context, OPL_MemCallocCallback callback) {
  return SetCallback(context, &OPL_MemContext::callocCallback, callback);
}

OPL_Result OPL_MemReallocCallbackSet(OPL_MemContext* context, OPL_MemReallocCallback callback) {
  return SetCallback(context, &OPL_MemContext::reallocCallback, callback);
}

OPL_Result OPL_MemStrdupCallbackSet(OPL_MemContext* context, OPL_MemStrdupCallback callback) {
  return SetCallback(context, &OPL_MemContext::strdupCallback, callback);
}

OPL_Result OPL_MemFreeCallbackSet(OPL_MemContext* context, OPL_MemFreeCallback callback) {
  return SetCallback(context, &OPL_MemContext::freeCallback, callback);
}

OPL_Result OPL_MemCallbackStateSet(OPL_MemContext* context, void* state) {
  if (context == nullptr || state == nullptr) return OPL_MEM_E_NULL_ARGUMENT;
  context->state = state;
  return OPL_OK;
}

OPL_Result OPL_MemDefaultHandleSet(OPL_MemContext* context) {
  gDefaultContext.store(context, std::memory_order_release);
  return OPL_OK;
}

OPL_Result OPL_MemContextFinalize() { return OPL_OK; }

void OPL_MemLogPrivateMem() {}
