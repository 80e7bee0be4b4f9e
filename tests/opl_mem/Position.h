// A source position for the allocation functions, with a value of its own in each place.
#ifndef OPL_TESTS_OPL_MEM_POSITION_H
#define OPL_TESTS_OPL_MEM_POSITION_H

#include <cstdint>

namespace opltest {

constexpr uint32_t kFlags = 0x80000001u;
constexpr char kCaller[] = "Caller";
constexpr char kFile[] = "File.c";
constexpr char kRevision[] = "1.7";
constexpr uint32_t kLine = 0xFFFFFFF0u;

}  // namespace opltest

#define OPLTEST_POSITION opltest::kFlags, opltest::kCaller, opltest::kFile, opltest::kRevision, opltest::kLine

#endif
