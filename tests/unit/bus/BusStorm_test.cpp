// Many components do everything at once; at the end every accepted send has exactly one completion. The seed
// is printed, so a failure can be run again (ZX_BUS_SEED).
#include <cstdlib>
#include <map>
#include <random>

#include "BusFixture.h"

namespace {

constexpr int kComponents = 5;
constexpr int kThreads = 4;
constexpr uint32_t kTypes = 3;

class CLedger : public IMRSendComplete {
 public:
  void SendCallback(unsigned int iRetReply, long, const unsigned char* pResponse,
                    unsigned int uiResponseLength, unsigned long long ui64ACT, void* pContext) override {
    if (pContext != this || (pResponse == nullptr && uiResponseLength != 0))
      ++m_iWrong;
    const std::lock_guard lock(m_mutex);
    ++m_completed[ui64ACT];
    ++m_byStatus[iRetReply];
  }
  void Accepted(unsigned long long ui64ACT) {
    const std::lock_guard lock(m_mutex);
    m_accepted.push_back(ui64ACT);
  }
  void Check() {
    const std::lock_guard lock(m_mutex);
    EXPECT_EQ(m_iWrong, 0);
    EXPECT_EQ(m_completed.size(), m_accepted.size());
    for (const unsigned long long ui64ACT : m_accepted)
      ASSERT_EQ(m_completed[ui64ACT], 1) << "token " << ui64ACT;
  }
  std::map<uint32_t, int> ByStatus() {
    const std::lock_guard lock(m_mutex);
    return m_byStatus;
  }

 private:
  std::mutex m_mutex;
  std::vector<unsigned long long> m_accepted;
  std::map<unsigned long long, int> m_completed;
  std::map<uint32_t, int> m_byStatus;
  std::atomic<int> m_iWrong{0};
};

// Answers at once, never, later from another thread, or twice; sometimes sends back into the crowd.
class CStormReceiver : public IMRReceiveComplete {
 public:
  CStormReceiver(CLedger& ledger, const std::vector<GUID>& guids) : m_ledger(ledger), m_guids(guids) {}

  void ReceiveCallback(const GUID&, long i64MsgType, const unsigned char* pData, unsigned int uiDataLength,
                       void* pBatonData, void* pContext) override {
    auto* pBus = static_cast<IBusContext*>(pContext);
    const uint32_t uiDice = uiDataLength > 0 ? pData[0] : 0;
    if (uiDice % 16 == 7) {
      unsigned long long ui64ACT = 0;
      const GUID& guid = m_guids[uiDice % m_guids.size()];
      if (pBus->AsynSendEx(&guid, 1 + uiDice % kTypes, pData, uiDataLength / 2, &m_ledger, &m_ledger,
                           &ui64ACT, 50) == 0)
        m_ledger.Accepted(ui64ACT);
    }
    if (pBatonData == nullptr || uiDice % 4 == 3)
      return;
    if (uiDice % 4 == 2) {
      const std::lock_guard lock(m_mutex);
      m_later.emplace_back(pBus, pBatonData);
      return;
    }
    pBus->Reply(uiDice, i64MsgType, pData, uiDataLength, pBatonData);
    if (uiDice % 4 == 1) {
      EXPECT_NE(pBus->Reply(uiDice, i64MsgType, pData, uiDataLength, pBatonData), 0u);
    }
  }
  void AnswerLater() {
    std::vector<std::pair<IBusContext*, void*>> later;
    {
      const std::lock_guard lock(m_mutex);
      later.swap(m_later);
    }
    for (const auto& [pBus, pBaton] : later)
      pBus->Reply(0, 1, "later", 5, pBaton);
  }

 private:
  CLedger& m_ledger;
  const std::vector<GUID>& m_guids;
  std::mutex m_mutex;
  std::vector<std::pair<IBusContext*, void*>> m_later;
};

class CStorm {
 public:
  explicit CStorm(uint32_t uiSeed) : m_receiver(m_ledger, m_guids), m_uiSeed(uiSeed) {
    for (int i = 0; i < kComponents; ++i) {
      ZxBusSettings settings;
      settings.uiDispatchers = i == 0 ? 3 : 1;
      settings.uiMaxRecords = i == 1 ? 16 : 0;
      settings.uiMaxBytes = i == 2 ? 4096 : 0;
      m_guids.push_back(NewGuid());
      m_contexts.push_back(ZxBusCreateContextWith(&settings));
    }
  }
  ~CStorm() {
    for (IBusContext* pContext : m_contexts)
      ZxBusDestroyContext(pContext);
  }

  void Run(int iSteps) {
    for (size_t i = 0; i < kComponents; ++i)
      Join(i);
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < kThreads; ++i)
      threads.emplace_back([this, i, iSteps] { Actor(m_uiSeed + i, iSteps); });
    for (std::thread& thread : threads)
      thread.join();
    for (IBusContext* pContext : m_contexts)
      pContext->Uninitialize();
  }
  CLedger& Ledger() { return m_ledger; }

 private:
  void Join(size_t uIndex) {
    if (m_contexts[uIndex]->Initialize(&m_guids[uIndex]) != 0)
      return;
    for (uint32_t uiType = 1; uiType <= kTypes; ++uiType)
      m_contexts[uIndex]->Receive(uiType, &m_receiver);
  }
  void Actor(uint32_t uiSeed, int iSteps) {
    std::mt19937 random(uiSeed);
    const auto pick = [&](uint32_t uiBelow) { return static_cast<uint32_t>(random() % uiBelow); };
    for (int i = 0; i < iSteps; ++i) {
      const size_t uFrom = pick(kComponents);
      IBusContext* pFrom = m_contexts[uFrom];
      std::string strData(pick(600), '\0');
      for (char& ch : strData)
        ch = static_cast<char>(random());
      const uint32_t uiLength = static_cast<uint32_t>(strData.size());
      const uint32_t uiAction = pick(200);
      if (uiAction == 0) {
        pFrom->Uninitialize();
      } else if (uiAction < 4) {
        Join(uFrom);
      } else if (uiAction < 6) {
        pFrom->Unreceive(1 + pick(kTypes));
      } else if (uiAction < 12) {
        pFrom->Receive(1 + pick(kTypes), &m_receiver);
      } else if (uiAction < 20) {
        pFrom->BroadcastSend(1 + pick(kTypes), strData.data(), uiLength);
      } else if (uiAction < 30) {
        m_receiver.AnswerLater();
      } else {
        unsigned long long ui64ACT = 0;
        if (pFrom->AsynSendEx(&m_guids[pick(kComponents)], 1 + pick(kTypes), strData.data(), uiLength,
                              &m_ledger, &m_ledger, &ui64ACT, 1 + pick(30)) == 0)
          m_ledger.Accepted(ui64ACT);
      }
    }
  }

  CLedger m_ledger;
  std::vector<GUID> m_guids;
  CStormReceiver m_receiver;
  std::vector<IBusContext*> m_contexts;
  const uint32_t m_uiSeed;
};

TEST(BusStorm, EveryAcceptedSend_CompletesExactlyOnce) {
  const char* pszSeed = std::getenv("ZX_BUS_SEED");
  uint32_t uiSeed =
      pszSeed != nullptr ? static_cast<uint32_t>(std::strtoul(pszSeed, nullptr, 10)) : std::random_device()();
  std::map<uint32_t, int> seen;
  for (int iRound = 0; iRound < 5; ++iRound, uiSeed += 1000) {
    SCOPED_TRACE("ZX_BUS_SEED=" + std::to_string(uiSeed));
    CStorm storm(uiSeed);
    storm.Run(1500);
    storm.Ledger().Check();
    if (HasFailure())
      return;
    for (const auto& [uiStatus, iCount] : storm.Ledger().ByStatus())
      seen[uiStatus] += iCount;
  }
  // The storm is worth its name only when the races that it is about took place.
  EXPECT_GT(seen[kBusErrTimeout], 0);
  EXPECT_GT(seen[kBusErrGone], 0);
  EXPECT_GT(seen[kBusErrAborted], 0);
  EXPECT_GT(seen[0], 0);
}

// Reply, time-out, both sides leaving: one call, four ends, all at the same moment.
TEST(BusStorm, OneCall_ManyEnds_OneCompletion) {
  for (int i = 0; i < 300; ++i) {
    CReceiver receiver;
    CCompletion completion;
    CComponent a, b;
    b->Receive(1, &receiver);
    ASSERT_EQ(a.Send(b, 1, "x", &completion, 1 + static_cast<uint32_t>(i % 3)), 0u);
    ASSERT_TRUE(receiver.Wait());
    void* pBaton = receiver.At(0).pBaton;
    std::thread replier([&] {
      if (pBaton != nullptr)
        b->Reply(0, 1, "r", 1, pBaton);
    });
    std::thread leaver([&] { (i % 2 == 0 ? a : b)->Uninitialize(); });
    replier.join();
    leaver.join();
    ASSERT_TRUE(completion.Wait());
    a->Uninitialize();
    b->Uninitialize();
    ASSERT_EQ(completion.Count(), 1u);
  }
}

}  // namespace
