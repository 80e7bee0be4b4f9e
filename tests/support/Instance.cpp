#include "tests/support/Instance.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "OPL_Init.h"
#include "tests/support/Failure.h"

namespace opltest {

namespace {

std::string Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::string IpcDirectory() { return Environment("QVOPL_IPC_PATH"); }

std::string InstanceString() { return Environment("QVOPL_TEST_INSTANCE"); }

std::string WorkDirectory() { return std::filesystem::current_path(); }

std::vector<std::string> FilesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::string ContentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

void WriteFile(const std::string& path, const std::string& contents) {
  std::ofstream file(path, std::ios::binary);
  file << contents;
  ASSERT_TRUE(file.good()) << path;
}

void ExpectError(uint32_t code, const char* message) { EXPECT_EQ(Failure(code, message), LastFailure()); }

void Instance::SetUp() { ASSERT_EQ(OPL_OK, OPL_InitBegin(0)); }

void Instance::TearDown() { EXPECT_EQ(OPL_OK, OPL_InitEnd(0)); }

}  // namespace opltest

// Names the test's instance for the library, as a host program does.
extern "C" const char* OPL_InitInstanceStringSetCallback() { return std::getenv("QVOPL_TEST_INSTANCE"); }
