// A daemon, this process on its bus, and other processes as peers.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "BusFixture.h"
#include "Child.h"
#include "Daemon.h"

// Answers of peer_main.cpp.
inline constexpr uint32_t kReversed = 1, kSilent = 2, kNoted = 3, kEmpty = 4, kEcho = 5;

class CStateLog {
 public:
  static void OnState(uint32_t uiState, const char* pszText, void* pContext) {
    auto& self = *static_cast<CStateLog*>(pContext);
    {
      const std::lock_guard lock(self.m_mutex);
      self.m_states.emplace_back(uiState, pszText);
    }
    self.m_changed.notify_all();
  }
  bool Wait(uint32_t uiState, size_t uTimes = 1) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(20), [&] {
      return std::count_if(m_states.begin(), m_states.end(), [&](const auto& entry) {
               return entry.first == uiState;
             }) >= static_cast<long>(uTimes);
    });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<std::pair<uint32_t, std::string>> m_states;
};

// A completion that outlives a case which gave up on it.
struct CAnswer final : IMRSendComplete {
  void SendCallback(unsigned int iRetReply, long, const unsigned char*, unsigned int, unsigned long long,
                    void*) override {
    const auto self = std::move(m_self);
    m_uiStatus = iRetReply;
    m_arrived.Set();
  }
  std::shared_ptr<CAnswer> m_self;
  std::atomic<uint32_t> m_uiStatus{0};
  CEventWaiter m_arrived;
};

class DbusTest : public ::testing::Test {
 public:
  explicit DbusTest(bool bOpen = true, const std::string& strPolicy = "") : m_daemon(bOpen, strPolicy) {}
  ~DbusTest() override { ZxBusDisconnect(); }

 protected:
  uint32_t Connect(const std::string& strAddress, uint32_t uiTimeoutMs = 20000) {
    ZxBusConnectSettings settings;
    settings.pszAddress = strAddress.c_str();
    settings.uiTimeoutMs = uiTimeoutMs;
    settings.uiMaxSendBytes = m_uiMaxSendBytes;
    settings.pfnState = &CStateLog::OnState;
    settings.pContext = &m_states;
    return ZxBusConnect(&settings);
  }
  // The daemon runs and this process is on its bus.
  void Begin() {
    ASSERT_TRUE(m_daemon.Start());
    ASSERT_EQ(Connect(m_daemon.Address()), 0u);
  }
  static std::string TextOf(const GUID& guid) { return guid.ToUpper().c_str(); }
  // A peer that is on the bus, and known to the component.
  std::unique_ptr<CChild> MakePeer(const GUID& guid, uid_t uid = 0) const {
    auto peer = std::make_unique<CChild>(
        std::vector<std::string>{ZX_BUS_PEER, m_daemon.Address(), TextOf(guid)}, uid);
    EXPECT_TRUE(peer->WaitFor("up"));
    return peer;
  }
  // Sends until the target is known to the sender's connection: another process said so first.
  static uint32_t SendWhenKnown(const CComponent& from, const GUID& to, uint32_t uiType,
                                const std::string& str, IMRSendComplete* pDone,
                                uint32_t uiTimeoutMs = 60000) {
    uint32_t uiResult = kBusErrNoTarget;
    EventuallyTrue([&] {
      uiResult = from->AsynSendEx(&to, uiType, str.data(), static_cast<uint32_t>(str.size()), pDone, nullptr,
                                  nullptr, uiTimeoutMs);
      return uiResult != kBusErrNoTarget && uiResult != kBusErrGone;
    });
    return uiResult;
  }

  static std::string Stats() {
    uint32_t uiNeeded = 0;
    std::string str(4096, '\0');
    while (ZxBusStats(str.data(), static_cast<uint32_t>(str.size()), &uiNeeded) == kBusErrTooLong)
      str.resize(uiNeeded + 256);
    str.resize(uiNeeded - 1);
    return str;
  }
  // A figure of one component of this process; -1: not there.
  static long Figure(const GUID& guid, const std::string& strName) {
    return FigureIn(Stats(), guid, strName);
  }
  static long FigureIn(const std::string& strStats, const GUID& guid, const std::string& strName) {
    const size_t uComponent = strStats.find("{\"guid\":\"" + TextOf(guid) + "\"");
    const size_t uEnd = strStats.find('}', uComponent);
    const std::string strKey = "\"" + strName + "\":";
    const size_t uFigure = uComponent != std::string::npos ? strStats.find(strKey, uComponent) : uComponent;
    return uFigure < uEnd ? std::strtol(strStats.c_str() + uFigure + strKey.size(), nullptr, 10) : -1;
  }
  // One request that must be answered, as a sign that the peer is served.
  static void Converse(const CComponent& from, const GUID& to) {
    auto answer = std::make_shared<CAnswer>();
    answer->m_self = answer;
    ASSERT_EQ(SendWhenKnown(from, to, kReversed, "abc", answer.get()), 0u);
    ASSERT_TRUE(answer->m_arrived.Wait());
    EXPECT_EQ(answer->m_uiStatus, 7u);
  }

  uint32_t m_uiMaxSendBytes = 0;
  CDaemon m_daemon;
  CStateLog m_states;
};
