// What goes wrong between processes: receivers that stop, never answer or die, and daemons that do.
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>

#include "DbusFixture.h"
#include "RawClient.h"

namespace {

size_t ResidentBytes() {
  std::ifstream file("/proc/self/statm");
  size_t uTotal = 0, uResident = 0;
  file >> uTotal >> uResident;
  return uResident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

class DbusFailureTest : public DbusTest {
 protected:
  static size_t CountOf(CCompletion& done, uint32_t uiStatus) {
    size_t uCount = 0;
    for (size_t i = 0, uAll = done.Count(); i < uAll; ++i)
      uCount += done.At(i).uiStatus == uiStatus ? 1 : 0;
    return uCount;
  }
  void IsReadWhileBusy(uint32_t uiDispatchers);
};

TEST_F(DbusFailureTest, AReceiverThatNeverAnswersCostsItsOwnCallsOnly) {
  constexpr uint32_t kCalls = 10000;
  Begin();
  CComponent own;
  const GUID guidSick = NewGuid(), guidHealthy = NewGuid();
  const auto sick = MakePeer(guidSick);
  const auto healthy = MakePeer(guidHealthy);
  Converse(own, guidSick);
  CCompletion done;
  uint32_t uiAccepted = 0;
  for (uint32_t i = 0; i < kCalls; ++i) {
    if (own->AsynSendEx(&guidSick, kSilent, "x", 1, &done, nullptr, nullptr, 300) == 0)
      ++uiAccepted;
    if (i % 1000 == 0)
      Converse(own, guidHealthy);
  }
  EXPECT_EQ(uiAccepted, kCalls);
  ASSERT_TRUE(done.Wait(uiAccepted, 30000));
  EXPECT_EQ(CountOf(done, kBusErrTimeout), uiAccepted);
  Converse(own, guidHealthy);
  Converse(own, guidSick);
  EXPECT_EQ(done.Count(), uiAccepted);
  // Nothing is held for them any more, here or there.
  EXPECT_EQ(Figure(own.Guid(), "under_way"), 0);
  EXPECT_TRUE(EventuallyTrue([&] {
    sick->Tell("stats");
    return sick->WaitLine([&](const std::string& str) { return FigureIn(str, guidSick, "unanswered") == 0; },
                          200);
  }));
}

TEST_F(DbusFailureTest, AForeignReceiverThatNeverAnswersDoesNotUseUpTheDaemon) {
  constexpr uint32_t kCalls = 6000;  // more than the daemon's slots for replies
  Begin();
  CComponent own;
  const GUID guidSick = NewGuid(), guidHealthy = NewGuid();
  const auto healthy = MakePeer(guidHealthy);
  CCompletion done;
  {
    CRawClient sick(m_daemon.Address());
    ASSERT_TRUE(sick.Own(guidSick));
    ASSERT_EQ(SendWhenKnown(own, guidSick, 1, "x", &done, 300), 0u);
    for (uint32_t i = 1; i < kCalls; ++i)
      ASSERT_EQ(own->AsynSendEx(&guidSick, 1, "x", 1, &done, nullptr, nullptr, 300), 0u);
    Converse(own, guidHealthy);
    ASSERT_TRUE(done.Wait(kCalls, 30000));
    EXPECT_EQ(CountOf(done, kBusErrTimeout), kCalls);
    Converse(own, guidHealthy);
    EXPECT_TRUE(EventuallyTrue([&] { return Figure(own.Guid(), "send_bytes") == 0; })) << Stats();
  }
  // Its end frees the calls that the daemon still held: the next one under this GUID is served.
  const auto next = MakePeer(guidSick);
  Converse(own, guidSick);
}

TEST_F(DbusFailureTest, AStoppedReceiverDoesNotStopTheOthers) {
  Begin();
  CComponent own;
  const GUID guidStopped = NewGuid(), guidHealthy = NewGuid();
  const auto stopped = MakePeer(guidStopped);
  const auto healthy = MakePeer(guidHealthy);
  Converse(own, guidStopped);
  Converse(own, guidHealthy);
  stopped->Stop();
  const std::string strData(64 << 10, 's');
  CCompletion done;
  uint32_t uiAccepted = 0;
  for (int i = 0; i < 400; ++i) {
    const uint32_t uiResult =
        own->AsynSendEx(&guidStopped, kEcho, strData.data(), static_cast<uint32_t>(strData.size()), &done,
                        nullptr, nullptr, 1000);
    EXPECT_TRUE(uiResult == 0 || uiResult == kBusErrBusy) << std::hex << uiResult;
    uiAccepted += uiResult == 0 ? 1 : 0;
    own->BroadcastSend(kNoted, strData.data(), 1024);
    if (i % 20 == 0 && uiResult == 0)
      Converse(own, guidHealthy);
  }
  EXPECT_GT(uiAccepted, 100u);
  ASSERT_TRUE(done.Wait(uiAccepted, 30000));
  EXPECT_EQ(CountOf(done, kBusErrTimeout) + CountOf(done, kBusErrBusy), uiAccepted);
  Converse(own, guidHealthy);
  EXPECT_TRUE(EventuallyTrue([&] { return healthy->Count("recv 3") == 400; }));
  stopped->Signal(SIGCONT);
  Converse(own, guidStopped);
}

// The dispatchers are in callbacks; replies, withdrawals and newcomers reach the component nevertheless.
void DbusFailureTest::IsReadWhileBusy(uint32_t uiDispatchers) {
  constexpr uint32_t kCalls = 600;  // more than may be with the daemon at a time: replies make room
  constexpr uint32_t kWaitMs = 30000;
  ZxBusSettings settings;
  settings.uiDispatchers = uiDispatchers;
  CComponent own(settings);
  CEventWaiter entered, open;
  CCompletion done, doneNew;
  CReceiver receiver([&](const _Received&) {
    entered.Set();
    open.Wait(1, 2 * kWaitMs);
  });
  const std::shared_ptr<void> atEnd(nullptr, [&](void*) { open.Set(); });  // before anybody waits for it
  ASSERT_EQ(own->Receive(9, &receiver), 0u);
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  Converse(own, guidPeer);
  peer->Tell("send " + TextOf(own.Guid()) + " 9 3 1000 " + std::to_string(uiDispatchers));
  ASSERT_TRUE(entered.Wait(uiDispatchers, kWaitMs));
  char szLine[16];
  std::snprintf(szLine, sizeof(szLine), "done %x", unsigned{kBusErrTimeout});
  for (uint32_t i = 0; i < uiDispatchers; ++i)
    EXPECT_TRUE(peer->WaitFor(szLine, kWaitMs));
  EXPECT_TRUE(EventuallyTrue([&] { return Figure(own.Guid(), "unanswered") == 0; }, kWaitMs)) << Stats();

  for (uint32_t i = 0; i < kCalls; ++i)
    ASSERT_EQ(own->AsynSendEx(&guidPeer, kEmpty, "x", 1, &done, nullptr, nullptr, 60000), 0u);
  EXPECT_TRUE(EventuallyTrue([&] { return peer->Count("recv 4") == kCalls; }, kWaitMs)) << Stats();
  const GUID guidNew = NewGuid();
  const auto newcomer = MakePeer(guidNew);
  EXPECT_EQ(SendWhenKnown(own, guidNew, kEmpty, "x", &doneNew), 0u);
  EXPECT_EQ(done.Count(), 0u);
  open.Set();
  EXPECT_TRUE(done.Wait(kCalls, kWaitMs));
  EXPECT_TRUE(doneNew.Wait(1, kWaitMs));
  EXPECT_EQ(CountOf(done, 0), kCalls);
  Converse(own, guidPeer);
}

TEST_F(DbusFailureTest, AConnectionIsReadWhileItsOnlyDispatcherIsBusy) {
  Begin();
  IsReadWhileBusy(1);
}

TEST_F(DbusFailureTest, AConnectionIsReadWhileAllItsDispatchersAreBusy) {
  Begin();
  IsReadWhileBusy(2);
}

TEST_F(DbusFailureTest, AStoppedDaemonBoundsTheSendersMemoryAndTellsIt) {
  Begin();
  CComponent own;
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  Converse(own, guidPeer);
  const size_t uBefore = ResidentBytes();
  m_daemon.Stop();
  const std::string strData(64 << 10, 'd');
  CCompletion done;
  uint32_t uiAccepted = 0, uiBusy = 0;
  for (int i = 0; i < 4000; ++i) {  // 256 MB
    const uint32_t uiResult =
        own->AsynSendEx(&guidPeer, kEcho, strData.data(), static_cast<uint32_t>(strData.size()), &done,
                        nullptr, nullptr, 2000);
    uiAccepted += uiResult == 0 ? 1 : 0;
    uiBusy += uiResult == kBusErrBusy ? 1 : 0;
  }
  const size_t uGrown = ResidentBytes() - std::min(uBefore, ResidentBytes());
  EXPECT_EQ(uiAccepted + uiBusy, 4000u);
  EXPECT_GT(uiBusy, 0u);
  EXPECT_LE(Figure(own.Guid(), "send_bytes"), 16 << 20);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(uGrown, size_t{64} << 20);
#endif
  std::cout << "stopped daemon: accepted " << uiAccepted << ", grown by " << (uGrown >> 20) << " MiB\n";
  ASSERT_TRUE(done.Wait(uiAccepted, 30000));
  EXPECT_EQ(CountOf(done, kBusErrTimeout), uiAccepted);
  m_daemon.Continue();
  Converse(own, guidPeer);
  EXPECT_EQ(done.Count(), uiAccepted);
  EXPECT_TRUE(EventuallyTrue([&] { return Figure(own.Guid(), "send_bytes") == 0; })) << Stats();
}

TEST_F(DbusFailureTest, AKilledDaemonCompletesEverythingOnceAndTheServiceComesBack) {
  constexpr uint32_t kCalls = 200;
  Begin();
  CComponent own;
  CReceiver receiver(AnswerReversed);
  ASSERT_EQ(own->Receive(9, &receiver), 0u);
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  Converse(own, guidPeer);
  CCompletion done;
  for (uint32_t uiRound = 1; uiRound <= 3; ++uiRound) {
    for (uint32_t i = 0; i < kCalls; ++i)
      ASSERT_EQ(own->AsynSendEx(&guidPeer, kSilent, "x", 1, &done, nullptr, nullptr, 60000), 0u);
    m_daemon.Kill();
    ASSERT_TRUE(done.Wait(kCalls * uiRound));
    EXPECT_EQ(CountOf(done, kBusErrGone), kCalls * uiRound);
    ASSERT_TRUE(m_states.Wait(kBusStateLost, uiRound));
    EXPECT_EQ(own->AsynSendEx(&guidPeer, 1, "x", 1, &done, nullptr, nullptr, 60000), uint32_t{kBusErrGone});
    const auto began = std::chrono::steady_clock::now();
    ASSERT_TRUE(m_daemon.Start());
    Converse(own, guidPeer);
    const std::chrono::duration<double, std::milli> back = std::chrono::steady_clock::now() - began;
    std::cout << "killed daemon: service back " << back.count() << " ms after its start began\n";
    peer->Tell("send " + TextOf(own.Guid()) + " 9 3 60000 1");
    ASSERT_TRUE(receiver.Wait(uiRound));
    ASSERT_EQ(own->BroadcastSend(kNoted, "again", 5), 0u);
    EXPECT_TRUE(
        EventuallyTrue([&] { return peer->Count("recv 3") == uiRound && peer->Count("done 7") == uiRound; }));
    EXPECT_EQ(done.Count(), kCalls * uiRound);
    // Each connection comes back in its own time; only then the next loss is one for all of them.
    ASSERT_TRUE(m_states.Wait(kBusStateConnected, uiRound + 1));
  }
}

TEST_F(DbusFailureTest, ADaemonThatComesLaterIsFound) {
  EXPECT_EQ(Connect(m_daemon.Address(), 50), uint32_t{kBusErrGone});
  CComponent own;  // in memory at once
  CComponent other;
  CReceiver receiver(AnswerReversed);
  ASSERT_EQ(other->Receive(9, &receiver), 0u);
  CCompletion done;
  ASSERT_EQ(own.Send(other, 9, "ab", &done), 0u);
  ASSERT_TRUE(done.Wait());
  ASSERT_TRUE(m_daemon.Start());
  EXPECT_TRUE(m_states.Wait(kBusStateConnected));
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  Converse(own, guidPeer);
}

TEST_F(DbusFailureTest, AReceiverThatDiesEndsItsCalls) {
  Begin();
  CComponent own;
  const GUID guidPeer = NewGuid();
  auto peer = MakePeer(guidPeer);
  Converse(own, guidPeer);
  CCompletion done;
  for (int i = 0; i < 600; ++i)  // more than are given to the daemon at a time
    ASSERT_EQ(own->AsynSendEx(&guidPeer, kSilent, "x", 1, &done, nullptr, nullptr, 60000), 0u);
  ASSERT_TRUE(peer->WaitFor("recv 2"));
  peer.reset();
  ASSERT_TRUE(done.Wait(600));
  EXPECT_EQ(CountOf(done, kBusErrGone) + CountOf(done, kBusErrNoTarget), 600u);
  EXPECT_GE(CountOf(done, kBusErrGone), 1u);
}

TEST_F(DbusFailureTest, ASenderThatDiesLeavesNoBatons) {
  Begin();
  CComponent own;
  CReceiver keeps;
  ASSERT_EQ(own->Receive(9, &keeps), 0u);
  auto peer = MakePeer(NewGuid());
  peer->Tell("send " + TextOf(own.Guid()) + " 9 3 60000 100");
  ASSERT_TRUE(keeps.Wait(100));
  EXPECT_EQ(Figure(own.Guid(), "unanswered"), 100);
  peer.reset();
  EXPECT_TRUE(EventuallyTrue([&] { return Figure(own.Guid(), "unanswered") == 0; }));
  EXPECT_EQ(own->Reply(0, 9, "", 0, keeps.At(0).pBaton), uint32_t{kBusErrInvalid});
}

TEST_F(DbusFailureTest, AFullReceiverIsBusyToOtherProcessesToo) {
  ZxBusSettings settings;
  settings.uiMaxRecords = 10;
  Begin();
  CComponent own(settings);
  CReceiver keeps;
  ASSERT_EQ(own->Receive(9, &keeps), 0u);
  const auto peer = MakePeer(NewGuid());
  peer->Tell("send " + TextOf(own.Guid()) + " 9 3 60000 11");
  char szLine[32];
  std::snprintf(szLine, sizeof(szLine), "done %x", unsigned{kBusErrBusy});
  EXPECT_TRUE(peer->WaitFor(szLine));
  EXPECT_TRUE(keeps.Wait(10));
}

TEST_F(DbusFailureTest, AFloodOfOneLeavesRoomForTheOthers) {
  Begin();
  CComponent own;
  CReceiver receiver([](const _Received& received) {
    received.pContext->Reply(0, 9, "", 0, received.pBaton);  // the case may have ended meanwhile
  });
  ASSERT_EQ(own->Receive(9, &receiver), 0u);
  const GUID guidFlood = NewGuid(), guidOther = NewGuid();
  const auto flood = MakePeer(guidFlood);
  const auto other = MakePeer(guidOther);
  flood->Tell("send " + TextOf(own.Guid()) + " 9 1000 60000 8000");
  CReceiver news;
  ASSERT_EQ(own->Receive(11, &news), 0u);
  flood->Tell("broadcast 11 1000 8000");
  for (int i = 0; i < 50; ++i)
    Converse(own, guidOther);
  EXPECT_TRUE(flood->WaitFor("broadcast 0", 30000));
  EXPECT_TRUE(flood->WaitFor("sent "));
}

}  // namespace
