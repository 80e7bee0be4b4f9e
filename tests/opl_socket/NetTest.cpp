// Look-ups in the network databases: what the system's calls are asked, what their outcomes become, and
// databases of the test's own.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Net.h"
#include "OPL_Sync.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::ExpectError;
using opltest::Fault;
using opltest::ForgetFailure;
using opltest::Replacement;

constexpr uint32_t kFailed = 0x050801;
constexpr uint32_t kNotFound = 0x050802;
constexpr uint32_t kTryAgain = 0x050803;
constexpr uint32_t kNoRecovery = 0x050804;
constexpr uint32_t kNoData = 0x050805;
constexpr uint32_t kTooSmall = 0x050806;
constexpr uint32_t kInvalidArgument = 0x05080C;

// How the stand-ins of the system's calls answer.
struct Answer {
  int result = 0;  // what the call returns
  int error = 0;   // what it leaves in errno
  int status = 0;  // the resolver's
  bool isFound = false;
};
Answer gAnswer;
// What they were asked.
std::string gAsked;
size_t gSize = 0;
int gErrnoBefore = -1;
int gCalls = 0;

void Note(const std::string& asked, size_t size) {
  gErrnoBefore = errno;
  gAsked = asked;
  gSize = size;
  ++gCalls;
}

template <typename Entry>
int Reply(Entry* entry, Entry** found) {
  *found = gAnswer.isFound ? entry : nullptr;
  errno = gAnswer.error;
  return gAnswer.result;
}

hostent gHost{};
bool gIsHostCleared = false;

int HostByName(const char* name, hostent* entry, char*, size_t size, hostent** found, int* status) {
  gIsHostCleared = entry->h_name == nullptr && entry->h_aliases == nullptr && entry->h_addrtype == 0 &&
                   entry->h_length == 0 && entry->h_addr_list == nullptr && *status == 0;
  Note(name, size);
  *status = gAnswer.status;
  if (gAnswer.isFound) *entry = gHost;
  return Reply(entry, found);
}

int HostByAddr(const void* address, socklen_t length, int family, hostent* entry, char*, size_t size,
               hostent** found, int* status) {
  gIsHostCleared = entry->h_name == nullptr;
  Note(std::string(static_cast<const char*>(address), length) + "/" + std::to_string(family), size);
  *status = gAnswer.status;
  return Reply(entry, found);
}

protoent gProtocol{};

int ProtoByName(const char* name, protoent* entry, char*, size_t size, protoent** found) {
  Note(name, size);
  if (gAnswer.isFound) *entry = gProtocol;
  return Reply(entry, found);
}

servent gService{};

int ServByName(const char* name, const char* protocol, servent* entry, char*, size_t size, servent** found) {
  Note(std::string(name) + "/" + (protocol != nullptr ? protocol : "any"), size);
  if (gAnswer.isFound) *entry = gService;
  return Reply(entry, found);
}

char gBuffer[8192];

uint32_t FindHost(const char* name, hostent* entry = &gHost) {
  return OPL_NetGetHostByName(name, entry, gBuffer);
}

uint32_t FindAddress(const char* text, hostent* entry) {
  const in_addr_t address = ::inet_addr(text);
  return OPL_NetGetHostByAddr(&address, sizeof address, AF_INET, entry, gBuffer);
}

uint32_t FindProtocol(const char* name) {
  protoent entry{};
  return OPL_NetGetProtoByName(name, &entry, gBuffer);
}

uint32_t FindService(const char* name, const char* protocol = "tcp") {
  servent entry{};
  return OPL_NetGetServByName(name, protocol, &entry, gBuffer);
}

class NetHostByName : public opltest::Instance {};
class NetHostByAddr : public opltest::Instance {};
class NetProtoByName : public opltest::Instance {};
class NetServByName : public opltest::Instance {};

TEST(NetBeforeBegin, FindsAllButServices) {
  EXPECT_EQ(0x050203u, OPL_InitIsStopped(0));
  hostent host{};
  EXPECT_EQ(0u, OPL_NetGetHostByName("127.0.0.1", &host, gBuffer));
  EXPECT_STREQ("127.0.0.1", host.h_name);
  {
    const Replacement call("gethostbyaddr_r", HostByAddr);
    gAnswer = {.isFound = true};
    EXPECT_EQ(0u, FindAddress("127.0.0.1", &host));
  }
  {
    const Replacement call("getprotobyname_r", ProtoByName);
    char name[] = "ip";
    gProtocol.p_name = name;
    EXPECT_EQ(0u, FindProtocol("ip"));
  }
  const Replacement call("getservbyname_r", ServByName);
  gCalls = 0;
  EXPECT_EQ(0x050203u, FindService("http"));
  EXPECT_EQ(0, gCalls);
}

TEST(NetBeforeBegin, RefusesNullArguments) {
  hostent host{};
  protoent protocol{};
  servent service{};
  EXPECT_EQ(kInvalidArgument, OPL_NetGetHostByName(nullptr, &host, gBuffer));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetHostByName("x", nullptr, gBuffer));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetHostByName("x", &host, nullptr));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetHostByAddr(nullptr, 4, AF_INET, &host, gBuffer));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetHostByAddr("addr", 4, AF_INET, nullptr, gBuffer));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetHostByAddr("addr", 4, AF_INET, &host, nullptr));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetProtoByName(nullptr, &protocol, gBuffer));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetProtoByName("x", nullptr, gBuffer));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetProtoByName("x", &protocol, nullptr));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetServByName(nullptr, "tcp", &service, gBuffer));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetServByName("x", "tcp", nullptr, gBuffer));
  EXPECT_EQ(kInvalidArgument, OPL_NetGetServByName("x", "tcp", &service, nullptr));
}

// Outcomes of the resolver's calls; what is left of the name and of the address.
struct Outcome {
  Answer answer;
  uint32_t byName;
  uint32_t byAddress;
};
constexpr Outcome kOutcomes[] = {
    {{EAGAIN, 0, HOST_NOT_FOUND}, kNotFound, kNotFound},
    {{EAGAIN, 0, TRY_AGAIN}, kTryAgain, kTryAgain},
    {{EAGAIN, 0, NO_RECOVERY}, kNoRecovery, kNoRecovery},
    {{EAGAIN, 0, NO_DATA}, kNoData, kNoData},
    {{EAGAIN, 0, 0}, kFailed, kFailed},
    {{EAGAIN, 0, -1}, kFailed, kFailed},
    {{EAGAIN, 0, 5}, kFailed, kFailed},
    {{ENOENT, 0, TRY_AGAIN}, kTryAgain, kTryAgain},
    // The system's error goes before the status, wherever the call leaves it.
    {{EINVAL, 0, TRY_AGAIN}, kInvalidArgument, kInvalidArgument},
    {{ERANGE, 0, TRY_AGAIN}, kTooSmall, kTooSmall},
    {{-1, EINVAL, HOST_NOT_FOUND}, kInvalidArgument, kInvalidArgument},
    {{-1, ERANGE, HOST_NOT_FOUND}, kTooSmall, kTooSmall},
    {{-1, EIO, NO_DATA}, kNoData, kNoData},
    // A call that succeeds without finding anything.
    {{0, 0, HOST_NOT_FOUND}, kNotFound, kNotFound},
    {{0, 0, TRY_AGAIN}, kTryAgain, kTryAgain},
    {{0, 0, NO_RECOVERY}, kNoRecovery, kNoRecovery},
    {{0, 0, NO_DATA}, kNoData, kNoData},
    {{0, EINVAL, HOST_NOT_FOUND}, kNotFound, kNotFound},
    {{0, 0, 0}, kNotFound, kFailed},
    // One that succeeds with an entry without anything in it.
    {{0, 0, 0, true}, kNotFound, 0},
    {{0, 0, TRY_AGAIN, true}, kNotFound, 0},
};

TEST_F(NetHostByName, TurnsEachOutcomeIntoACodeAndLeavesNoMessage) {
  const Replacement call("gethostbyname_r", HostByName);
  ForgetFailure();
  for (const Outcome& outcome : kOutcomes) {
    gAnswer = outcome.answer;
    gHost = {};
    EXPECT_EQ(outcome.byName, FindHost("name"))
        << outcome.answer.result << " " << outcome.answer.error << " " << outcome.answer.status;
  }
  ExpectError(0, "none");
}

TEST_F(NetHostByName, FindsAnEntryThatHasAnything) {
  const Replacement call("gethostbyname_r", HostByName);
  gAnswer = {.isFound = true};
  char name[] = "name";
  char* list[] = {nullptr};
  hostent found{};
  gHost = {};
  gHost.h_name = name;
  EXPECT_EQ(0u, FindHost("name", &found));
  EXPECT_EQ(name, found.h_name);
  gHost = {};
  gHost.h_aliases = list;
  EXPECT_EQ(0u, FindHost("name", &found));
  gHost = {};
  gHost.h_addr_list = list;
  EXPECT_EQ(0u, FindHost("name", &found));
}

TEST_F(NetHostByName, AsksWithAClearEntryAndTheWholeBuffer) {
  const Replacement call("gethostbyname_r", HostByName);
  gAnswer = {.status = HOST_NOT_FOUND};
  hostent entry;
  std::memset(&entry, 0xA5, sizeof entry);
  errno = EIO;
  EXPECT_EQ(kNotFound, FindHost("name", &entry));
  EXPECT_TRUE(gIsHostCleared);
  EXPECT_EQ("name", gAsked);
  EXPECT_EQ(8192u, gSize);
  EXPECT_EQ(0, gErrnoBefore);
}

TEST_F(NetHostByAddr, TurnsEachOutcomeIntoACodeAndLeavesNoMessage) {
  const Replacement call("gethostbyaddr_r", HostByAddr);
  ForgetFailure();
  hostent entry{};
  for (const Outcome& outcome : kOutcomes) {
    gAnswer = outcome.answer;
    EXPECT_EQ(outcome.byAddress, FindAddress("1.2.3.4", &entry))
        << outcome.answer.result << " " << outcome.answer.error << " " << outcome.answer.status;
  }
  ExpectError(0, "none");
}

TEST_F(NetHostByAddr, AsksWithTheCallersArgumentsAndTheWholeBuffer) {
  const Replacement call("gethostbyaddr_r", HostByAddr);
  gAnswer = {.isFound = true};
  hostent entry;
  std::memset(&entry, 0xA5, sizeof entry);
  errno = EIO;
  EXPECT_EQ(0u, OPL_NetGetHostByAddr("sixteen bytes...", 16, 10, &entry, gBuffer));
  EXPECT_FALSE(gIsHostCleared);
  EXPECT_EQ("sixteen bytes.../10", gAsked);
  EXPECT_EQ(8192u, gSize);
  EXPECT_EQ(0, gErrnoBefore);
}

// What protocols and services have in common.
struct EntryCase {
  const char* official;
  const char* aliases[3];
  bool hasAliases;
  uint32_t code;
};
constexpr EntryCase kEntryCases[] = {
    {"asked", {}, true, 0},
    {"asked", {}, false, 0},
    {"asked", {"other"}, true, 0},
    {"other", {"asked"}, true, 0},
    {"other", {"one", "asked"}, true, 0},
    {"other", {"one", "two"}, true, kFailed},
    {"other", {}, true, kFailed},
    {"other", {}, false, kFailed},
    {"ASKED", {"Asked"}, true, kFailed},
    {"asked#", {"asked"}, true, kFailed},
    {"#", {"asked"}, true, kFailed},
    {"as\nked", {"asked"}, true, kFailed},
    {"other", {"asked#", "asked "}, true, kFailed},
    {"other", {"#", "asked"}, true, 0},  // only the official name is looked into
    {nullptr, {"asked"}, true, kFailed},
};

template <typename Entry>
void Fill(const EntryCase& from, char* Entry::*name, char** Entry::*aliases, Entry* entry) {
  static char* list[4];
  for (size_t i = 0; i < 3; ++i) list[i] = const_cast<char*>(from.aliases[i]);
  entry->*name = const_cast<char*>(from.official);
  entry->*aliases = from.hasAliases ? list : nullptr;
}

constexpr Outcome kEntryOutcomes[] = {
    {{0, 0, 0}, kFailed, 0},        {{ERANGE, 0, 0}, kTooSmall, 0}, {{-1, ERANGE, 0}, kTooSmall, 0},
    {{ENOENT, 0, 0}, kFailed, 0},   {{EINVAL, 0, 0}, kFailed, 0},   {{-1, EINVAL, 0}, kFailed, 0},
    {{EIO, ERANGE, 0}, kFailed, 0},
};

TEST_F(NetProtoByName, ChecksTheEntryThatWasFound) {
  const Replacement call("getprotobyname_r", ProtoByName);
  gAnswer = {.isFound = true};
  for (const EntryCase& entryCase : kEntryCases) {
    Fill(entryCase, &protoent::p_name, &protoent::p_aliases, &gProtocol);
    EXPECT_EQ(entryCase.code, FindProtocol("asked"))
        << (entryCase.official != nullptr ? entryCase.official : "");
  }
}

TEST_F(NetProtoByName, TurnsEachOutcomeIntoACodeAndLeavesNoMessage) {
  const Replacement call("getprotobyname_r", ProtoByName);
  ForgetFailure();
  for (const Outcome& outcome : kEntryOutcomes) {
    gAnswer = outcome.answer;
    errno = ERANGE;
    EXPECT_EQ(outcome.byName, FindProtocol("asked")) << outcome.answer.result << " " << outcome.answer.error;
    EXPECT_EQ(0, gErrnoBefore);
    EXPECT_EQ("asked", gAsked);
    EXPECT_EQ(8192u, gSize);
  }
  ExpectError(0, "none");
}

TEST_F(NetProtoByName, TakesNoLock) {
  const Replacement call("getprotobyname_r", ProtoByName);
  gAnswer = {};
  ASSERT_EQ(0u, OPL_SyncCriticalSectionInit(&gCrit));
  ASSERT_EQ(0u, OPL_SyncCriticalSectionEnter(&gCrit));
  opltest::InNewThread([] { EXPECT_EQ(kFailed, FindProtocol("asked")); });
  EXPECT_EQ(0u, OPL_SyncCriticalSectionLeave(&gCrit));
}

TEST_F(NetServByName, ChecksTheEntryThatWasFound) {
  const Replacement call("getservbyname_r", ServByName);
  gAnswer = {.isFound = true};
  for (const EntryCase& entryCase : kEntryCases) {
    Fill(entryCase, &servent::s_name, &servent::s_aliases, &gService);
    EXPECT_EQ(entryCase.code, FindService("asked"))
        << (entryCase.official != nullptr ? entryCase.official : "");
  }
}

TEST_F(NetServByName, TurnsEachOutcomeIntoACodeAndLeavesNoMessage) {
  const Replacement call("getservbyname_r", ServByName);
  ForgetFailure();
  for (const Outcome& outcome : kEntryOutcomes) {
    gAnswer = outcome.answer;
    EXPECT_EQ(outcome.byName, FindService("asked")) << outcome.answer.result << " " << outcome.answer.error;
    EXPECT_EQ(0, gErrnoBefore);
    EXPECT_EQ("asked/tcp", gAsked);
    EXPECT_EQ(8192u, gSize);
  }
  EXPECT_EQ(kFailed, FindService("asked", nullptr));
  EXPECT_EQ("asked/any", gAsked);
  ExpectError(0, "none");
}

bool IsFree() {
  bool isFree = false;
  opltest::InNewThread([&] {
    isFree = ::pthread_mutex_trylock(&gCrit.mutex) == 0 && ::pthread_mutex_unlock(&gCrit.mutex) == 0;
  });
  return isFree;
}

bool gIsHeldDuringTheCall = false;

int LookAtTheLock(const char*, const char*, servent*, char*, size_t, servent** found) {
  gIsHeldDuringTheCall = !IsFree();
  *found = nullptr;
  return gAnswer.result;
}

TEST_F(NetServByName, HoldsTheLibrarysLockDuringTheCallAlone) {
  const Replacement call("getservbyname_r", LookAtTheLock);
  for (const int result : {0, ERANGE}) {
    gAnswer = {.result = result};
    gIsHeldDuringTheCall = false;
    EXPECT_EQ(result == 0 ? kFailed : kTooSmall, FindService("asked"));
    EXPECT_TRUE(gIsHeldDuringTheCall);
    EXPECT_TRUE(IsFree());
  }
}

std::atomic<int> gLookUps{0};

int CountTheCall(const char*, const char*, servent*, char*, size_t, servent** found) {
  ++gLookUps;
  *found = nullptr;
  return 0;
}

TEST_F(NetServByName, WaitsWhileAnotherThreadHoldsTheLock) {
  const Replacement call("getservbyname_r", CountTheCall);
  ASSERT_EQ(0u, OPL_SyncCriticalSectionInit(&gCrit));
  ASSERT_EQ(0u, OPL_SyncCriticalSectionEnter(&gCrit));
  std::atomic<pid_t> id{0};
  std::thread waiter([&] {
    id = ::gettid();
    EXPECT_EQ(kFailed, FindService("asked"));
  });
  while (id == 0) std::this_thread::yield();
  opltest::AwaitSleepOnLock(id);
  EXPECT_EQ(0, gLookUps);
  EXPECT_EQ(0u, OPL_SyncCriticalSectionLeave(&gCrit));
  waiter.join();
  EXPECT_EQ(1, gLookUps);
}

int BeCancelled(const char*, const char*, servent*, char*, size_t, servent** found) {
  EXPECT_EQ(0, ::pthread_cancel(::pthread_self()));
  ::pthread_testcancel();
  *found = nullptr;
  return 0;
}

TEST_F(NetServByName, LeavesTheLockWhereTheThreadIsCancelled) {
  const Replacement call("getservbyname_r", BeCancelled);
  pthread_t reader;
  ASSERT_EQ(0, ::pthread_create(
                   &reader, nullptr,
                   [](void*) -> void* {
                     EXPECT_EQ(kFailed, FindService("asked"));
                     return nullptr;
                   },
                   nullptr));
  EXPECT_EQ(0, ::pthread_join(reader, nullptr));
  EXPECT_TRUE(IsFree());
}

// The lock of all sections is taken for the initialisation, then the section's own.
TEST_F(NetServByName, PassesAFailureToInitialiseOrEnterOnWithoutALookUp) {
  const Replacement call("getservbyname_r", CountTheCall);
  {
    const Fault fault("pthread_mutex_lock", 1, EDEADLK);
    EXPECT_EQ(0x05003Du, FindService("asked"));
  }
  {
    const Fault fault("pthread_mutex_init", 1, EAGAIN);
    EXPECT_EQ(0x05003Cu, FindService("asked"));
    EXPECT_TRUE(fault.Fired());
  }
  {
    const Fault fault("pthread_mutex_lock", 2, EDEADLK);
    EXPECT_EQ(0x05003Du, FindService("asked"));
  }
  EXPECT_EQ(0, gLookUps);
  EXPECT_EQ(kFailed, FindService("asked"));
  EXPECT_EQ(1, gLookUps);
}

// The section stays entered then, so that each of these comes with a process of its own.
TEST_F(NetServByName, PassesAFailureToLeaveOnAfterALookUpThatSucceeded) {
  const Replacement call("getservbyname_r", ServByName);
  gAnswer = {.isFound = true};
  Fill(kEntryCases[0], &servent::s_name, &servent::s_aliases, &gService);
  const Fault fault("pthread_mutex_unlock", 2, EPERM);
  EXPECT_EQ(0x05003Eu, FindService("asked"));
}

TEST_F(NetServByName, PassesALookUpThatFailedOnBeforeAFailureToLeave) {
  const Replacement call("getservbyname_r", ServByName);
  gAnswer = {.result = ERANGE};
  const Fault fault("pthread_mutex_unlock", 2, EPERM);
  EXPECT_EQ(kTooSmall, FindService("asked"));
  EXPECT_TRUE(fault.Fired());
}

// Databases of the test's own in the place of the system's, which the rest of the machine goes on seeing.
class NetDatabases : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    std::string many;
    for (int i = 0; many.size() < 9000; ++i) many += " alias-" + std::to_string(i);
    if (::unshare(CLONE_NEWNS) == -1 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == -1)
      GTEST_SKIP() << "the system does not let this process have databases of its own";
    Replace("/etc/nsswitch.conf", "hosts: files\nprotocols: files\nservices: files\n");
    Replace("/etc/hosts",
            "10.1.2.3 alpha alpha.example first second\n"
            "10.1.2.4 bare\n"
            "10.1.2.5 many" +
                many + "\n");
    Replace("/etc/protocols",
            "# a comment\n"
            "alpha 201 ALPHA other-alpha\n"
            "bare 202\n"
            "bad#name 203 BAD\n"
            "none\n"
            "many 204" +
                many + "\n");
    Replace("/etc/services",
            "alpha 7001/tcp ALPHA other-alpha\n"
            "alpha 7002/udp\n"
            "bare 7003/tcp\n"
            "bad#name 7004/tcp BAD\n"
            "many 7005/tcp" +
                many + "\n");
  }

  // The system reads a database line by line and gives up at one that is too long.
  static void WithoutTheLongLine() {
    for (const char* name : {"hosts", "protocols", "services"}) {
      const std::string contents = opltest::ContentsOf(name);
      opltest::WriteFile(name, contents.substr(0, contents.rfind('\n', contents.size() - 2) + 1));
    }
  }

  static void Replace(const std::string& path, const std::string& contents) {
    const std::string own = opltest::WorkDirectory() + "/" + path.substr(path.rfind('/') + 1);
    opltest::WriteFile(own, contents);
    ASSERT_EQ(0, ::mount(own.c_str(), path.c_str(), nullptr, MS_BIND, nullptr)) << path;
  }
};

TEST_F(NetDatabases, YieldHostsByTheirNames) {
  for (const char* name : {"alpha", "alpha.example", "second"}) {
    hostent host{};
    ASSERT_EQ(0u, FindHost(name, &host)) << name;
    EXPECT_STREQ("alpha", host.h_name);
    EXPECT_STREQ("alpha.example", host.h_aliases[0]);
    EXPECT_EQ(AF_INET, host.h_addrtype);
    EXPECT_EQ(4, host.h_length);
    EXPECT_EQ(0, std::memcmp("\12\1\2\3", host.h_addr_list[0], 4));
    EXPECT_EQ(nullptr, host.h_addr_list[1]);
  }
}

TEST_F(NetDatabases, YieldHostsByTheirAddresses) {
  hostent host{};
  ASSERT_EQ(0u, FindAddress("10.1.2.3", &host));
  EXPECT_STREQ("alpha", host.h_name);
  ASSERT_EQ(0u, FindAddress("10.1.2.4", &host));
  EXPECT_STREQ("bare", host.h_name);
  EXPECT_EQ(nullptr, host.h_aliases[0]);
}

// The system has left the last host that it looked at in the entry by then.
TEST_F(NetDatabases, HaveNoSuchHost) {
  hostent host{};
  WithoutTheLongLine();
  EXPECT_EQ(kNotFound, FindHost("no-such-host", &host));
  EXPECT_EQ(kNotFound, FindAddress("10.9.9.9", &host));
}

TEST_F(NetDatabases, HoldAHostOfTooManyNames) {
  hostent host{};
  EXPECT_EQ(kTooSmall, FindHost("many", &host));
  EXPECT_EQ(kTooSmall, FindHost("alias-17", &host));
  EXPECT_EQ(kTooSmall, FindAddress("10.1.2.5", &host));
}

TEST_F(NetDatabases, YieldAnAddressInsteadOfANameWithoutALook) {
  hostent host{};
  EXPECT_EQ(0u, FindHost("10.9.9.9", &host));
  EXPECT_STREQ("10.9.9.9", host.h_name);
  EXPECT_EQ(0, std::memcmp("\12\11\11\11", host.h_addr_list[0], 4));
}

TEST_F(NetDatabases, YieldProtocolsByTheirNamesAndAliases) {
  for (const char* name : {"alpha", "ALPHA", "other-alpha"}) {
    protoent protocol{};
    ASSERT_EQ(0u, OPL_NetGetProtoByName(name, &protocol, gBuffer)) << name;
    EXPECT_STREQ("alpha", protocol.p_name);
    EXPECT_EQ(201, protocol.p_proto);
  }
  EXPECT_EQ(0u, FindProtocol("bare"));
}

TEST_F(NetDatabases, HaveNoSuchProtocolNorADamagedOne) {
  EXPECT_EQ(kTooSmall, FindProtocol("many"));
  WithoutTheLongLine();
  for (const char* name : {"", "Alpha", "201", "bad", "bad#name", "BAD", "none", "#", "alpha "})
    EXPECT_EQ(kFailed, FindProtocol(name)) << name;
}

TEST_F(NetDatabases, YieldServicesByTheirNamesAndAliases) {
  for (const char* name : {"alpha", "ALPHA", "other-alpha"}) {
    servent service{};
    ASSERT_EQ(0u, OPL_NetGetServByName(name, "tcp", &service, gBuffer)) << name;
    EXPECT_STREQ("alpha", service.s_name);
    EXPECT_STREQ("tcp", service.s_proto);
    EXPECT_EQ(htons(7001), service.s_port);
  }
  servent service{};
  ASSERT_EQ(0u, OPL_NetGetServByName("alpha", "udp", &service, gBuffer));
  EXPECT_EQ(htons(7002), service.s_port);
  ASSERT_EQ(0u, OPL_NetGetServByName("bare", nullptr, &service, gBuffer));
  EXPECT_EQ(htons(7003), service.s_port);
}

TEST_F(NetDatabases, HaveNoSuchServiceNorADamagedOne) {
  EXPECT_EQ(kTooSmall, FindService("many"));
  WithoutTheLongLine();
  EXPECT_EQ(kFailed, FindService("bare", "udp"));
  EXPECT_EQ(kFailed, FindService("alpha", "sctp"));
  for (const char* name : {"", "Alpha", "7001", "bad", "bad#name", "BAD", "#"})
    EXPECT_EQ(kFailed, FindService(name)) << name;
}

TEST_F(NetDatabases, ServeManyThreadsAtOnce) {
  opltest::RunAtOnce(4, [](int) {
    std::vector<char> buffer(OPL_NET_BUFFER_SIZE);
    for (int round = 0; round < 100; ++round) {
      servent service{};
      ASSERT_EQ(0u, OPL_NetGetServByName("other-alpha", "tcp", &service, buffer.data()));
      protoent protocol{};
      ASSERT_EQ(0u, OPL_NetGetProtoByName("ALPHA", &protocol, buffer.data()));
      hostent host{};
      ASSERT_EQ(0u, OPL_NetGetHostByName("second", &host, buffer.data()));
    }
  });
}

}  // namespace
