// What a test gets to work with: an instance of its own. The runner gives every test an IPC directory, an
// instance string, a working directory, and System V objects that no other test sees; it fails a test that
// leaves a System V object, a file in the IPC directory or a process behind.
#ifndef OPL_TESTS_SUPPORT_INSTANCE_H
#define OPL_TESTS_SUPPORT_INSTANCE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace opltest {

constexpr int kWidth = sizeof(void*) * 8;

// What the test is built with, for the few that a sanitizer's runtime stands in the way of.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#ifdef __SANITIZE_THREAD__
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

// The environment's own: QVOPL_IPC_PATH, and what the host program's hook returns.
std::string IpcDirectory();
std::string InstanceString();

// The test's current directory, empty at first and removed after it.
std::string WorkDirectory();

std::vector<std::string> FilesIn(const std::string& directory);
std::string ContentsOf(const std::string& path);
void WriteFile(const std::string& path, const std::string& contents);

// Expects these in the calling thread's error record.
void ExpectError(uint32_t code, const char* message);

// Begins the library for the test and ends it after.
class Instance : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

}  // namespace opltest

#endif
