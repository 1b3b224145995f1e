// A manager over the fake bus and the fake cloud library, with a home whose plug-ins, routes and business
// numbers the test can see below. Its threads do not run: the tests call what the work thread calls.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "agent/AgentMgr.h"
#include "data/AgentCodes.h"
#include "data/AgentHub.h"
#include "support/FakeBus.h"
#include "support/FakeCloud.h"
#include "support/FakeConfigProxy.h"
#include "support/LogChannels.h"
#include "support/TempHome.h"

inline constexpr char kGuidA[] = "11111111-1111-1111-1111-111111111111";
inline constexpr char kGuidB[] = "22222222-2222-2222-2222-222222222222";
inline constexpr char kGuidC[] = "33333333-3333-3333-3333-333333333333";
inline constexpr char kGuidD[] = "44444444-4444-4444-4444-444444444444";
inline constexpr int kPcidScan = 1001;     // product Scan, combo One: component A
inline constexpr int kPcidShared = 1002;   // product Scan, combo Two: components B and C
inline constexpr int kPcidNobody = 1003;   // product Scan, combo None: no component
inline constexpr int kPcidPlugMgr = 1004;  // product veltExtHost, combo PluginMgr: component D
inline constexpr int kPcidMsgPush = 1005;  // product veltExtHost, combo MessagePush: component A by "push"

class CCommandTest : public ::testing::Test {
 protected:
  CCommandTest() : m_proxy(m_home.Root().Str()), m_mgr(m_home.Path("root")) {
    m_cloud.Reset();
    m_pHubBefore = SetAgentHub(&m_mgr);
    m_proxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin(kGuidA, "Scan", "One") + "," +
                    CFakeConfigProxy::Plugin(kGuidB, "Scan", "Two") + "," +
                    CFakeConfigProxy::Plugin(kGuidC, "Scan", "Two") + "," +
                    CFakeConfigProxy::Plugin(kGuidD, "veltExtHost", "PluginMgr") + "]}");
    m_home.WriteFile("etc/zxagent/commandroute.json",
                     std::string("{\"commandroute\":[") + Route(kGuidB, "Fanout", "", "") + "," +
                         Route(kGuidC, "FANOUT", "", "") + "," +
                         Route(kGuidA, "push", "veltExtHost", "MessagePush") + "," +
                         Route(kGuidC, "limited", "Scan", "One") + "]}");
    EXPECT_EQ(m_mgr.Data().Init(m_home.Root()), 1);
    EXPECT_EQ(
        m_mgr.Data().SetPcidData("Scan,One,1001|Scan,Two,1002|Scan,None,1003|veltExtHost,PluginMgr,1004|"
                                 "veltExtHost,MessagePush,1005",
                                 0),
        0u);
    m_mgr.Init(m_home.Root());
    m_mgr.SetCtx(static_cast<IBusContext*>(&m_bus));
    m_log.Clear();
  }

  ~CCommandTest() override {
    // Whoever sent must get its completion: records travel with it.
    for (const _BusCall& call : m_bus.Calls(EBusCall::AsynSendEx))
      if (call.uiType == AGENT_MSG_ASYNC_TASKMGR && m_settled.count(call.ui64ACT) == 0)
        m_bus.Complete(call, kBusErrAborted);
    m_mgr.Data().Uninit();
    SetAgentHub(m_pHubBefore);
  }

  static std::string Route(const std::string& strGuid, const std::string& strCommand,
                           const std::string& strProduct, const std::string& strCombo) {
    return R"({"id":")" + strGuid + R"(","command":")" + strCommand + R"(","product":")" + strProduct +
           R"(","combo":")" + strCombo + R"(","desc":""})";
  }

  // Commands handed to the task manager, in order.
  std::vector<_BusCall> HandOffs() const {
    std::vector<_BusCall> calls;
    for (const _BusCall& call : m_bus.Calls(EBusCall::AsynSendEx))
      if (call.uiType == AGENT_MSG_ASYNC_TASKMGR)
        calls.push_back(call);
    return calls;
  }
  std::vector<std::string> HandOffTexts() const {
    std::vector<std::string> texts;
    for (const _BusCall& call : HandOffs())
      texts.push_back(call.strData);
    return texts;
  }
  static std::string HandOff(const std::string& strGuid, const std::string& strProduct,
                             const std::string& strCombo, const std::string& strCommand,
                             const std::string& strMsg) {
    return "<version=1><guid=" + strGuid + "><product=" + strProduct + "><combo=" + strCombo +
           "><command=" + strCommand + "><msg=" + strMsg + ">";
  }

  void Answer(const _BusCall& call, uint32_t uiStatus) {
    m_settled.insert(call.ui64ACT);
    m_bus.Complete(call, uiStatus);
  }
  // The bus refused these, or has completed them already.
  void SettleAll() {
    for (const _BusCall& call : m_bus.Calls(EBusCall::AsynSendEx))
      m_settled.insert(call.ui64ACT);
  }

  // Acknowledgement bodies that went to the cloud, in order.
  std::vector<std::string> Acks() const {
    const std::string strKey = "<PCPluginJasonData=";
    std::vector<std::string> acks;
    for (const std::string& strText : m_cloud.Texts(ECloudCall::Send)) {
      const size_t uBegin = strText.find(strKey) + strKey.size();
      acks.push_back(strText.substr(uBegin, strText.rfind("><PCPluginVersion=") - uBegin));
    }
    return acks;
  }

  CTempHome m_home;
  CFakeConfigProxy m_proxy;
  CLogChannels m_log;
  CFakeBus m_bus;
  CFakeCloud& m_cloud = CFakeCloud::Get();
  CAgentMgr m_mgr;

 private:
  IAgentHub* m_pHubBefore = nullptr;
  std::set<unsigned long long> m_settled;
};
