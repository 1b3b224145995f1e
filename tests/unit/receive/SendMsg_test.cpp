// A component's message on its way: bus, receiver, manager, upload worker, cloud, and its outcome back on the
// bus.
#include "agent/CommandFixture.h"
#include "data/AgentThreads.h"
#include "send/AgentCallback.h"
#include "support/Waiter.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

constexpr char kUnknownGuid[] = "99999999-9999-9999-9999-999999999999";

// A manager that runs; component A is Scan/One, and the cloud's table writes its names that way.
class SendMsg : public CCommandTest {
 protected:
  SendMsg() {
    m_pBefore = CAgentMgr::SetCurrent(&m_mgr);
    m_home.MakeDir("root/etc");
    EXPECT_TRUE(m_mgr.Start());
    EXPECT_EQ(m_mgr.Data().SetPcidData("Scan,One,1001|Scan,Two,1002", 0), 0u);
    m_log.Clear();
  }
  ~SendMsg() override {
    m_mgr.Stop();
    EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
    CAgentMgr::SetCurrent(m_pBefore);
  }

  uint32_t Send(const char* pszGuid, const char* pszProduct, const char* pszCombo) {
    return m_mgr.SendMsg(0x2a, 1, 2, GUID(pszGuid), pszProduct, pszCombo, "body", 4, 1);
  }
  // The texts that reached the cloud, when there are as many.
  std::vector<std::string> Uploads(size_t uCount) {
    EXPECT_TRUE(m_cloud.WaitCount(ECloudCall::SendSync, uCount));
    return m_cloud.Texts(ECloudCall::SendSync);
  }
  // The outcomes that went to components, when there is one.
  std::vector<_BusCall> Outcomes(uint32_t uiType) {
    std::vector<_BusCall> calls;
    EXPECT_TRUE(EventuallyTrue([&] {
      calls.clear();
      for (const _BusCall& call : m_bus.Calls(EBusCall::AsynSendEx))
        if (call.uiType == uiType)
          calls.push_back(call);
      return !calls.empty();
    }));
    return calls;
  }
  static std::string LogCacheText(const std::string& strProduct, const std::string& strCombo,
                                  const std::string& strGuid = kGuidA) {
    return "<guid={" + strGuid + "}><product=" + strProduct + "><combo=" + strCombo +
           "><version=1><msgtype=2><priv=3><dataid=1A2B><end=1><msg={\"k\":\"<v>\"}>";
  }

  CEventWaiter m_release;

 private:
  CAgentMgr* m_pBefore = nullptr;
};

// --- The whole way.

TEST_F(SendMsg, LogCache_IsUploaded_AndToldItsOutcome) {
  const auto reply = m_bus.Deliver(GUID(kLogCacheGuid), 20002, LogCacheText("SCAN", "one"));
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->uiStatus, 0u);
  EXPECT_EQ(reply->strData, "agent_reply_okok");
  const std::vector<std::string> uploads = Uploads(1);
  ASSERT_THAT(uploads, SizeIs(1));
  EXPECT_THAT(uploads[0], HasSubstr("<product=Scan><combo=One>")) << "as the cloud's table writes them";
  EXPECT_THAT(uploads[0], HasSubstr("<PCPluginJasonData={\"k\":\"<v>\"}>"));
  EXPECT_EQ(m_cloud.Calls(ECloudCall::SendSync)[0].iPriority, 3);
  const std::vector<_BusCall> outcomes = Outcomes(20003);
  ASSERT_THAT(outcomes, SizeIs(1));
  EXPECT_EQ(outcomes[0].guid, GUID(kLogCacheGuid));
  EXPECT_EQ(outcomes[0].strData,
            std::string("\0\0\0\0\0\0\0\0\x2b\x1a\0\0\0\0\0\0", 16) + std::string(16, '\0'));
}

TEST_F(SendMsg, TaskMgrResult_IsUploaded_AndToldItsOutcome) {
  m_cloud.SetResult(ECloudCall::SendSync, 1);
  std::string strRecord("\3\0\0\0\2\0\0\0", 8);
  for (const char* pszField : {kGuidA, "One", "Scan"})
    strRecord += pszField + std::string(64 - std::string(pszField).size(), '\0');
  strRecord += std::string("\x2b\x1a\0\0\0\0\0\0\4\0\0\0body", 16);
  const auto reply = m_bus.Deliver(GUID(kTaskMgrGuid), 20204, strRecord);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->uiStatus, 0u) << "accepted: what the cloud says comes later";
  EXPECT_THAT(Uploads(1), ElementsAre(HasSubstr("<PCPluginJasonData=body>")));
  const std::vector<_BusCall> outcomes = Outcomes(20105);
  ASSERT_THAT(outcomes, SizeIs(1));
  EXPECT_EQ(outcomes[0].guid, GUID(kTaskMgrGuid));
  EXPECT_EQ(outcomes[0].strData,
            std::string("\0\0\0\0\x26\x00\x01\xB0\x2b\x1a\0\0\0\0\0\0", 16) + std::string(32, '\0'));
}

TEST_F(SendMsg, LogCache_GetsTheCode_WhenItsComponentIsUnknown) {
  const auto reply = m_bus.Deliver(GUID(kLogCacheGuid), 20002, LogCacheText("", "One", kUnknownGuid));
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->uiStatus, 0xb0010053u);
  EXPECT_EQ(reply->strData, "agent_reply_erro");
}

// --- Product and combo.

TEST_F(SendMsg, Names_StayAsGiven_WhenBothAreThere) {
  EXPECT_EQ(Send(kUnknownGuid, "Other", "Thing"), 0u);
  EXPECT_THAT(Uploads(1), ElementsAre(HasSubstr("<product=Other><combo=Thing>")));
}

TEST_F(SendMsg, Names_BothComeFromTheId_WhenOneIsEmpty) {
  EXPECT_EQ(Send(kGuidA, "Other", ""), 0u);
  EXPECT_THAT(Uploads(1), ElementsAre(HasSubstr("<product=Scan><combo=One>")));
  EXPECT_EQ(Send(kGuidA, "", "Thing"), 0u);
  EXPECT_EQ(Send(kGuidA, "", ""), 0u);
  EXPECT_THAT(Uploads(3), SizeIs(3));
  for (const std::string& strText : Uploads(3))
    EXPECT_THAT(strText, HasSubstr("<product=Scan><combo=One>"));
}

TEST_F(SendMsg, Message_IsRefused_WhenTheIdIsUnknown) {
  EXPECT_EQ(Send(kUnknownGuid, "", ""), 0xb0010053u);
  EXPECT_EQ(Send(kUnknownGuid, "Scan", ""), 0xb0010053u);
  EXPECT_EQ(Send(kUnknownGuid, "", "One"), 0xb0010053u);
  m_mgr.Stop();
  EXPECT_THAT(m_cloud.Calls(ECloudCall::SendSync), IsEmpty());
}

TEST_F(SendMsg, Message_IsRefused_WhenTheIdIsListedWithoutNames) {
  m_proxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin(kGuidA, "Scan", "One") + "," +
                  CFakeConfigProxy::Plugin(kGuidB, "", "One") + "," +
                  CFakeConfigProxy::Plugin(kGuidC, "Scan", "") + "]}");
  ASSERT_EQ(m_mgr.NotifyAuthChange(), 0u);
  EXPECT_EQ(Send(kGuidB, "Scan", ""), 0xb0010053u) << "a plug-in without names is not taken into the table";
  EXPECT_EQ(Send(kGuidC, "", "One"), 0xb0010053u);
  EXPECT_EQ(Send(kGuidA, "", ""), 0u);
}

// --- The body.

TEST_F(SendMsg, Body_IsCopied_AndExactlyAsLongAsGiven) {
  std::string strBody = "0123456789";
  m_cloud.SetHook(ECloudCall::SendSync, [this](const _CloudCall&) {
    m_release.Wait();
    return 0u;
  });
  EXPECT_EQ(m_mgr.SendMsg(1, 1, 2, GUID(kGuidA), "Scan", "One", strBody.data(), 4, 1), 0u);
  strBody.assign(strBody.size(), 'x');
  m_release.Set();
  EXPECT_THAT(Uploads(1), ElementsAre(HasSubstr("<PCPluginJasonData=0123>")));
}

TEST_F(SendMsg, Message_IsRefused_WhenTheQueueHasNoRoom) {
  const std::string strBody(kZxMsgQueueMaxBytes, 'x');
  EXPECT_EQ(m_mgr.SendMsg(1, 1, 2, GUID(kGuidA), "Scan", "One", strBody.data(),
                          static_cast<unsigned int>(strBody.size()), 1),
            0xb0010003u);
}

}  // namespace
