// Every operation between processes, over a real daemon.
#include "DbusFixture.h"

namespace {

TEST_F(DbusTest, AReplyComesBackFromAnotherProcess) {
  Begin();
  CComponent own;
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  CCompletion done;
  ASSERT_EQ(SendWhenKnown(own, guidPeer, kReversed, "abc", &done), 0u);
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(done.At(0).uiStatus, 7u);
  EXPECT_EQ(done.At(0).i64Type, 2);
  EXPECT_EQ(done.At(0).strData, "cba");
  EXPECT_TRUE(peer->WaitFor("recv 1 from " + TextOf(own.Guid()) + " bytes 3 baton 1 text abc"));
}

TEST_F(DbusTest, AnotherProcessSendsHere) {
  Begin();
  CComponent own;
  CReceiver receiver(AnswerReversed);
  ASSERT_EQ(own->Receive(9, &receiver), 0u);
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  peer->Tell("send " + TextOf(own.Guid()) + " 9 1000 60000 1");
  ASSERT_TRUE(receiver.Wait());
  EXPECT_EQ(TextOf(receiver.At(0).guidFrom), TextOf(guidPeer));
  EXPECT_EQ(receiver.At(0).strData, std::string(1000, 'x'));
  EXPECT_TRUE(peer->WaitFor("done 7 type 10 bytes 1000"));
}

TEST_F(DbusTest, ABroadcastReachesEveryProcessOnce) {
  Begin();
  CComponent own, other;
  CReceiver here;
  ASSERT_EQ(other->Receive(kNoted, &here), 0u);
  const auto first = MakePeer(NewGuid());
  const auto second = MakePeer(NewGuid());
  ASSERT_EQ(own->BroadcastSend(kNoted, "news", 4), 0u);
  const std::string strLine = "recv 3 from " + TextOf(own.Guid()) + " bytes 4 baton 0 text news";
  EXPECT_TRUE(first->WaitFor(strLine));
  EXPECT_TRUE(second->WaitFor(strLine));
  ASSERT_TRUE(here.Wait());
  // A second one, so that a copy of the first would have arrived before it.
  ASSERT_EQ(own->BroadcastSend(kNoted, "more", 4), 0u);
  ASSERT_TRUE(here.Wait(2));
  EXPECT_EQ(here.At(1).strData, "more");
  EXPECT_EQ(here.Count(), 2u);
}

}  // namespace
