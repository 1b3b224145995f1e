#include "BusFixture.h"

namespace {

TEST(BusReply, Deferred_FromAnotherThread_ArrivesOnce) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  ASSERT_TRUE(receiver.Wait());
  EXPECT_EQ(completion.Count(), 0u);
  EXPECT_EQ(b->Reply(5, 9, "late", 4, receiver.At(0).pBaton), 0u);
  ASSERT_TRUE(completion.Wait());
  EXPECT_EQ(completion.At(0).uiStatus, 5u);
  EXPECT_EQ(completion.At(0).i64Type, 9);
  EXPECT_EQ(completion.At(0).strData, "late");
  EXPECT_EQ(b->Reply(6, 9, "again", 5, receiver.At(0).pBaton), kBusErrInvalid);
  a->Uninitialize();
  EXPECT_EQ(completion.Count(), 1u);
}

TEST(BusReply, ForgedBatons_AreInvalid) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  ASSERT_TRUE(receiver.Wait());
  const auto u64Baton = reinterpret_cast<uint64_t>(receiver.At(0).pBaton);
  for (const uint64_t u64Forged : {uint64_t{1}, u64Baton + 1, u64Baton - 1, u64Baton ^ (uint64_t{1} << 21),
                                   ~uint64_t{0}, uint64_t{1} << 20})
    EXPECT_EQ(b->Reply(0, 1, "f", 1, reinterpret_cast<void*>(u64Forged)), kBusErrInvalid) << u64Forged;
  int iLocal = 0;
  EXPECT_EQ(b->Reply(0, 1, "f", 1, &iLocal), kBusErrInvalid);
  EXPECT_EQ(b->Reply(0, 1, "f", 1, nullptr), kBusErrInvalid);
  EXPECT_EQ(completion.Count(), 0u);
  EXPECT_EQ(b->Reply(0, 1, "ok", 2, receiver.At(0).pBaton), 0u);
  ASSERT_TRUE(completion.Wait());
  EXPECT_EQ(completion.At(0).strData, "ok");
}

TEST(BusReply, BatonOfAnotherComponent_IsInvalid) {
  CReceiver ofB, ofC;
  CComponent a, b, c;
  b->Receive(1, &ofB);
  c->Receive(1, &ofC);
  CCompletion completion;
  ASSERT_EQ(a.Send(b, 1, "to b", &completion), 0u);
  ASSERT_EQ(a.Send(c, 1, "to c", &completion), 0u);
  ASSERT_TRUE(ofB.Wait());
  ASSERT_TRUE(ofC.Wait());
  EXPECT_EQ(c->Reply(0, 1, nullptr, 0, ofB.At(0).pBaton), kBusErrInvalid);
  EXPECT_EQ(a->Reply(0, 1, nullptr, 0, ofB.At(0).pBaton), kBusErrInvalid);
  EXPECT_EQ(b->Reply(0, 1, nullptr, 0, ofB.At(0).pBaton), 0u);
}

TEST(BusReply, BatonOfAnEarlierCall_IsInvalid_AfterItsSlotIsUsedAgain) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  ASSERT_EQ(a.Send(b, 1, "1", &completion), 0u);
  ASSERT_TRUE(receiver.Wait(1));
  ASSERT_EQ(b->Reply(0, 1, nullptr, 0, receiver.At(0).pBaton), 0u);
  ASSERT_EQ(a.Send(b, 1, "2", &completion), 0u);
  ASSERT_TRUE(receiver.Wait(2));
  EXPECT_EQ(b->Reply(0, 1, nullptr, 0, receiver.At(0).pBaton), kBusErrInvalid);
  EXPECT_EQ(b->Reply(0, 1, nullptr, 0, receiver.At(1).pBaton), 0u);
}

TEST(BusReply, ChecksItsData) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  ASSERT_TRUE(receiver.Wait());
  void* pBaton = receiver.At(0).pBaton;
  EXPECT_EQ(b->Reply(0, 1, nullptr, 4, pBaton), kBusErrInvalid);
  const std::string strLong(kBusMaxBytes + 1, 'x');
  EXPECT_EQ(b->Reply(0, 1, strLong.data(), kBusMaxBytes + 1, pBaton), kBusErrTooLong);
  EXPECT_EQ(b->Reply(0, 1, nullptr, 0, pBaton), 0u);
  ASSERT_TRUE(completion.Wait());
  EXPECT_EQ(completion.At(0).strData, "");
}

TEST(BusReply, TooManyUnreadReplies_AreBusy_AndTheBatonStays) {
  CGate gate;
  CCompletion completion([&](const _Completed& completed) {
    if (completed.strData == "gate")
      gate.Enter();
  });
  CReceiver receiver;
  ZxBusSettings settings;
  settings.uiMaxBytes = 10000;
  CComponent a(settings), b;
  b->Receive(1, &receiver);
  for (int i = 0; i < 4; ++i)
    ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  ASSERT_TRUE(receiver.Wait(4));
  ASSERT_EQ(b->Reply(0, 1, "gate", 4, receiver.At(0).pBaton), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  const std::string str(6000, 'r');
  EXPECT_EQ(b->Reply(0, 1, str.data(), 6000, receiver.At(1).pBaton), 0u);
  EXPECT_EQ(b->Reply(0, 1, str.data(), 6000, receiver.At(2).pBaton), kBusErrBusy);
  EXPECT_EQ(b->Reply(0, 1, nullptr, 0, receiver.At(3).pBaton), 0u);
  gate.Open();
  ASSERT_TRUE(completion.Wait(3));
  EXPECT_TRUE(EventuallyTrue([&] { return b->Reply(0, 1, str.data(), 6000, receiver.At(2).pBaton) == 0; }));
  ASSERT_TRUE(completion.Wait(4));
  EXPECT_EQ(completion.At(3).strData.size(), 6000u);
}

TEST(BusTimeout, CompletesTheSend_AndEndsTheBaton) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  ASSERT_EQ(a.Send(b, 1, "x", &completion, 20), 0u);
  ASSERT_TRUE(receiver.Wait());
  ASSERT_TRUE(completion.Wait());
  EXPECT_EQ(completion.At(0).uiStatus, kBusErrTimeout);
  EXPECT_EQ(completion.At(0).i64Type, 1);
  EXPECT_EQ(b->Reply(0, 1, "late", 4, receiver.At(0).pBaton), kBusErrInvalid);
  a->Uninitialize();
  EXPECT_EQ(completion.Count(), 1u);
}

TEST(BusTimeout, ShorterOnesFireFirst_WhateverTheOrderOfSending) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  unsigned long long ui64Long = 0, ui64Short = 0, ui64Middle = 0;
  ASSERT_EQ(a.Send(b, 1, "x", &completion, 300, &ui64Long), 0u);
  ASSERT_EQ(a.Send(b, 1, "x", &completion, 20, &ui64Short), 0u);
  ASSERT_EQ(a.Send(b, 1, "x", &completion, 100, &ui64Middle), 0u);
  ASSERT_TRUE(completion.Wait(3));
  EXPECT_EQ(completion.At(0).ui64ACT, ui64Short);
  EXPECT_EQ(completion.At(1).ui64ACT, ui64Middle);
  EXPECT_EQ(completion.At(2).ui64ACT, ui64Long);
}

TEST(BusTimeout, LateMessage_IsDeliveredWithoutBaton) {
  CGate gate;
  CReceiver receiver([&](const _Received& received) {
    if (received.strData == "gate")
      gate.Enter();
  });
  CComponent a, b;
  b->Receive(1, &receiver);
  ASSERT_EQ(a.Send(b, 1, "gate", nullptr), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  CCompletion completion;
  ASSERT_EQ(a.Send(b, 1, "late", &completion, 10), 0u);
  ASSERT_TRUE(completion.Wait());
  EXPECT_EQ(completion.At(0).uiStatus, kBusErrTimeout);
  gate.Open();
  ASSERT_TRUE(receiver.Wait(2));
  EXPECT_EQ(receiver.At(1).strData, "late");
  EXPECT_EQ(receiver.At(1).pBaton, nullptr);
}

TEST(BusTimeout, FreesTheTargetsBatons) {
  CReceiver receiver;
  ZxBusSettings settings;
  settings.uiMaxRecords = 1;
  CComponent a, b(settings);
  b->Receive(1, &receiver);
  CCompletion completion;
  for (uint32_t i = 1; i <= 3; ++i) {
    ASSERT_EQ(a.Send(b, 1, "never answered", &completion, 5), 0u);
    ASSERT_TRUE(completion.Wait(i));
    EXPECT_TRUE(receiver.Wait(i));
  }
}

TEST(BusTimeout, ManyDifferentOnes_AllFire) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  for (uint32_t i = 0; i < 200; ++i)
    ASSERT_EQ(a.Send(b, 1, "x", &completion, 1 + (i * 37) % 97), 0u);
  ASSERT_TRUE(completion.Wait(200));
  for (size_t i = 0; i < 200; ++i)
    EXPECT_EQ(completion.At(i).uiStatus, kBusErrTimeout);
}

}  // namespace
