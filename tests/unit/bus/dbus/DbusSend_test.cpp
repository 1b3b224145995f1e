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

TEST_F(DbusTest, EmptyAndLongestBodiesPassWhole) {
  Begin();
  CComponent own;
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  CCompletion done;
  ASSERT_EQ(SendWhenKnown(own, guidPeer, kEcho, "", &done), 0u);
  std::string strLongest(kBusMaxBytes, 'a');
  for (size_t i = 0; i < strLongest.size(); ++i)
    strLongest[i] = static_cast<char>(i * 2654435761u >> 24);
  ASSERT_EQ(SendWhenKnown(own, guidPeer, kEcho, strLongest, &done), 0u);
  ASSERT_TRUE(done.Wait(2));
  EXPECT_EQ(done.At(0).strData, "");
  EXPECT_EQ(done.At(0).uiStatus, 0u);
  EXPECT_TRUE(done.At(1).strData == strLongest);
  strLongest += 'x';
  EXPECT_EQ(SendWhenKnown(own, guidPeer, kEcho, strLongest, &done), uint32_t{kBusErrTooLong});
}

TEST_F(DbusTest, OrderHoldsInBothDirections) {
  constexpr uint32_t kCount = 3000;
  Begin();
  CComponent own;
  CReceiver receiver;
  ASSERT_EQ(own->Receive(9, &receiver), 0u);
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  CCompletion done;
  for (uint32_t i = 0; i < kCount; ++i)
    ASSERT_EQ(SendWhenKnown(own, guidPeer, kEcho, std::to_string(i), &done), 0u);
  ASSERT_TRUE(done.Wait(kCount));
  for (uint32_t i = 0; i < kCount; ++i)
    ASSERT_EQ(done.At(i).strData, std::to_string(i));
  uint32_t uiNext = 0;
  for (const std::string& strLine : peer->Lines()) {
    const size_t uText = strLine.find(" text ");
    if (strLine.rfind("recv 5", 0) == 0) {
      ASSERT_EQ(strLine.substr(uText + 6), std::to_string(uiNext++));
    }
  }
  EXPECT_EQ(uiNext, kCount);
}

TEST_F(DbusTest, SendsWithoutACallbackArriveAndLeaveNothingBehind) {
  Begin();
  CComponent own;
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  Converse(own, guidPeer);
  for (int i = 0; i < 500; ++i)
    ASSERT_EQ(own->AsynSendEx(&guidPeer, kNoted, "quiet", 5, nullptr, nullptr, nullptr, 0), 0u);
  Converse(own, guidPeer);
  const std::string strExpected = "recv 3 from " + TextOf(own.Guid()) + " bytes 5 baton 0";
  EXPECT_TRUE(EventuallyTrue([&] { return peer->Count(strExpected) == 500; }));
  EXPECT_TRUE(EventuallyTrue([&] { return Figure(own.Guid(), "under_way") == 0; }));
}

// So much that the component is paced: what the socket of a stopped daemon holds, and its whole budget.
TEST_F(DbusTest, AFloodArrivesWholeAndInOrder) {
  m_uiMaxSendBytes = 4u << 20;
  Begin();
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  CComponent own;
  Converse(own, guidPeer);
  std::string strText(1000, '.');
  uint32_t uSent = 0;
  m_daemon.Stop();
  for (uint32_t uiResult = 0; uiResult == 0; uSent += uiResult == 0 ? 1 : 0) {
    strText.replace(0, 6, std::to_string(100000 + uSent));
    uiResult = own->AsynSendEx(&guidPeer, kNoted, strText.data(), 1000, nullptr, nullptr, nullptr, 0);
  }
  m_daemon.Continue();
  EXPECT_GT(uSent, 3000u);
  EXPECT_TRUE(EventuallyTrue([&] { return peer->Count("recv 3") == uSent; }, 30000));
  uint32_t uNext = 0;
  for (const std::string& strLine : peer->Lines()) {
    if (strLine.rfind("recv 3", 0) == 0) {
      ASSERT_EQ(strLine.substr(strLine.find(" text ") + 6, 6), std::to_string(100000 + uNext++));
    }
  }
  EXPECT_EQ(uNext, uSent);
  Converse(own, guidPeer);
}

TEST_F(DbusTest, WhatWasSentBeforeLeavingArrives) {
  Begin();
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  {
    CComponent own;
    Converse(own, guidPeer);
    for (int i = 0; i < 1000; ++i)
      ASSERT_EQ(own->AsynSendEx(&guidPeer, kNoted, "last", 4, nullptr, nullptr, nullptr, 0), 0u);
  }
  EXPECT_TRUE(EventuallyTrue([&] { return peer->Count("recv 3") == 1000; }));
}

TEST_F(DbusTest, UnknownTargetAndUnknownTypeAreToldApart) {
  Begin();
  CComponent own;
  const GUID guidPeer = NewGuid(), guidNobody = NewGuid();
  const auto peer = MakePeer(guidPeer);
  Converse(own, guidPeer);
  CCompletion done;
  EXPECT_EQ(own->AsynSendEx(&guidNobody, 1, "", 0, &done, nullptr, nullptr, 1000), uint32_t{kBusErrNoTarget});
  EXPECT_EQ(own->AsynSendEx(&guidPeer, 77, "", 0, &done, nullptr, nullptr, 60000), 0u);
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(done.At(0).uiStatus, uint32_t{kBusErrNoReceiver});
  EXPECT_EQ(done.At(0).i64Type, 77);
}

TEST_F(DbusTest, UnreceiveEndsCallsAndBroadcastsOfItsType) {
  Begin();
  CComponent own;
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  Converse(own, guidPeer);
  peer->Tell("unreceive 3");
  ASSERT_TRUE(peer->WaitFor("unreceived 3"));
  ASSERT_EQ(own->BroadcastSend(kNoted, "news", 4), 0u);
  CCompletion done;
  ASSERT_EQ(own->AsynSendEx(&guidPeer, kNoted, "", 0, &done, nullptr, nullptr, 60000), 0u);
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(done.At(0).uiStatus, uint32_t{kBusErrNoReceiver});
  EXPECT_EQ(peer->Count("recv 3"), 0u);
}

TEST_F(DbusTest, ALateReplyIsGoodUntilTheTimeOut) {
  Begin();
  CComponent own;
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  CCompletion done;
  ASSERT_EQ(SendWhenKnown(own, guidPeer, kSilent, "", &done), 0u);
  ASSERT_TRUE(peer->WaitFor("recv 2"));
  peer->Tell("late");
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(done.At(0).uiStatus, 9u);
  EXPECT_EQ(done.At(0).strData, "late");
  EXPECT_TRUE(peer->WaitFor("late 0"));
}

TEST_F(DbusTest, LeavingAbortsSendsAndFreesTheOtherSidesBatons) {
  Begin();
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  CCompletion done;
  {
    CComponent own;
    ASSERT_EQ(SendWhenKnown(own, guidPeer, kSilent, "", &done), 0u);
    ASSERT_TRUE(peer->WaitFor("recv 2"));
  }
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(done.At(0).uiStatus, uint32_t{kBusErrAborted});
  EXPECT_TRUE(EventuallyTrue([&] {
    peer->Tell("stats");
    return peer->WaitLine(
        [&](const std::string& str) {
          return str.rfind("stats 0", 0) == 0 && FigureIn(str, guidPeer, "unanswered") == 0;
        },
        100);
  }));
  peer->Tell("late");
  char szLine[32];
  std::snprintf(szLine, sizeof(szLine), "late %x", unsigned{kBusErrInvalid});
  EXPECT_TRUE(peer->WaitFor(szLine));
}

TEST_F(DbusTest, ComponentsFromBeforeTheConnectionAreOnItToo) {
  CComponent own;
  CReceiver receiver(AnswerReversed);
  ASSERT_EQ(own->Receive(9, &receiver), 0u);
  Begin();
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  Converse(own, guidPeer);
  peer->Tell("send " + TextOf(own.Guid()) + " 9 10 60000 1");
  EXPECT_TRUE(peer->WaitFor("done 7 type 10 bytes 10"));
}

TEST_F(DbusTest, ConnectAndDisconnectManyTimes) {
  ASSERT_TRUE(m_daemon.Start());
  CComponent own;
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  CCompletion done;
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(Connect(m_daemon.Address()), 0u);
    EXPECT_EQ(Connect(m_daemon.Address()), uint32_t{kBusErrInvalid});
    Converse(own, guidPeer);
    ZxBusDisconnect();
    EXPECT_EQ(own->AsynSendEx(&guidPeer, 1, "", 0, &done, nullptr, nullptr, 1000), uint32_t{kBusErrNoTarget});
  }
}

}  // namespace
