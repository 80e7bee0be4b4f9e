// The removal of an instance's objects: which modules take part, in which order, and what comes of a failure.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

using opltest::Fault;
using opltest::FilesIn;

constexpr OPL_Result kStopped = OPL_INIT_E_STOPPED;

class InitTerminate : public ::testing::Test {
 protected:
  // Where an object of that kind has its file.
  std::string File(const char* marker) const {
    return opltest::IpcDirectory() + "/x" + marker + instance_ + ".006.021";
  }

  // A directory is an object's file that no module can remove.
  void MakeStubborn(const char* marker) const { ASSERT_EQ(0, ::mkdir(File(marker).c_str(), 0700)); }
  void RemoveStubborn(const char* marker) const { ASSERT_EQ(0, ::rmdir(File(marker).c_str())); }

  const std::string instance_ = opltest::InstanceString();
};

// One kind of each module, in the order of the modules, with the code and the message of its failure. Some
// have the code in common, but the first failure's code and the last one's message tell two neighbours apart.
struct Kind {
  const char* marker;
  OPL_Result code;
  const char* message;  // null where there is none
};
constexpr Kind kKinds[] = {
    {".mutex.", 0x051205, "OPL_PrivateSemIdDestroy: read error :21,Is a directory"},
    {".mem.", 0x051205, "OPL_PrivateShMemClose: read error :21,Is a directory"},
    {".sck.", 0x050D13, "OPL_FileRm: unlink failed 21, Is a directory"},
    {".OPL_DAEMON.controller.", 0x050D13, "OPL_FileRm: unlink failed 21, Is a directory"},
    {".msgqnat.", 0x051105, nullptr},
};

TEST_F(InitTerminate, GoesThroughTheModulesInTheirOrderAndReturnsTheFirstFailure) {
  ASSERT_EQ(OPL_OK, OPL_InitBegin(0));
  for (size_t i = 0; i + 1 < std::size(kKinds); ++i) {
    const Kind& first = kKinds[i];
    const Kind& second = kKinds[i + 1];
    SCOPED_TRACE(first.marker);
    MakeStubborn(first.marker);
    MakeStubborn(second.marker);
    EXPECT_EQ(first.code, OPL_InitTerminateIPC(0, "*"));
    const Kind& last = second.message != nullptr ? second : first;
    EXPECT_EQ(std::string(last.message) + "\nFile " + File(last.marker), OPL_ErrMessageGet(0));
    RemoveStubborn(first.marker);
    RemoveStubborn(second.marker);
  }
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
}

TEST_F(InitTerminate, RemovesTheRestWhateverFails) {
  MakeStubborn(".mutex.");
  for (const char* marker : {".sck.", ".OPL_DAEMON.controller."}) opltest::WriteFile(File(marker), "");
  EXPECT_EQ(0x051205u, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(1u, FilesIn(opltest::IpcDirectory()).size());
  RemoveStubborn(".mutex.");
}

TEST_F(InitTerminate, LetsTheLibraryWorkForItsTimeInAProcessThatNeverBegan) {
  OPL_Result stopped = kStopped;
  const Fault listing("glob64", 1, [&] { stopped = OPL_InitIsStopped(0); });
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
  EXPECT_TRUE(listing.Fired());
  EXPECT_EQ(OPL_OK, stopped);
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
}

TEST_F(InitTerminate, RemovesNothingWhenTheFileModuleCannotStart) {
  opltest::WriteFile(File(".sck."), "");
  OPL_Result result;
  {
    const Fault fault("pthread_mutex_init", 1, ENOMEM);
    result = OPL_InitTerminateIPC(0, "*");
  }
  EXPECT_EQ(0x05003Cu, result);
  EXPECT_EQ(kStopped, OPL_InitIsStopped(0));
  EXPECT_EQ(1u, FilesIn(opltest::IpcDirectory()).size());
  EXPECT_EQ(OPL_OK, OPL_InitTerminateIPC(0, "*"));
  EXPECT_EQ(0u, FilesIn(opltest::IpcDirectory()).size());
}

// Every file's name holds the empty text.
TEST_F(InitTerminate, RemovesNothingWithoutAnInstance) {
  opltest::WriteFile(File(".sck."), "");
  const char* const variable = "QVOPL_TEST_INSTANCE";
  ASSERT_EQ(0, ::unsetenv(variable));
  EXPECT_EQ(0x05020Bu, OPL_InitTerminateIPC(0, "*"));
  ASSERT_EQ(0, ::setenv(variable, "", 1));
  EXPECT_EQ(0x05020Bu, OPL_InitTerminateIPC(0, "*"));
  ASSERT_EQ(1u, FilesIn(opltest::IpcDirectory()).size());
  ASSERT_EQ(0, ::unlink(File(".sck.").c_str()));
}

}  // namespace
