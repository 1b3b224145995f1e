#include <dirent.h>

#include <algorithm>
#include <fstream>

#include "BusFixture.h"

namespace {

// The names of this process's threads.
std::vector<std::string> ThreadNames() {
  std::vector<std::string> names;
  DIR* pDir = opendir("/proc/self/task");
  for (dirent* pEntry = readdir(pDir); pEntry != nullptr; pEntry = readdir(pDir)) {
    std::ifstream comm(std::string("/proc/self/task/") + pEntry->d_name + "/comm");
    std::string strName;
    if (std::getline(comm, strName))
      names.push_back(strName);
  }
  closedir(pDir);
  return names;
}

std::string DispatcherName(const GUID& guid) {
  char szName[16];
  snprintf(szName, sizeof(szName), "zxbus.%08x", guid.Data1);
  return szName;
}

size_t CountThreads(const std::string& strName) {
  const auto names = ThreadNames();
  return static_cast<size_t>(std::count(names.begin(), names.end(), strName));
}

TEST(BusLifecycle, Initialize_ChecksItsGuid) {
  IBusContext* pContext = ZxBusCreateContext();
  const GUID guidZero;
  EXPECT_EQ(pContext->Initialize(nullptr), kBusErrInvalid);
  EXPECT_EQ(pContext->Initialize(&guidZero), kBusErrInvalid);
  const GUID guid = NewGuid();
  EXPECT_EQ(pContext->Initialize(&guid), 0u);
  EXPECT_EQ(pContext->Initialize(&guid), kBusErrInvalid);
  ZxBusDestroyContext(pContext);
}

TEST(BusLifecycle, Initialize_RefusesATakenGuid_UntilItIsFree) {
  CComponent a;
  IBusContext* pSecond = ZxBusCreateContext();
  EXPECT_EQ(pSecond->Initialize(&a.Guid()), kBusErrTaken);
  CReceiver receiver;
  EXPECT_EQ(pSecond->Receive(1, &receiver), kBusErrNotInitialized);
  a->Uninitialize();
  EXPECT_EQ(pSecond->Initialize(&a.Guid()), 0u);
  ZxBusDestroyContext(pSecond);
}

TEST(BusLifecycle, Operations_NeedInitialize) {
  IBusContext* pContext = ZxBusCreateContext();
  CReceiver receiver;
  const GUID guid = NewGuid();
  int iBaton = 0;
  EXPECT_EQ(pContext->Receive(1, &receiver), kBusErrNotInitialized);
  EXPECT_EQ(pContext->Receive(1, nullptr), kBusErrInvalid);
  EXPECT_EQ(pContext->AsynSendEx(&guid, 1, "x", 1, nullptr, nullptr, nullptr, 0), kBusErrNotInitialized);
  EXPECT_EQ(pContext->BroadcastSend(1, "x", 1), kBusErrNotInitialized);
  EXPECT_EQ(pContext->Reply(0, 1, "x", 1, &iBaton), kBusErrNotInitialized);
  pContext->Unreceive(1);
  pContext->Uninitialize();
  ZxBusDestroyContext(pContext);
  ZxBusDestroyContext(nullptr);
}

TEST(BusLifecycle, Dispatcher_IsNamedAfterTheGuid_AndEnds) {
  GUID guid = NewGuid();
  guid.Data1 = 0xABC90000u + guid.Data1;
  IBusContext* pContext = ZxBusCreateContext();
  ASSERT_EQ(pContext->Initialize(&guid), 0u);
  EXPECT_TRUE(EventuallyTrue([&] { return CountThreads(DispatcherName(guid)) == 1; }));
  ZxBusDestroyContext(pContext);
  EXPECT_TRUE(EventuallyTrue([&] { return CountThreads(DispatcherName(guid)) == 0; }));
}

TEST(BusLifecycle, SecondReceive_ReplacesTheFirst) {
  CReceiver first, second;
  CComponent a, b;
  b->Receive(1, &first);
  b->Receive(1, &second);
  ASSERT_EQ(a.Send(b, 1, "x", nullptr), 0u);
  ASSERT_TRUE(second.Wait());
  EXPECT_EQ(first.Count(), 0u);
}

TEST(BusLifecycle, Uninitialize_CompletesOwnSendsBeforeItReturns) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  for (int i = 0; i < 10; ++i)
    ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  a->Uninitialize();
  ASSERT_EQ(completion.Count(), 10u);
  for (size_t i = 0; i < 10; ++i)
    EXPECT_EQ(completion.At(i).uiStatus, kBusErrAborted);
  ASSERT_TRUE(receiver.Wait(10));
}

TEST(BusLifecycle, Uninitialize_OfTheTarget_EndsQueuedMessagesAndBatons) {
  CGate gate;
  CReceiver receiver([&](const _Received& received) {
    if (received.strData == "gate")
      gate.Enter();
  });
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion held, queued;
  ASSERT_EQ(a.Send(b, 1, "held", &held), 0u);
  ASSERT_TRUE(receiver.Wait(1));
  ASSERT_EQ(a.Send(b, 1, "gate", nullptr), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  ASSERT_EQ(a.Send(b, 1, "queued", &queued), 0u);
  std::thread leaver([&] { b->Uninitialize(); });
  ASSERT_TRUE(held.Wait());
  ASSERT_TRUE(queued.Wait());
  EXPECT_EQ(held.At(0).uiStatus, kBusErrGone);
  EXPECT_EQ(queued.At(0).uiStatus, kBusErrGone);
  gate.Open();
  leaver.join();
  EXPECT_EQ(receiver.Count(), 2u);
  EXPECT_EQ(a.Send(b, 1, "x", &queued), kBusErrNoTarget);
}

TEST(BusLifecycle, Uninitialize_WaitsForARunningReceiver) {
  CGate gate;
  std::atomic<bool> bReturned{false};
  CReceiver receiver([&](const _Received&) {
    gate.Enter();
    EXPECT_FALSE(bReturned);
  });
  CComponent a, b;
  b->Receive(1, &receiver);
  ASSERT_EQ(a.Send(b, 1, "x", nullptr), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  std::thread leaver([&] {
    b->Uninitialize();
    bReturned = true;
  });
  EXPECT_TRUE(EventuallyTrue([&] { return a.Send(b, 1, "x", nullptr) == kBusErrNoTarget; }));
  gate.Open();
  leaver.join();
}

TEST(BusLifecycle, Unreceive_WaitsForTheRunningReceiver_OfThatTypeOnly) {
  CGate gate;
  std::atomic<bool> bReturned{false};
  CReceiver receiver([&](const _Received&) {
    gate.Enter();
    EXPECT_FALSE(bReturned);
  });
  CReceiver other;
  CComponent a, b;
  b->Receive(1, &receiver);
  b->Receive(2, &other);
  ASSERT_EQ(a.Send(b, 1, "x", nullptr), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  b->Unreceive(2);  // does not wait for type 1
  std::thread remover([&] {
    b->Unreceive(1);
    bReturned = true;
  });
  EXPECT_TRUE(EventuallyTrue([&] { return a.Send(b, 1, "x", nullptr) == kBusErrNoReceiver; }));
  EXPECT_FALSE(bReturned);
  gate.Open();
  remover.join();
}

TEST(BusLifecycle, Unreceive_CompletesQueuedMessages_AndKeepsBatons) {
  CGate gate;
  CReceiver receiver;
  CReceiver blocker([&](const _Received&) { gate.Enter(); });
  CComponent a, b;
  b->Receive(1, &receiver);
  b->Receive(2, &blocker);
  CCompletion held, queued;
  ASSERT_EQ(a.Send(b, 1, "held", &held), 0u);
  ASSERT_TRUE(receiver.Wait());
  ASSERT_EQ(a.Send(b, 2, "block", nullptr), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  ASSERT_EQ(a.Send(b, 1, "queued", &queued), 0u);
  b->Unreceive(1);
  gate.Open();
  ASSERT_TRUE(queued.Wait());
  EXPECT_EQ(queued.At(0).uiStatus, kBusErrNoReceiver);
  EXPECT_EQ(receiver.Count(), 1u);
  EXPECT_EQ(b->Reply(0, 1, nullptr, 0, receiver.At(0).pBaton), 0u);
  ASSERT_TRUE(held.Wait());
  EXPECT_EQ(held.At(0).uiStatus, 0u);
}

TEST(BusLifecycle, Unreceive_FromInsideTheReceiver_DoesNotWaitForItself) {
  CEventWaiter done;
  CComponent a, b;
  CReceiver receiver([&](const _Received& received) {
    received.pContext->Unreceive(1);
    done.Set();
  });
  b->Receive(1, &receiver);
  ASSERT_EQ(a.Send(b, 1, "x", nullptr), 0u);
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(a.Send(b, 1, "x", nullptr), kBusErrNoReceiver);
}

TEST(BusLifecycle, Unreceive_FromTwoRunningReceivers_EndsBoth) {
  CEventWaiter entered, done;
  ZxBusSettings settings;
  settings.uiDispatchers = 2;
  CComponent a, b(settings);
  CReceiver receiver([&](const _Received& received) {
    entered.Set();
    entered.Wait(2);
    received.pContext->Unreceive(1);
    done.Set();
  });
  b->Receive(1, &receiver);
  ASSERT_EQ(a.Send(b, 1, "1", nullptr), 0u);
  ASSERT_EQ(a.Send(b, 1, "2", nullptr), 0u);
  EXPECT_TRUE(done.Wait(2));
}

TEST(BusLifecycle, Uninitialize_FromInsideAReceiver_CompletesSendsAfterwards) {
  CReceiver sink;
  CComponent a, b, c;
  c->Receive(1, &sink);
  CCompletion ofB, ofA;
  CEventWaiter done;
  CReceiver receiver([&](const _Received& received) {
    received.pContext->Uninitialize();
    EXPECT_EQ(received.pContext->Reply(0, 1, nullptr, 0, received.pBaton), kBusErrNotInitialized);
    const GUID guid = NewGuid();
    EXPECT_EQ(received.pContext->Initialize(&guid), kBusErrBusy);
    EXPECT_EQ(ofB.Count(), 0u);  // its own thread is busy here
    done.Set();
  });
  b->Receive(1, &receiver);
  ASSERT_EQ(b.Send(c, 1, "x", &ofB), 0u);
  ASSERT_TRUE(sink.Wait());
  ASSERT_EQ(a.Send(b, 1, "x", &ofA), 0u);
  ASSERT_TRUE(done.Wait());
  ASSERT_TRUE(ofB.Wait());
  EXPECT_EQ(ofB.At(0).uiStatus, kBusErrAborted);
  ASSERT_TRUE(ofA.Wait());
  EXPECT_EQ(ofA.At(0).uiStatus, kBusErrGone);
  // A second cycle waits for the first one's thread.
  EXPECT_EQ(b->Initialize(&b.Guid()), 0u);
}

TEST(BusLifecycle, Uninitialize_FromInsideACompletion_Works) {
  CReceiver receiver(&AnswerReversed);
  CReceiver silent;
  CComponent a, b;
  b->Receive(1, &receiver);
  b->Receive(2, &silent);
  CCompletion aborted;
  CEventWaiter done;
  CCompletion completion([&](const _Completed&) {
    a->Uninitialize();
    done.Set();
  });
  ASSERT_EQ(a.Send(b, 2, "x", &aborted), 0u);
  ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  ASSERT_TRUE(done.Wait());
  ASSERT_TRUE(aborted.Wait());
  EXPECT_EQ(aborted.At(0).uiStatus, kBusErrAborted);
}

TEST(BusLifecycle, Uninitialize_FromInsideACompletion_LosesNoneThatAreDue) {
  CGate gate;
  CReceiver silent;
  CComponent a, b;
  CCompletion completion([&](const _Completed& completed) {
    if (completed.strData == "gate")
      gate.Enter();
    else if (completed.strData == "leave")
      a->Uninitialize();
  });
  b->Receive(1, &silent);
  for (int i = 0; i < 5; ++i)
    ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  ASSERT_TRUE(silent.Wait(5));
  ASSERT_EQ(b->Reply(0, 1, "gate", 4, silent.At(0).pBaton), 0u);
  ASSERT_TRUE(gate.WaitEntered());
  ASSERT_EQ(b->Reply(1, 1, "leave", 5, silent.At(1).pBaton), 0u);
  ASSERT_EQ(b->Reply(2, 1, "y", 1, silent.At(2).pBaton), 0u);
  ASSERT_EQ(b->Reply(3, 1, "z", 1, silent.At(3).pBaton), 0u);
  gate.Open();
  ASSERT_TRUE(completion.Wait(5));
  for (uint32_t i = 0; i < 4; ++i)
    EXPECT_EQ(completion.At(i).uiStatus, i);
  EXPECT_EQ(completion.At(3).strData, "z");
  EXPECT_EQ(completion.At(4).uiStatus, kBusErrAborted);
}

TEST(BusLifecycle, DestroyContext_FromInsideItsReceiver_Works) {
  CEventWaiter done;
  GUID guid = NewGuid();
  IBusContext* pContext = ZxBusCreateContext();
  ASSERT_EQ(pContext->Initialize(&guid), 0u);
  CReceiver receiver([&](const _Received& received) {
    ZxBusDestroyContext(received.pContext);
    done.Set();
  });
  pContext->Receive(1, &receiver);
  CComponent a;
  ASSERT_EQ(a->AsynSendEx(&guid, 1, "x", 1, nullptr, nullptr, nullptr, 0), 0u);
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(a->AsynSendEx(&guid, 1, "x", 1, nullptr, nullptr, nullptr, 0), kBusErrNoTarget);
  EXPECT_TRUE(EventuallyTrue([&] { return CountThreads(DispatcherName(guid)) == 0; }));
}

TEST(BusLifecycle, DestroyContext_UninitialisesFirst) {
  CReceiver receiver;
  CComponent b;
  b->Receive(1, &receiver);
  CCompletion completion;
  {
    CComponent a;
    ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  }
  EXPECT_EQ(completion.Count(), 1u);
  EXPECT_EQ(completion.At(0).uiStatus, kBusErrAborted);
}

TEST(BusLifecycle, SecondCycle_StartsEmpty) {
  CReceiver receiver;
  CComponent a, b;
  b->Receive(1, &receiver);
  CCompletion completion;
  ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  ASSERT_TRUE(receiver.Wait());
  void* pOldBaton = receiver.At(0).pBaton;
  b->Uninitialize();
  ASSERT_TRUE(completion.Wait());
  ASSERT_EQ(b->Initialize(&b.Guid()), 0u);
  EXPECT_EQ(a.Send(b, 1, "x", &completion), kBusErrNoReceiver);
  ASSERT_EQ(b->Receive(1, &receiver), 0u);
  ASSERT_EQ(a.Send(b, 1, "x", &completion), 0u);
  ASSERT_TRUE(receiver.Wait(2));
  EXPECT_EQ(b->Reply(0, 1, nullptr, 0, pOldBaton), kBusErrInvalid);
  EXPECT_EQ(b->Reply(0, 1, nullptr, 0, receiver.At(1).pBaton), 0u);
}

TEST(BusLifecycle, Reply_FromACompletion_AnswersTheFirstSender) {
  // a asks b, b asks c and answers a with what c said: how a component forwards a command.
  CReceiver inC(&AnswerReversed);
  CComponent a, b, c;
  c->Receive(1, &inC);
  std::atomic<void*> pBaton{nullptr};
  CCompletion ofB([&](const _Completed& completed) {
    b->Reply(completed.uiStatus, 1, completed.strData.data(), static_cast<uint32_t>(completed.strData.size()),
             pBaton);
  });
  CReceiver inB([&](const _Received& received) {
    pBaton = received.pBaton;
    EXPECT_EQ(b.Send(c, 1, received.strData, &ofB), 0u);
  });
  b->Receive(1, &inB);
  CCompletion ofA;
  ASSERT_EQ(a.Send(b, 1, "abc", &ofA), 0u);
  ASSERT_TRUE(ofA.Wait());
  EXPECT_EQ(ofA.At(0).strData, "cba");
  EXPECT_EQ(ofA.At(0).uiStatus, 7u);
}

}  // namespace
