// The link engine with a broker that the test plays: no sockets, no time of its own.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "CloudFakes.h"
#include "platform/cloud/LongLink.h"

class CLongLinkFixture : public ::testing::Test {
 protected:
  CLongLinkFixture() : m_callbacks(CCallbackLog::Record()) {
    CCallbackLog::Events().clear();
    EXPECT_TRUE(m_link.Init());
  }

  static bool Resolve(const std::string& strHost, std::vector<std::string>& list, std::string& strError) {
    if (strHost == "two.example")
      list = {"10.0.0.1", "10.0.0.2"};
    else
      strError = "name not resolved: no such name";
    return !list.empty();
  }
  void Turn(int iTurns = 1) {
    for (int i = 0; i < iTurns; ++i)
      m_link.RunOnce(0);
  }
  void Configure(const std::string& strAddresses, uint32_t uDrainPerSec = 0, bool bBulkLink = true,
                 uint32_t uRetryMaxSec = 300) {
    zxcloud::_LongSettings settings;
    settings.listAddresses = zxcloud::ParseAddressList(strAddresses, zxcloud::kMqttsPort, false);
    settings.strMid = "m-1";
    settings.uSpreadSec = 0;
    settings.uDrainPerSec = uDrainPerSec;
    settings.bBulkLink = bBulkLink;
    settings.uRetryMaxSec = uRetryMaxSec;
    m_link.Configure(std::move(settings));
    Turn();
  }
  static void ComeUp(CFakeTransport& transport) {
    transport.events.OnTcpUp();
    transport.events.OnConnack();
    transport.events.OnSubscribed();
  }
  void ComeUp() {
    ComeUp(*m_pTransport);
    if (m_pBulk->bOpen)
      ComeUp(*m_pBulk);
    Turn();
  }
  void Add(int iPriority, size_t uBytes = 10, bool bWaited = false) {
    ++m_u64Seq;
    const std::string strId = "id" + std::to_string(m_u64Seq);
    ASSERT_TRUE(
        m_outbox.Add(zxcloud::MakeOutItem(m_u64Seq, iPriority, strId, std::string(uBytes, 'x'), bWaited)));
  }
  // Time passes without a word from the broker.
  void Silence(uint64_t u64Ms) {
    m_clock.Advance(u64Ms);
    Turn(2);
  }
  // Time passes while the broker answers pings.
  void Advance(uint64_t u64Ms) {
    m_clock.Advance(u64Ms);
    m_pTransport->events.OnAlive();
    m_pBulk->events.OnAlive();
    Turn(2);
  }
  static std::vector<std::string> Topics(const CFakeTransport& transport) {
    std::vector<std::string> list;
    for (const auto& one : transport.published)
      list.push_back(one.strTopic);
    return list;
  }

  zxcloud::_LinkTimes m_times;
  CFakeClock m_clock;
  CFakeRandom m_random;
  zxcloud::COutbox m_outbox{64u << 20, m_clock};
  zxcloud::CWaiters m_waiters;
  zxcloud::CCallbacks m_callbacks;
  zxcloud::CCloudLog m_log{m_callbacks};
  zxcloud::CLinkErrors m_errors;
  CFakeTransport* m_pTransport = nullptr;  // of the commands
  CFakeTransport* m_pBulk = nullptr;
  uint32_t m_uDown = 0;
  uint64_t m_u64Seq = 0;
  zxcloud::CLongLink m_link{
      {m_times, m_clock, m_random, m_outbox, m_waiters, m_callbacks, m_log, m_errors, [this] { ++m_uDown; }},
      [this](zxcloud::IMqttEvents& events) {
        auto pTransport = std::make_unique<CFakeTransport>(events);
        (m_pTransport == nullptr ? m_pTransport : m_pBulk) = pTransport.get();
        return pTransport;
      },
      Resolve};
};
