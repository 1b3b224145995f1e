#include <gmock/gmock.h>

#include "BusFixture.h"

namespace {

TEST(BusSend, Message_ArrivesWithSenderTypeDataAndContext) {
  CReceiver receiver(&AnswerReversed);
  CComponent a, b;
  ASSERT_EQ(b->Receive(20001, &receiver), 0u);
  CCompletion completion;
  unsigned long long ui64ACT = 0;
  int iMark = 0;
  ASSERT_EQ(a->AsynSendEx(&b.Guid(), 20001, "hel\0lo", 6, &completion, &iMark, &ui64ACT, 60000), 0u);
  ASSERT_TRUE(completion.Wait());

  const _Received received = receiver.At(0);
  EXPECT_EQ(received.guidFrom, a.Guid());
  EXPECT_EQ(received.i64Type, 20001);
  EXPECT_EQ(received.strData, std::string("hel\0lo", 6));
  EXPECT_EQ(received.pContext, b.Get());
  EXPECT_NE(received.pBaton, nullptr);
  const _Completed completed = completion.At(0);
  EXPECT_EQ(completed.uiStatus, 7u);
  EXPECT_EQ(completed.i64Type, 20002);
  EXPECT_EQ(completed.strData, std::string("ol\0leh", 6));
  EXPECT_EQ(completed.ui64ACT, ui64ACT);
  EXPECT_NE(ui64ACT, 0u);
  EXPECT_EQ(completed.pContext, &iMark);
}

TEST(BusSend, Callbacks_RunOnTheComponentsOwnThread) {
  CReceiver receiver(&AnswerReversed);
  CComponent a, b;
  b->Receive(1, &receiver);
  a->Receive(2, &receiver);
  CCompletion ofA, ofB;
  ASSERT_EQ(a.Send(b, 1, "x", &ofA), 0u);
  ASSERT_TRUE(ofA.Wait());
  ASSERT_EQ(b.Send(a, 2, "x", &ofB), 0u);
  ASSERT_TRUE(ofB.Wait());
  const auto threadB = receiver.At(0).thread;
  const auto threadA = receiver.At(1).thread;
  EXPECT_EQ(ofA.At(0).thread, threadA);
  EXPECT_EQ(ofB.At(0).thread, threadB);
  EXPECT_NE(threadA, threadB);
  EXPECT_NE(threadA, std::this_thread::get_id());
}

TEST(BusSend, Messages_ArriveInOrder) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  for (int i = 0; i < 500; ++i)
    ASSERT_EQ(a.Send(b, 1, std::to_string(i), nullptr), 0u);
  ASSERT_TRUE(receiver.Wait(500));
  for (int i = 0; i < 500; ++i)
    EXPECT_EQ(receiver.At(static_cast<size_t>(i)).strData, std::to_string(i));
}

TEST(BusSend, WithoutCallback_TheReceiverGetsNoBaton) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  unsigned long long ui64ACT = 0;
  ASSERT_EQ(a.Send(b, 1, "", nullptr, 0, &ui64ACT), 0u);
  ASSERT_TRUE(receiver.Wait());
  EXPECT_EQ(receiver.At(0).pBaton, nullptr);
  EXPECT_NE(ui64ACT, 0u);
}

TEST(BusSend, DataAndAnswersOfAnyLength_ArriveWhole) {
  CReceiver receiver(&AnswerReversed);
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  uint32_t uCount = 0;
  for (const size_t uLength : {0u, 1u, 255u, 256u, 257u, 511u, 512u, 513u, 70000u}) {
    std::string str(uLength, 'x');
    for (size_t i = 0; i < uLength; ++i)
      str[i] = static_cast<char>('a' + i % 23);
    ASSERT_EQ(a.Send(b, 1, str, &completion), 0u);
    ASSERT_TRUE(completion.Wait(++uCount));
    EXPECT_EQ(receiver.At(uCount - 1).strData, str);
    EXPECT_EQ(completion.At(uCount - 1).strData, std::string(str.rbegin(), str.rend()));
  }
}

TEST(BusSend, ToItself_Works) {
  CReceiver receiver(&AnswerReversed);
  CComponent a;
  a->Receive(1, &receiver);
  CCompletion completion;
  ASSERT_EQ(a.Send(a, 1, "abc", &completion), 0u);
  ASSERT_TRUE(completion.Wait());
  EXPECT_EQ(completion.At(0).strData, "cba");
  EXPECT_EQ(receiver.At(0).guidFrom, a.Guid());
}

TEST(BusSend, Errors_AreResultsWithoutCompletion) {
  CReceiver receiver;
  CCompletion completion;
  CComponent a, b;
  b->Receive(1, &receiver);
  const GUID guidNobody = NewGuid();
  EXPECT_EQ(a->AsynSendEx(nullptr, 1, "x", 1, &completion, nullptr, nullptr, 0), kBusErrInvalid);
  EXPECT_EQ(a->AsynSendEx(&b.Guid(), 1, nullptr, 1, &completion, nullptr, nullptr, 0), kBusErrInvalid);
  EXPECT_EQ(a->AsynSendEx(&guidNobody, 1, "x", 1, &completion, nullptr, nullptr, 0), kBusErrNoTarget);
  EXPECT_EQ(a.Send(b, 2, "x", &completion), kBusErrNoReceiver);
  EXPECT_EQ(a.Send(b, 2, "x", nullptr), kBusErrNoReceiver);
  const std::string strLong(kBusMaxBytes + 1, 'x');
  EXPECT_EQ(a.Send(b, 1, strLong, &completion), kBusErrTooLong);
  a->Uninitialize();
  EXPECT_EQ(a.Send(b, 1, "x", &completion), kBusErrNotInitialized);
  b.Destroy();
  EXPECT_EQ(completion.Count(), 0u);
  EXPECT_EQ(receiver.Count(), 0u);
}

TEST(BusSend, LongestMessage_GoesThrough) {
  CReceiver receiver(&AnswerReversed);
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  std::string strLong(kBusMaxBytes, 'x');
  strLong.front() = 'F';
  ASSERT_EQ(a.Send(b, 1, strLong, &completion), 0u);
  ASSERT_TRUE(completion.Wait(1, 6 * kTestDeadlineMs));
  EXPECT_EQ(completion.At(0).strData.size(), kBusMaxBytes);
  EXPECT_EQ(completion.At(0).strData.back(), 'F');
}

TEST(BusSend, FullQueue_IsBusy_AndRecovers) {
  CGate gate;
  CReceiver receiver([&](const _Received& received) {
    if (received.strData == "gate")
      gate.Enter();
  });
  ZxBusSettings settings;
  settings.uiMaxRecords = 3;
  CComponent a, b(settings);
  b->Receive(1, &receiver);
  ASSERT_EQ(a.Send(b, 1, "gate", nullptr), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(a.Send(b, 1, "x", nullptr), 0u);
  CCompletion completion;
  EXPECT_EQ(a.Send(b, 1, "x", nullptr), kBusErrBusy);
  EXPECT_EQ(a.Send(b, 1, "x", &completion), kBusErrBusy);
  gate.Open();
  ASSERT_TRUE(receiver.Wait(4));
  EXPECT_TRUE(EventuallyTrue([&] { return a.Send(b, 1, "again", nullptr) == 0; }));
  EXPECT_EQ(completion.Count(), 0u);
}

TEST(BusSend, ByteBudget_IsBusy) {
  CGate gate;
  CReceiver receiver([&](const _Received& received) {
    if (received.strData == "gate")
      gate.Enter();
  });
  ZxBusSettings settings;
  settings.uiMaxBytes = 10000;
  CComponent a, b(settings);
  b->Receive(1, &receiver);
  ASSERT_EQ(a.Send(b, 1, "gate", nullptr), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  EXPECT_EQ(a.Send(b, 1, std::string(5000, 'x'), nullptr), 0u);
  EXPECT_EQ(a.Send(b, 1, std::string(5000, 'x'), nullptr), kBusErrBusy);
  EXPECT_EQ(a.Send(b, 1, std::string(4000, 'x'), nullptr), 0u);
  EXPECT_EQ(a.Send(b, 1, std::string(20000, 'x'), nullptr), kBusErrBusy);
  gate.Open();
  ASSERT_TRUE(receiver.Wait(3));
}

TEST(BusSend, HeldBatons_CountAsRecords) {
  CReceiver receiver;
  ZxBusSettings settings;
  settings.uiMaxRecords = 2;
  CComponent a, b(settings);
  b->Receive(1, &receiver);
  CCompletion completion;
  ASSERT_EQ(a.Send(b, 1, "1", &completion), 0u);
  ASSERT_EQ(a.Send(b, 1, "2", &completion), 0u);
  ASSERT_TRUE(receiver.Wait(2));
  EXPECT_EQ(a.Send(b, 1, "3", &completion), kBusErrBusy);
  EXPECT_EQ(b->Reply(0, 1, nullptr, 0, receiver.At(0).pBaton), 0u);
  EXPECT_EQ(a.Send(b, 1, "3", &completion), 0u);
  b->Uninitialize();
  ASSERT_TRUE(completion.Wait(3));
}

TEST(BusSend, SendsUnderWay_AreBounded) {
  CReceiver receiver;
  ZxBusSettings settings;
  settings.uiMaxRecords = 2;
  CComponent a(settings), b;
  b->Receive(1, &receiver);
  CCompletion completion;
  EXPECT_EQ(a.Send(b, 1, "1", &completion), 0u);
  EXPECT_EQ(a.Send(b, 1, "2", &completion), 0u);
  EXPECT_EQ(a.Send(b, 1, "3", &completion), kBusErrBusy);
  EXPECT_EQ(a.Send(b, 1, "nobody waits", nullptr), 0u);
}

TEST(BusSend, Token_IsWrittenBeforeTheCompletion) {
  CReceiver receiver(&AnswerReversed);
  CComponent a, b;
  b->Receive(1, &receiver);
  struct _Token {
    unsigned long long ui64ACT = 0;
  };
  std::atomic<int> iWrong{0};
  CEventWaiter done;
  CCompletion completion([&](const _Completed& completed) {
    if (static_cast<_Token*>(completed.pContext)->ui64ACT != completed.ui64ACT)
      ++iWrong;
    done.Set();
  });
  std::deque<_Token> tokens(300);
  for (_Token& token : tokens)
    ASSERT_EQ(a->AsynSendEx(&b.Guid(), 1, "x", 1, &completion, &token, &token.ui64ACT, 0), 0u);
  ASSERT_TRUE(done.Wait(300));
  EXPECT_EQ(iWrong, 0);
}

TEST(BusSend, SlowComponent_DelaysNobodyElse) {
  CGate gate;
  CReceiver slow([&](const _Received&) { gate.Enter(); });
  CReceiver quick(&AnswerReversed);
  CComponent a, b, c;
  b->Receive(1, &slow);
  c->Receive(1, &quick);
  ASSERT_EQ(a.Send(b, 1, "x", nullptr), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  CCompletion completion;
  ASSERT_EQ(a.Send(c, 1, "x", &completion), 0u);
  EXPECT_TRUE(completion.Wait());
  gate.Open();
}

TEST(BusSend, SeveralDispatchers_RunReceiversAtTheSameTime) {
  CGate gate;
  CReceiver receiver([&](const _Received&) { gate.Enter(); });
  ZxBusSettings settings;
  settings.uiDispatchers = 2;
  CComponent a, b(settings);
  b->Receive(1, &receiver);
  ASSERT_EQ(a.Send(b, 1, "1", nullptr), 0u);
  ASSERT_EQ(a.Send(b, 1, "2", nullptr), 0u);
  EXPECT_TRUE(gate.WaitEntered(2));
  gate.Open();
}

TEST(BusSend, ThrowingCallbacks_EndNothing) {
  CReceiver receiver([](const _Received& received) {
    if (received.strData == "throw")
      throw std::runtime_error("receiver");
    AnswerReversed(received);
  });
  CCompletion completion([](const _Completed&) { throw std::runtime_error("completion"); });
  CComponent a, b;
  b->Receive(1, &receiver);
  ASSERT_EQ(a.Send(b, 1, "throw", nullptr), 0u);
  ASSERT_EQ(a.Send(b, 1, "1", &completion), 0u);
  ASSERT_EQ(a.Send(b, 1, "2", &completion), 0u);
  EXPECT_TRUE(completion.Wait(2));
}

TEST(BusBroadcast, ReachesEveryOtherReceiverOfTheType) {
  CReceiver inB, inC, inA, other;
  CComponent a, b, c, d;
  a->Receive(1006, &inA);
  b->Receive(1006, &inB);
  c->Receive(1006, &inC);
  d->Receive(1007, &other);
  ASSERT_EQ(a->BroadcastSend(1006, "news", 4), 0u);
  ASSERT_TRUE(inB.Wait());
  ASSERT_TRUE(inC.Wait());
  EXPECT_EQ(inB.At(0).strData, "news");
  EXPECT_EQ(inB.At(0).guidFrom, a.Guid());
  EXPECT_EQ(inB.At(0).pBaton, nullptr);
  EXPECT_EQ(inC.At(0).pContext, c.Get());
  ASSERT_EQ(a->BroadcastSend(1007, nullptr, 0), 0u);
  ASSERT_TRUE(other.Wait());
  EXPECT_EQ(inA.Count(), 0u);
}

TEST(BusBroadcast, FullReceiver_LosesIt_OthersDoNot) {
  CGate gate;
  CReceiver full([&](const _Received& received) {
    if (received.strData == "gate")
      gate.Enter();
  });
  CReceiver healthy;
  ZxBusSettings settings;
  settings.uiMaxRecords = 1;
  CComponent a, b(settings), c;
  b->Receive(1, &full);
  c->Receive(1, &healthy);
  ASSERT_EQ(a.Send(b, 1, "gate", nullptr), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(a->BroadcastSend(1, "n", 1), 0u);
  ASSERT_TRUE(healthy.Wait(5));
  gate.Open();
  ASSERT_TRUE(full.Wait(2));
  b->Uninitialize();
  EXPECT_EQ(full.Count(), 2u);
}

TEST(BusBroadcast, Errors) {
  CComponent a;
  EXPECT_EQ(a->BroadcastSend(1, nullptr, 3), kBusErrInvalid);
  const std::string strLong(kBusMaxBytes + 1, 'x');
  EXPECT_EQ(a->BroadcastSend(1, strLong.data(), kBusMaxBytes + 1), kBusErrTooLong);
  EXPECT_EQ(a->BroadcastSend(1, "nobody hears", 12), 0u);
  a->Uninitialize();
  EXPECT_EQ(a->BroadcastSend(1, "x", 1), kBusErrNotInitialized);
}

}  // namespace
