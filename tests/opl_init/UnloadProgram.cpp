// Loads the library, begins it and unloads it; with a further argument it also ends it before.
//
//   UnloadProgram LIBRARY [end]
//
// It prints how many keys of thread-specific data the library holds on to after each step.
#include <dlfcn.h>
#include <pthread.h>

#include <cstdio>

#include "OPL_Init.h"

namespace {

// The system gives the lowest free key.
unsigned LowestFreeKey() {
  pthread_key_t key{};
  (void)::pthread_key_create(&key, nullptr);
  (void)::pthread_key_delete(key);
  return key;
}

template <typename Function>
Function* Find(void* library, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(library, name));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const unsigned before = LowestFreeKey();
  void* const library = ::dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return 3;
  if (Find<decltype(OPL_InitBegin)>(library, "OPL_InitBegin")(0) != OPL_OK) return 4;
  std::printf("begun %u", LowestFreeKey() - before);
  if (argc > 2 && Find<decltype(OPL_InitEnd)>(library, "OPL_InitEnd")(0) != OPL_OK) return 5;
  if (::dlclose(library) != 0) return 6;
  if (::dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) != nullptr) return 7;
  std::printf(" unloaded %u", LowestFreeKey() - before);
  return 0;
}
