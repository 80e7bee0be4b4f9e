// Socket addresses: their records, which are their packed form byte for byte.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "tests/opl_socket/Sockets.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/Threads.h"

namespace {

using opltest::Address;
using opltest::CountedMemory;
using opltest::ExpectError;
using opltest::FailingMemory;
using opltest::Fault;
using opltest::InetAddress;
using opltest::LocalAddress;
using opltest::PackedLocal;
using opltest::SocketFile;

constexpr uint32_t kSize = 112;

// 1.2.3.4 port 258, as they go over the wire.
constexpr uint32_t kAddress = 0x04030201;
constexpr uint16_t kPort = 0x0201;
const std::string kPacked = std::string("\2\0\1\2\1\2\3\4", 8) + std::string(104, '\0');

// Told of what a test passes for a place that must not be written.
constexpr uint32_t kUntouched = 0xA5A5A5A5;

class SocketAddress : public opltest::Instance {
 protected:
  static void ExpectNotSet(const Address& address) { EXPECT_EQ(std::string(kSize, '\0'), address.Bytes()); }
};

class SocketAddressCreate : public SocketAddress {};
class SocketAddressDestroy : public SocketAddress {};
class SocketAddressInetString : public SocketAddress {};
class SocketAddressInetULong : public SocketAddress {};
class SocketAddressInetPort : public SocketAddress {};
class SocketAddressPacked : public SocketAddress {};
class SocketAddressCopy : public SocketAddress {};
class SocketAddressUnix : public SocketAddress {};
class SocketAddressCompare : public SocketAddress {};

TEST(SocketAddressBeforeBegin, IsStopped) {
  OPL_SocketAddress* address = nullptr;
  EXPECT_EQ(0x050203u, OPL_SocketAddressCreate(&address, 1));
  EXPECT_EQ(nullptr, address);
  EXPECT_EQ(0x050203u, OPL_SocketAddressDestroy(nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketAddressInetStringSet(nullptr, 0, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketAddressInetULongSet(nullptr, 0, 0));
  EXPECT_EQ(0x050203u, OPL_SocketAddressInetStringGet(nullptr, nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketAddressInetULongGet(nullptr, nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketAddressInetSetPort(nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketAddressInetGetPort(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketAddressPackedSizeGet(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketAddressPackedBufferFill(nullptr, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketAddressPackedAddrFill(nullptr, nullptr, 0));
  EXPECT_EQ(0x050203u, OPL_SocketAddressCopy(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketAddressUnixSet(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketAddressUnixGet(nullptr, nullptr));
  EXPECT_EQ(0x050203u, OPL_SocketAddressUnixIsSupported(0, nullptr));
}

TEST(SocketAddressBeforeBegin, ComparesNothingButClearsTheResult) {
  uint32_t isEqual = 7;
  EXPECT_EQ(0x050203u, OPL_SocketAddressCompare(nullptr, nullptr, &isEqual));
  EXPECT_EQ(0u, isEqual);
  EXPECT_EQ(0x050203u, OPL_SocketAddressCompare(nullptr, nullptr, nullptr));
}

TEST(SocketAddressAfterEnd, IsStopped) {
  ASSERT_EQ(0u, OPL_InitBegin(0));
  ASSERT_EQ(0u, OPL_InitEnd(0));
  OPL_SocketAddress* address = nullptr;
  EXPECT_EQ(OPL_InitIsStopped(0), OPL_SocketAddressCreate(&address, 0));
  EXPECT_NE(0u, OPL_InitIsStopped(0));
  EXPECT_EQ(nullptr, address);
}

TEST_F(SocketAddressCreate, ClearsOneAllocationOfTheRecordsSize) {
  const CountedMemory memory;  // full of garbage
  {
    const Address address;
    EXPECT_EQ(1, memory.Allocated());
    ExpectNotSet(address);
  }
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SocketAddressCreate, RefusesAMode) {
  OPL_SocketAddress* address = nullptr;
  EXPECT_EQ(0x050903u, OPL_SocketAddressCreate(&address, 1));
  ExpectError(0x050903, "OPL_SocketAddressCreate: Invalid Mode ");
  EXPECT_EQ(nullptr, address);
}

TEST_F(SocketAddressCreate, TellsWhenThereIsNoMemory) {
  OPL_SocketAddress* address = nullptr;
  {
    const FailingMemory memory(1);
    EXPECT_EQ(0x050902u, OPL_SocketAddressCreate(&address, 0));
  }
  ExpectError(ENOMEM, "OPL_SocketAddressCreate: malloc error :12");
  EXPECT_EQ(nullptr, address);
}

TEST_F(SocketAddressCreate, RefusesANullPlaceForTheHandle) {
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressCreate(nullptr, 0));
  ExpectError(0x05092C, "OPL_SocketAddressCreate: phAddress is NULL");
}

// A failure releases what the handle holds, so callers hand over a null handle.
TEST_F(SocketAddressCreate, ReleasesTheOldRecordForAMode) {
  const CountedMemory memory;
  OPL_SocketAddress* address = nullptr;
  ASSERT_EQ(0u, OPL_SocketAddressCreate(&address, 0));
  EXPECT_EQ(0x050903u, OPL_SocketAddressCreate(&address, 0xFFFFFFFF));
  EXPECT_EQ(nullptr, address);
  EXPECT_EQ(0, memory.Living());
}

TEST_F(SocketAddressCreate, ReleasesTheOldRecordWithoutMemory) {
  OPL_SocketAddress* address = nullptr;
  ASSERT_EQ(0u, OPL_SocketAddressCreate(&address, 0));
  const FailingMemory memory(1);
  EXPECT_EQ(0x050902u, OPL_SocketAddressCreate(&address, 0));
  EXPECT_EQ(nullptr, address);
}

TEST_F(SocketAddressCreate, LeavesTheOldRecordToTheCallerOnSuccess) {
  OPL_SocketAddress* address = nullptr;
  ASSERT_EQ(0u, OPL_SocketAddressCreate(&address, 0));
  OPL_SocketAddress* old = address;
  EXPECT_EQ(0u, OPL_SocketAddressCreate(&address, 0));
  EXPECT_NE(old, address);
  EXPECT_EQ(0u, OPL_SocketAddressDestroy(&old));
  EXPECT_EQ(0u, OPL_SocketAddressDestroy(&address));
}

TEST_F(SocketAddressDestroy, StoresNullAndSucceedsAgain) {
  OPL_SocketAddress* address = nullptr;
  ASSERT_EQ(0u, OPL_SocketAddressCreate(&address, 0));
  EXPECT_EQ(0u, OPL_SocketAddressDestroy(&address));
  EXPECT_EQ(nullptr, address);
  EXPECT_EQ(0u, OPL_SocketAddressDestroy(&address));
}

TEST_F(SocketAddressDestroy, RefusesANullPlaceForTheHandle) {
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressDestroy(nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressDestroy: phAddress is NULL");
}

TEST_F(SocketAddressInetString, IsPackedAsAnIPv4Address) {
  const Address address;
  EXPECT_EQ(0u, OPL_SocketAddressInetStringSet(address, kPort, "1.2.3.4"));
  EXPECT_EQ(kPacked, address.Bytes());
}

TEST_F(SocketAddressInetString, IsToldAsItWasSet) {
  const Address address;
  for (const char* text : {"0.0.0.0", "127.0.0.1", "255.255.255.254", "192.168.100.200"}) {
    EXPECT_EQ(0u, OPL_SocketAddressInetStringSet(address, 0xFFFE, text));
    uint32_t port = kUntouched;
    char buffer[25];
    std::memset(buffer, '?', sizeof buffer);
    EXPECT_EQ(0u, OPL_SocketAddressInetStringGet(address, &port, buffer));
    EXPECT_EQ(0xFFFEu, port);
    EXPECT_STREQ(text, buffer);
  }
}

TEST_F(SocketAddressInetString, FillsTwentyFiveBytesAndNoMore) {
  const InetAddress address(1, "1.2.3.4");
  uint32_t port = 0;
  char buffer[26];
  std::memset(buffer, '?', sizeof buffer);
  EXPECT_EQ(0u, OPL_SocketAddressInetStringGet(address, &port, buffer));
  EXPECT_EQ(std::string("1.2.3.4") + std::string(18, '\0') + "?", std::string(buffer, sizeof buffer));
}

// The shorter forms that the system knows are taken as the system takes them.
TEST_F(SocketAddressInetString, TakesWhatTheSystemTakes) {
  const Address address;
  for (const auto& [text, expected] : {std::pair("127.1", "127.0.0.1"), std::pair("0x7f.0.0.1", "127.0.0.1"),
                                       std::pair("1", "0.0.0.1"), std::pair("010.0.0.1", "8.0.0.1")}) {
    EXPECT_EQ(0u, OPL_SocketAddressInetStringSet(address, 0, text)) << text;
    uint32_t port = 0;
    char buffer[25];
    EXPECT_EQ(0u, OPL_SocketAddressInetStringGet(address, &port, buffer));
    EXPECT_STREQ(expected, buffer);
  }
}

TEST_F(SocketAddressInetString, TellsABadTextAfterItHasWrittenTheRecord) {
  for (const char* text : {"", "localhost", "256.0.0.1", "1.2.3.4.5", "-1", "1.2.3.4x"}) {
    const Address address;
    EXPECT_EQ(0x050913u, OPL_SocketAddressInetStringSet(address, kPort, text)) << text;
    ExpectError(0x050913, "OPL_SocketAddressInetStringSet: inet_addr error");
    EXPECT_EQ(std::string("\2\0\1\2\xFF\xFF\xFF\xFF", 8) + std::string(104, '\0'), address.Bytes());
  }
}

// The broadcast address stands for the same number as no address.
TEST_F(SocketAddressInetString, CannotSetTheBroadcastAddress) {
  const Address address;
  EXPECT_EQ(0x050913u, OPL_SocketAddressInetStringSet(address, 0, "255.255.255.255"));
  ExpectError(0x050913, "OPL_SocketAddressInetStringSet: inet_addr error");
}

TEST_F(SocketAddressInetString, IsRefusedByANullAddressOrText) {
  const Address address;
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetStringSet(nullptr, 0, "1.2.3.4"));
  ExpectError(0x05092C, "OPL_SocketAddressInetStringSet: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetStringSet(address, 0, nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressInetStringSet: Text is NULL");
  ExpectNotSet(address);
}

TEST_F(SocketAddressInetString, IsNotToldOfAnotherFamily) {
  const Address fresh;
  const LocalAddress local("q");
  for (const Address* address : {&fresh, static_cast<const Address*>(&local)}) {
    uint32_t port = kUntouched;
    char buffer[25] = "?";
    EXPECT_EQ(0x05091Au, OPL_SocketAddressInetStringGet(*address, &port, buffer));
    ExpectError(0x05091A, "OPL_SocketAddressInetStringGet: Address invalid type");
    EXPECT_EQ(kUntouched, port);
    EXPECT_STREQ("?", buffer);
  }
}

TEST_F(SocketAddressInetString, IsNotToldWithoutPlacesForIt) {
  const InetAddress address(1);
  uint32_t port = 0;
  char buffer[25];
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetStringGet(nullptr, &port, buffer));
  ExpectError(0x05092C, "OPL_SocketAddressInetStringGet: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetStringGet(address, nullptr, buffer));
  ExpectError(0x05092C, "OPL_SocketAddressInetStringGet: The place for the result is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetStringGet(address, &port, nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressInetStringGet: The place for the result is NULL");
}

TEST_F(SocketAddressInetString, IsToldByItsPortAloneWhenTheSystemHasNoTextForIt) {
  const InetAddress address(0x0102);
  const Fault fault("inet_ntoa", 1, ENOMEM);
  uint32_t port = 0;
  char buffer[25] = "?";
  EXPECT_EQ(0x050914u, OPL_SocketAddressInetStringGet(address, &port, buffer));
  ExpectError(0x050914, "OPL_SocketAddressInetStringGet: inet_ntoa error");
  EXPECT_EQ(0x0201u, port);
  EXPECT_STREQ("?", buffer);
}

TEST_F(SocketAddressInetString, IsToldToManyThreadsAtOnce) {
  opltest::RunAtOnce(4, [](int i) {
    const std::string text = "10.0.0." + std::to_string(i);
    const InetAddress address(1, text.c_str());
    for (int round = 0; round < 1000; ++round) {
      uint32_t port = 0;
      char buffer[25];
      ASSERT_EQ(0u, OPL_SocketAddressInetStringGet(address, &port, buffer));
      ASSERT_STREQ(text.c_str(), buffer);
    }
  });
}

TEST_F(SocketAddressInetULong, IsPackedAsItIsGiven) {
  const Address address;
  EXPECT_EQ(0u, OPL_SocketAddressInetULongSet(address, kPort, kAddress));
  EXPECT_EQ(kPacked, address.Bytes());
  uint32_t port = 0;
  uint32_t number = 0;
  EXPECT_EQ(0u, OPL_SocketAddressInetULongGet(address, &port, &number));
  EXPECT_EQ(0x0201u, port);
  EXPECT_EQ(kAddress, number);
}

TEST_F(SocketAddressInetULong, TakesTheBroadcastAddress) {
  const Address address;
  EXPECT_EQ(0u, OPL_SocketAddressInetULongSet(address, 0xFFFF, 0xFFFFFFFF));
  uint32_t port = 0;
  uint32_t number = 0;
  EXPECT_EQ(0u, OPL_SocketAddressInetULongGet(address, &port, &number));
  EXPECT_EQ(0xFFFFu, port);
  EXPECT_EQ(0xFFFFFFFFu, number);
  char buffer[25];
  EXPECT_EQ(0u, OPL_SocketAddressInetStringGet(address, &port, buffer));
  EXPECT_STREQ("255.255.255.255", buffer);
}

TEST_F(SocketAddressInetULong, IsNotToldOfAnotherFamily) {
  const Address fresh;
  const LocalAddress local("q");
  uint32_t port = kUntouched;
  uint32_t number = kUntouched;
  EXPECT_EQ(0x05091Au, OPL_SocketAddressInetULongGet(fresh, &port, &number));
  ExpectError(0x05091A, "OPL_SocketAddressInetULongGet: Address invalid type");
  EXPECT_EQ(0x05091Au, OPL_SocketAddressInetULongGet(local, &port, &number));
  EXPECT_EQ(kUntouched, port);
  EXPECT_EQ(kUntouched, number);
}

TEST_F(SocketAddressInetULong, RefusesNullArguments) {
  const InetAddress address(1);
  uint32_t number = 0;
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetULongSet(nullptr, 0, 0));
  ExpectError(0x05092C, "OPL_SocketAddressInetULongSet: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetULongGet(nullptr, &number, &number));
  ExpectError(0x05092C, "OPL_SocketAddressInetULongGet: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetULongGet(address, nullptr, &number));
  ExpectError(0x05092C, "OPL_SocketAddressInetULongGet: The place for the result is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetULongGet(address, &number, nullptr));
}

TEST_F(SocketAddressInetPort, IsSetAloneWhateverTheFamily) {
  const Address fresh;
  EXPECT_EQ(0u, OPL_SocketAddressInetSetPort(fresh, kPort));
  EXPECT_EQ(std::string("\0\0\1\2", 4) + std::string(108, '\0'), fresh.Bytes());

  const InetAddress inet(7, "1.2.3.4");
  EXPECT_EQ(0u, OPL_SocketAddressInetSetPort(inet, kPort));
  EXPECT_EQ(kPacked, inet.Bytes());
}

TEST_F(SocketAddressInetPort, IsToldOfAnIPv4AddressAlone) {
  const Address address;
  uint32_t port = kUntouched;
  EXPECT_EQ(0x05091Au, OPL_SocketAddressInetGetPort(address, &port));
  ExpectError(0x05091A, "OPL_SocketAddressInetGetPort: Address invalid family");
  EXPECT_EQ(kUntouched, port);
  EXPECT_EQ(0u, OPL_SocketAddressInetULongSet(address, 0xABCD, kAddress));
  EXPECT_EQ(0u, OPL_SocketAddressInetGetPort(address, &port));
  EXPECT_EQ(0xABCDu, port);
}

TEST_F(SocketAddressInetPort, RefusesNullArguments) {
  const InetAddress address(1);
  uint32_t port = 0;
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetSetPort(nullptr, 1));
  ExpectError(0x05092C, "OPL_SocketAddressInetSetPort: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetGetPort(nullptr, &port));
  ExpectError(0x05092C, "OPL_SocketAddressInetGetPort: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressInetGetPort(address, nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressInetGetPort: The place for the result is NULL");
}

TEST_F(SocketAddressPacked, HasOneHundredAndTwelveBytesWhateverTheAddress) {
  uint32_t size = 0;
  EXPECT_EQ(0u, OPL_SocketAddressPackedSizeGet(nullptr, &size));
  EXPECT_EQ(kSize, size);
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressPackedSizeGet(nullptr, nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressPackedSizeGet: The place for the result is NULL");
}

TEST_F(SocketAddressPacked, NeedsABufferOfItsWholeSize) {
  const InetAddress address(0x0102, "1.2.3.4");
  std::string buffer(kSize, '?');
  for (const uint32_t size : {0u, 1u, 111u}) {
    EXPECT_EQ(0x05091Eu, OPL_SocketAddressPackedBufferFill(address, buffer.data(), size));
    ExpectError(0x05091E, "OPL_SocketAddressPackedBufferFill: Buffer to small");
    EXPECT_EQ(0x05091Eu, OPL_SocketAddressPackedAddrFill(address, buffer.data(), size));
    ExpectError(0x05091E, "OPL_SocketAddressPackedAddrFill: Buffer to small");
  }
  EXPECT_EQ(std::string(kSize, '?'), buffer);
  EXPECT_EQ(kPacked, address.Bytes());
}

TEST_F(SocketAddressPacked, TouchesNoByteBehind) {
  const InetAddress address(0x0102, "1.2.3.4");
  for (const uint32_t size : {112u, 113u, 4096u, 0xFFFFFFFFu}) {
    std::string buffer(kSize + 1, '?');
    EXPECT_EQ(0u, OPL_SocketAddressPackedBufferFill(address, buffer.data(), size));
    EXPECT_EQ(kPacked + "?", buffer);
  }
}

// With 112 bytes exactly, so that a read beyond them is seen.
TEST_F(SocketAddressPacked, ReadsNoByteBehind) {
  const Address address;
  const std::unique_ptr<char[]> packed(new char[kSize]);
  std::memcpy(packed.get(), kPacked.data(), kSize);
  EXPECT_EQ(0u, OPL_SocketAddressPackedAddrFill(address, packed.get(), kSize));
  EXPECT_EQ(kPacked, address.Bytes());
  EXPECT_EQ(0u, OPL_SocketAddressPackedAddrFill(address, packed.get(), 4096));
}

TEST_F(SocketAddressPacked, CarriesBothFamiliesAndNone) {
  const Address fresh;
  const InetAddress inet(80, "10.20.30.40");
  const LocalAddress local("q");
  for (const Address* from :
       {&fresh, static_cast<const Address*>(&inet), static_cast<const Address*>(&local)}) {
    Address to;
    to.SetBytes(from->Bytes());
    EXPECT_EQ(from->Bytes(), to.Bytes());
  }
}

TEST_F(SocketAddressPacked, RefusesNullArguments) {
  const Address address;
  char buffer[kSize] = "";
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressPackedBufferFill(nullptr, buffer, kSize));
  ExpectError(0x05092C, "OPL_SocketAddressPackedBufferFill: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressPackedBufferFill(address, nullptr, kSize));
  ExpectError(0x05092C, "OPL_SocketAddressPackedBufferFill: Buffer is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressPackedAddrFill(nullptr, buffer, kSize));
  ExpectError(0x05092C, "OPL_SocketAddressPackedAddrFill: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressPackedAddrFill(address, nullptr, kSize));
  ExpectError(0x05092C, "OPL_SocketAddressPackedAddrFill: Buffer is NULL");
}

// Whatever another process sends is looked at within its bounds. Texts go to buffers of the promised sizes.
TEST_F(SocketAddressPacked, MayHoldAnyBytes) {
  std::mt19937 random(20040205);
  const InetAddress inet(1);
  const LocalAddress local("q");
  for (int round = 0; round < 2000; ++round) {
    std::string bytes(kSize, '\0');
    for (char& byte : bytes) byte = static_cast<char>(round % 2 == 0 ? random() : random() | 1);
    if (round % 3 != 0) bytes.replace(0, 2, round % 3 == 1 ? std::string("\1\0", 2) : std::string("\2\0", 2));
    Address address;
    address.SetBytes(bytes);
    EXPECT_EQ(bytes, address.Bytes());
    const std::unique_ptr<char[]> path(new char[OPL_SOCKET_PATH_SIZE]);
    EXPECT_EQ(0u, OPL_SocketAddressUnixGet(address, path.get()));
    EXPECT_EQ(0, std::memcmp(path.get(), bytes.data() + 2, std::strlen(path.get())));
    const std::unique_ptr<char[]> text(new char[OPL_SOCKET_INET_TEXT_SIZE]);
    uint32_t number = 0;
    (void)OPL_SocketAddressInetStringGet(address, &number, text.get());
    (void)OPL_SocketAddressInetULongGet(address, &number, &number);
    (void)OPL_SocketAddressInetGetPort(address, &number);
    uint32_t isEqual = 7;
    (void)OPL_SocketAddressCompare(address, inet, &isEqual);
    (void)OPL_SocketAddressCompare(local, address, &isEqual);
    Address same;
    EXPECT_EQ(0u, OPL_SocketAddressCopy(address, same));
    const bool isKnown = OPL_SocketAddressCompare(address, same, &isEqual) == 0;
    EXPECT_EQ(isKnown ? 1u : 0u, isEqual);
  }
}

TEST_F(SocketAddressCopy, TakesAllBytesOver) {
  Address from;
  std::string bytes;
  for (uint32_t i = 0; i < kSize; ++i) bytes += static_cast<char>(i + 100);
  from.SetBytes(bytes);
  const Address to;
  EXPECT_EQ(0u, OPL_SocketAddressCopy(from, to));
  EXPECT_EQ(bytes, to.Bytes());
  EXPECT_EQ(bytes, from.Bytes());
  EXPECT_EQ(0u, OPL_SocketAddressCopy(from, from));
  EXPECT_EQ(bytes, from.Bytes());
}

TEST_F(SocketAddressCopy, RefusesNullArguments) {
  const Address address;
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressCopy(nullptr, address));
  ExpectError(0x05092C, "OPL_SocketAddressCopy: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressCopy(address, nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressCopy: The place for the result is NULL");
}

TEST_F(SocketAddressUnix, IsPackedAsAPathInTheIpcDirectory) {
  const Address address;
  EXPECT_EQ(0u, OPL_SocketAddressUnixSet(address, "queue"));
  const std::string path = opltest::IpcDirectory() + "/queue.sck." + opltest::InstanceString() + ".006.021";
  EXPECT_EQ(path, address.Path());
  EXPECT_EQ(PackedLocal(path), address.Bytes());
}

TEST_F(SocketAddressUnix, ReplacesAllOfWhatTheAddressWas) {
  Address address;
  address.SetBytes(std::string(kSize, '\xFF'));
  EXPECT_EQ(0u, OPL_SocketAddressUnixSet(address, "q"));
  EXPECT_EQ(PackedLocal(SocketFile("q")), address.Bytes());
}

TEST_F(SocketAddressUnix, HasNinetyTwoCharactersAtMost) {
  const size_t longest = 92 - SocketFile("").size();
  Address address;
  EXPECT_EQ(0u, OPL_SocketAddressUnixSet(address, std::string(longest, 'n').c_str()));
  const std::string bytes = address.Bytes();
  EXPECT_EQ(PackedLocal(SocketFile(std::string(longest, 'n'))), bytes);
  EXPECT_EQ(92u, address.Path().size());

  for (const size_t length : {longest + 1, longest + 16, size_t{5000}, size_t{100000}}) {
    EXPECT_EQ(0x05092Bu, OPL_SocketAddressUnixSet(address, std::string(length, 'm').c_str()));
    ExpectError(0x05092B, "OPL_SocketAddressUnixSet: Name too long");
    EXPECT_EQ(bytes, address.Bytes());
  }
}

TEST_F(SocketAddressUnix, TakesAnEmptyName) {
  const LocalAddress address("");
  EXPECT_EQ(SocketFile(""), address.Path());
}

TEST_F(SocketAddressUnix, IsToldWhateverTheFamily) {
  const Address fresh;
  EXPECT_EQ("", fresh.Path());
  const InetAddress inet(0x3131, "49.49.49.49");  // the bytes of six ones
  EXPECT_EQ("111111", inet.Path());
}

TEST_F(SocketAddressUnix, IsCutWhereSomebodyElseHasPackedALongerOne) {
  Address address;
  address.SetBytes(PackedLocal(std::string(110, 'p')));
  EXPECT_EQ(std::string(92, 'p'), address.Path());
}

TEST_F(SocketAddressUnix, RefusesNullArguments) {
  const Address address;
  char buffer[OPL_SOCKET_PATH_SIZE] = "";
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressUnixSet(nullptr, "q"));
  ExpectError(0x05092C, "OPL_SocketAddressUnixSet: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressUnixSet(address, nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressUnixSet: Name is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressUnixGet(nullptr, buffer));
  ExpectError(0x05092C, "OPL_SocketAddressUnixGet: hAddress is NULL");
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressUnixGet(address, nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressUnixGet: The place for the result is NULL");
}

TEST_F(SocketAddressUnix, IsSupported) {
  for (const uint32_t ignored : {0u, 1u, 0xFFFFFFFFu}) {
    uint32_t isSupported = 7;
    EXPECT_EQ(0u, OPL_SocketAddressUnixIsSupported(ignored, &isSupported));
    EXPECT_EQ(1u, isSupported);
  }
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressUnixIsSupported(0, nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressUnixIsSupported: The place for the result is NULL");
}

uint32_t AreEqual(const Address& first, const Address& second) {
  uint32_t isEqual = 7;
  EXPECT_EQ(0u, OPL_SocketAddressCompare(first, second, &isEqual));
  return isEqual;
}

// One host, whatever its ports.
TEST_F(SocketAddressCompare, LooksAtNoPort) {
  EXPECT_EQ(1u, AreEqual(InetAddress(1, "1.2.3.4"), InetAddress(2, "1.2.3.4")));
}

TEST_F(SocketAddressCompare, TellsHostsApart) {
  EXPECT_EQ(0u, AreEqual(InetAddress(1, "1.2.3.4"), InetAddress(1, "1.2.3.5")));
  EXPECT_EQ(0u, AreEqual(InetAddress(1, "1.2.3.4"), InetAddress(1, "4.3.2.1")));
}

TEST_F(SocketAddressCompare, TellsPathsApart) {
  EXPECT_EQ(1u, AreEqual(LocalAddress("q"), LocalAddress("q")));
  EXPECT_EQ(0u, AreEqual(LocalAddress("q"), LocalAddress("Q")));
  EXPECT_EQ(0u, AreEqual(LocalAddress("q"), LocalAddress("qq")));
}

// What stands behind a path's end does not count.
TEST_F(SocketAddressCompare, LooksAtPathsUpToTheirEnds) {
  Address first;
  Address second;
  std::string bytes = PackedLocal("path");
  first.SetBytes(bytes);
  bytes[7] = 'x';
  bytes[111] = 'y';
  second.SetBytes(bytes);
  EXPECT_EQ(1u, AreEqual(first, second));
}

TEST_F(SocketAddressCompare, LooksAtPathsWithoutAnEndAsFarAsTheyGo) {
  Address first;
  Address second;
  std::string bytes = PackedLocal(std::string(110, 'p'));
  first.SetBytes(bytes);
  second.SetBytes(bytes);
  EXPECT_EQ(1u, AreEqual(first, second));
  bytes[109] = 'x';
  second.SetBytes(bytes);
  EXPECT_EQ(0u, AreEqual(first, second));
}

TEST_F(SocketAddressCompare, RefusesDifferentFamilies) {
  const Address fresh;
  const InetAddress inet(1);
  const LocalAddress local("q");
  for (const auto& [first, second] :
       {std::pair<const Address*, const Address*>(&inet, &local), {&local, &inet}, {&fresh, &inet}}) {
    uint32_t isEqual = 7;
    EXPECT_EQ(0x05091Au, OPL_SocketAddressCompare(*first, *second, &isEqual));
    ExpectError(0x05091A, "OPL_SocketAddressCompare: Not the same family");
    EXPECT_EQ(0u, isEqual);
  }
}

TEST_F(SocketAddressCompare, KnowsNoOtherFamily) {
  Address first;
  Address second;
  uint32_t isEqual = 7;
  EXPECT_EQ(0x05091Au, OPL_SocketAddressCompare(first, second, &isEqual));
  ExpectError(0x05091A, "OPL_SocketAddressCompare: Family unknown");
  EXPECT_EQ(0u, isEqual);
  const std::string bytes = std::string("\12\0", 2) + std::string(110, '\0');
  first.SetBytes(bytes);
  second.SetBytes(bytes);
  EXPECT_EQ(0x05091Au, OPL_SocketAddressCompare(first, second, &isEqual));
}

TEST_F(SocketAddressCompare, RefusesNullArgumentsAndClearsTheResult) {
  const InetAddress address(1);
  uint32_t isEqual = 7;
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressCompare(nullptr, address, &isEqual));
  ExpectError(0x05092C, "OPL_SocketAddressCompare: hAddress is NULL");
  EXPECT_EQ(0u, isEqual);
  isEqual = 7;
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressCompare(address, nullptr, &isEqual));
  EXPECT_EQ(0u, isEqual);
  EXPECT_EQ(0x05092Cu, OPL_SocketAddressCompare(address, address, nullptr));
  ExpectError(0x05092C, "OPL_SocketAddressCompare: The place for the result is NULL");
}

}  // namespace
