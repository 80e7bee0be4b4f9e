// Named events that processes of either width share.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/opl_sync/NamedEvents.h"
#include "tests/opl_sync/SyncActor.h"

namespace {

using opltest::CloseEvent;
using opltest::CountBytes;
using opltest::CountFileOf;
using opltest::EventFiles;
using opltest::IsSet;
using opltest::NewEvent;
using opltest::OpenEvent;
using opltest::SyncActor;

class SyncEventMixed : public opltest::WithPeer {
 protected:
  void SetUp() override {
    WithPeer::SetUp();
    EXPECT_EQ(0u, peer_.Do("begin"));
  }

  void EndPeer() {
    EXPECT_EQ(0u, peer_.Do("end"));
    peer_.Quit();
  }

  SyncActor peer_{GetParam()};
};
OPLTEST_WITH_EITHER_PEER(SyncEventMixed);

TEST_P(SyncEventMixed, IsFoundByThePeerUnderItsName) {
  OPL_SyncEvent* const event = NewEvent("q");
  EXPECT_EQ(0x05000Au, peer_.Do("event-create q 2"));
  EXPECT_EQ(0u, peer_.Do("event-open q 2"));
  EXPECT_EQ(CountBytes(2), opltest::ContentsOf(CountFileOf("q")));
  EXPECT_EQ(0u, peer_.Do("event-close q"));
  EXPECT_EQ(CountBytes(1), opltest::ContentsOf(CountFileOf("q")));
  CloseEvent(event);
  EndPeer();
}

TEST_P(SyncEventMixed, IsFoundWhereThePeerMadeIt) {
  EXPECT_EQ(0u, peer_.Do("event-create q 4"));
  OPL_SyncEvent* event = nullptr;
  EXPECT_EQ(0x05000Au, OPL_SyncEventCreate(&event, 0, "q", OPL_SYNC_EVENT_ALL));
  event = OpenEvent("q", OPL_SYNC_EVENT_ALL);
  EXPECT_EQ(0u, peer_.Do("event-close q"));
  EXPECT_EQ(2u, EventFiles().size());
  CloseEvent(event);
  EXPECT_TRUE(EventFiles().empty());
  EndPeer();
}

TEST_P(SyncEventMixed, IsSetAndResetByEither) {
  OPL_SyncEvent* const event = NewEvent("q");
  EXPECT_EQ(0u, peer_.Do("event-open q 2"));
  EXPECT_EQ(0u, OPL_SyncEventPost(event));
  EXPECT_EQ(1u, peer_.Do("event-is-set q"));
  EXPECT_EQ(0u, peer_.Do("event-reset q"));
  EXPECT_FALSE(IsSet(event));
  EXPECT_EQ(0u, peer_.Do("event-post q"));
  EXPECT_TRUE(IsSet(event));
  EXPECT_EQ(0u, OPL_SyncEventReset(event));
  EXPECT_EQ(0u, peer_.Do("event-is-set q"));
  EXPECT_EQ(0u, peer_.Do("event-close q"));
  CloseEvent(event);
  EndPeer();
}

TEST_P(SyncEventMixed, WakesThePeer) {
  OPL_SyncEvent* const event = NewEvent("q");
  EXPECT_EQ(0u, peer_.Do("event-open q 2"));
  peer_.Start("event-await q");
  EXPECT_EQ(0u, OPL_SyncEventPost(event));
  EXPECT_EQ(0u, peer_.Finish());
  EXPECT_EQ(0u, peer_.Do("event-close q"));
  CloseEvent(event);
  EndPeer();
}

TEST_P(SyncEventMixed, IsWokenByThePeer) {
  EXPECT_EQ(0u, peer_.Do("event-create q 2"));
  OPL_SyncEvent* const event = OpenEvent("q");
  peer_.Start("event-post q");
  EXPECT_EQ(0u, opltest::AwaitEvent(event));
  EXPECT_EQ(0u, peer_.Finish());
  CloseEvent(event);
  EXPECT_EQ(0u, peer_.Do("event-close q"));
  EndPeer();
}

TEST_P(SyncEventMixed, IsGivenBackAtThePeersEnd) {
  OPL_SyncEvent* const event = NewEvent("q");
  EXPECT_EQ(0u, peer_.Do("event-open q 2"));
  EXPECT_EQ(0u, peer_.Do("event-create own 2"));
  peer_.Exit();
  EXPECT_EQ(CountBytes(1), opltest::ContentsOf(CountFileOf("q")));
  EXPECT_EQ(2u, EventFiles().size());
  CloseEvent(event);
}

TEST_P(SyncEventMixed, IsRemovedByThePeersTermination) {
  OPL_SyncEvent* event = NewEvent("q");
  EXPECT_EQ(0u, peer_.Do("terminate q.event*"));
  EXPECT_TRUE(EventFiles().empty());
  EXPECT_EQ(0x05001Eu, OPL_SyncEventClose(&event));
  EndPeer();
}

}  // namespace
