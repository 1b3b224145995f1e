// Uploads while the cloud holds every send: what a component is told, and that memory stays within its
// budget.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "AgentFixture.h"
#include "support/Gauges.h"

namespace {

constexpr char kLogCacheId[] = "9946467F-0102-46E8-ACAC-B9EFE3CD68FD";
constexpr uint32_t kLogCache = 20002;
constexpr uint32_t kLogCacheResult = 20003;
constexpr size_t kResultIdAt = 8;  // of the data id in a result record
constexpr uint32_t kRefused = 0xb0010003;
constexpr size_t kBodyBytes = 32u << 10;
constexpr int64_t kBudgetBytes = 2 << 20;

std::string LogCacheText(int iNumber) {
  char szId[32] = {};
  std::snprintf(szId, sizeof(szId), "%x", static_cast<unsigned>(iNumber));
  return std::string("<guid={") + kSampleId + "}><product=veltcwpp><combo=zxsample><version=1><msgtype=2>" +
         "<priv=3><dataid=" + szId + "><end=1><msg=" + std::string(kBodyBytes, 'b') + ">";
}

class Uploads : public CAgentFixture {
 protected:
  ~Uploads() override { m_back.Set(); }
  void StartWithBudget(const char* pszMegabytes) {
    m_home.WriteFile("etc/zxagent/zxagent.json",
                     std::string(R"({"tconf":{"tconf_url":"127.0.0.1:9"},"zxagent":{"upload_budget_mb":)") +
                         pszMegabytes + "}}");
    StartAgent();
  }
  // Waits in every send until the cloud is back.
  void HoldCloud() {
    CFakeCloud::Get().SetHook(ECloudCall::SendSync, [this](const _CloudCall&) {
      m_back.Wait(1, 60000);
      return 0u;
    });
  }
  CFakeBus::_Reply Relay(int iNumber) {
    const auto reply = m_bus.Deliver(GUID(kLogCacheId), kLogCache, LogCacheText(iNumber));
    EXPECT_TRUE(reply.has_value());
    return reply.value_or(CFakeBus::_Reply{});
  }
  // Data ids of the results that went back, sorted.
  std::vector<uint64_t> Results() const {
    std::vector<uint64_t> ids;
    for (const _BusCall& call : m_bus.Calls(EBusCall::AsynSendEx)) {
      uint64_t u64DataId = 0;
      if (call.uiType != kLogCacheResult || call.strData.size() < kResultIdAt + sizeof(u64DataId))
        continue;
      std::memcpy(&u64DataId, call.strData.data() + kResultIdAt, sizeof(u64DataId));
      ids.push_back(u64DataId);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
  }

  CEventWaiter m_back;
};

TEST_F(Uploads, Component_IsTold_WhenTheBudgetIsUsedUp_AndNothingAcceptedIsLost) {
  StartWithBudget("2");
  HoldCloud();
  std::vector<uint64_t> accepted;
  int iNumber = 0;
  // Half as much again as fits: the cloud stays away while components go on.
  const int iMessages = static_cast<int>(kBudgetBytes * 3 / 2 / static_cast<int64_t>(kBodyBytes)) + 32;
  size_t uRefused = 0;
  for (int i = 0; i < iMessages; ++i) {
    const CFakeBus::_Reply reply = Relay(++iNumber);
    if (reply.uiStatus == 0) {
      EXPECT_EQ(reply.strData, "agent_reply_okok");
      accepted.push_back(static_cast<uint64_t>(iNumber));
    } else {
      EXPECT_EQ(reply.uiStatus, kRefused);
      EXPECT_EQ(reply.strData, "agent_reply_erro");
      ++uRefused;
    }
  }
  EXPECT_GT(uRefused, 20u);
  EXPECT_GT(accepted.size(), 32u + 60u);
  EXPECT_EQ(GaugeValue("agent.uploads.refused"), static_cast<int64_t>(uRefused));
  ASSERT_TRUE(CFakeCloud::Get().WaitCount(ECloudCall::SendSync, 32));
  EXPECT_LE(GaugeValue("agent.uploads.waiting_bytes").value_or(-1), kBudgetBytes);

  m_back.Set();
  EXPECT_TRUE(EventuallyTrue([&] { return Results().size() >= accepted.size(); }));
  EXPECT_EQ(Results(), accepted) << "each accepted message has one result, a refused one none";
  EXPECT_EQ(Relay(++iNumber).uiStatus, 0u) << "there is room again";
}

TEST_F(Uploads, Budget_IsTheLeast_WhenTheNumberIsNone) {
  StartWithBudget("\"a lot\"");
  HoldCloud();
  size_t uAccepted = 0;
  while (Relay(static_cast<int>(uAccepted) + 1).uiStatus == 0 && uAccepted < 200)
    ++uAccepted;
  EXPECT_LT(uAccepted, 32u + 33u);
  EXPECT_TRUE(
      m_log.Contains("*zxagent CAgentData::ReadConfigUploadBudget Warn iConfigured[0] iMegabytes[1]"));
  m_back.Set();
}

}  // namespace
