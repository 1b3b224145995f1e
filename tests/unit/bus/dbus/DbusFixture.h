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

class DbusTest : public ::testing::Test {
 public:
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

  uint32_t m_uiMaxSendBytes = 0;
  CDaemon m_daemon;
  CStateLog m_states;
};
