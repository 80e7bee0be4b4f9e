# How every target is compiled, and how the library is linked without a C++ runtime.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Sources in C++ would otherwise bring libstdc++ onto the link line of a target that is linked as C.
# Programs in C++ get it from their own linker driver.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")

set(QVOPL_SANITIZE "" CACHE STRING "Sanitizers for every target, as -fsanitize= takes them")
set(QVOPL_COVERAGE OFF CACHE BOOL "Instrument for coverage")
set(QVOPL_DEBUG_INFO OFF CACHE BOOL "Build the library with debug information, for debuggers and scripts/check-abi")

if(QVOPL_SANITIZE)
  add_compile_options(-fsanitize=${QVOPL_SANITIZE} -fno-omit-frame-pointer -g1)
  add_link_options(-fsanitize=${QVOPL_SANITIZE})
  # Between inlining and instrumentation GCC 12 takes the bound of a strnlen for a read of that many bytes.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-stringop-overread)
  endif()
  if(QVOPL_SANITIZE MATCHES undefined)
    add_compile_options(-fno-sanitize-recover=undefined -fno-sanitize=vptr)
    # Its check of called functions needs the run-time types that the library does without.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
      add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fno-sanitize=function>)
    endif()
  endif()
endif()
if(QVOPL_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

# Warnings are errors everywhere; source positions in messages are relative to the source tree.
function(qvopl_compile_options target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
endfunction()

# Nothing but libc behind the library: no exceptions, no run-time types, no libstdc++, and an undefined
# symbol is a link error. Calls into libc go through the address table at once, and every function begins a
# cache line: both are worth a tenth where a function does no more than hand on, as OPL_MemMalloc.
function(qvopl_library_options target)
  target_compile_options(${target} PRIVATE
    -fPIC -fvisibility=hidden -fno-exceptions -fno-rtti -fno-threadsafe-statics
    -fno-semantic-interposition -fno-plt -falign-functions=64
    -fstack-protector-strong)
  target_compile_definitions(${target} PRIVATE _GNU_SOURCE _FILE_OFFSET_BITS=64)
  if(QVOPL_DEBUG_INFO)
    target_compile_options(${target} PRIVATE -g)
  endif()
  target_link_options(${target} PRIVATE
    -static-libgcc -Wl,-z,relro,-z,now -Wl,-Bsymbolic-functions
    -Wl,--version-script=${CMAKE_SOURCE_DIR}/cmake/libqvopl.map)
  # clang leaves its sanitizers' symbols to the program that is linked later.
  if(NOT (CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND QVOPL_SANITIZE))
    target_link_options(${target} PRIVATE -Wl,-z,defs)
  endif()
endfunction()
