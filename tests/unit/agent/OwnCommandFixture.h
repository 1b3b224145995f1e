// A manager whose companions are all initialised, over the fake libraries, with components, routes and
// business numbers the test can see below. Its threads run only after RunThreads(); until then the test calls
// what the work thread calls. The bus answers every hand-off at once: 0, or what SetComponentResult said.
#pragma once

#include <string>
#include <vector>

#include "agent/ManagerFixture.h"
#include "platform/doc/PJsonParse.h"
#include "support/FakeConfigProxy.h"
#include "support/FileTree.h"

inline constexpr char kGuidScan[] = "11111111-1111-1111-1111-111111111111";     // Scan/One
inline constexpr char kGuidPlugMgr[] = "22222222-2222-2222-2222-222222222222";  // veltExtHost/PluginMgr
inline constexpr char kGuidMaint[] = "33333333-3333-3333-3333-333333333333";    // veltcwpp/zxpmaint
inline constexpr char kGuidWeb[] = "44444444-4444-4444-4444-444444444444";      // veltcwpp/zxpwebassets
inline constexpr int kPcidScan = 1001;
inline constexpr int kPcidNobody = 1002;  // Scan/None: no component
inline constexpr int kPcidPlugMgr = 1003;
inline constexpr int kPcidMaint = 1004;

class COwnCommandTest : public CManagerTest {
 protected:
  COwnCommandTest() : CManagerTest(true), m_proxy(m_home.Root().Str()) {
    m_pauses.m_fnOnPause = [](uint32_t dwMs) { CAgentMgr::SleepMs(dwMs / 50); };  // time passes quickly
    m_proxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin(kGuidScan, "Scan", "One") + "," +
                    CFakeConfigProxy::Plugin(kGuidPlugMgr, "veltExtHost", "PluginMgr") + "," +
                    CFakeConfigProxy::Plugin(kGuidMaint, "veltcwpp", "zxpmaint") + "," +
                    CFakeConfigProxy::Plugin(kGuidWeb, "veltcwpp", "zxpwebassets") + "]}");
    m_home.WriteFile("etc/zxagent/commandroute.json", R"({"commandroute":[]})");
    m_home.WriteFile("etc/zxagent/taskconf.json",
                     R"({"taskconf":[{"product":"Scan","combo":"One","command":"task","savecount":2}]})");
    m_bus.CompleteAtOnce(0, "");
  }

  // Everything but the threads: a cloud library that does not open leaves them out. It works from then on.
  void SetUp() override {
    Prepare();
    m_cloud.SetResult(ECloudCall::Init, 1);
    ASSERT_TRUE(m_mgr.Start());
    m_uThreads = AgentThreads().Running();  // the upload workers
    ASSERT_TRUE(
        m_mgr.ZxcloudTconf("Scan,One,1001|Scan,None,1002|veltExtHost,PluginMgr,1003|veltcwpp,zxpmaint,1004"));
    m_cloud.Reset();
    ASSERT_EQ(m_mgr.InitZxcloud(0), 0u);
    Forget();
  }
  // The work thread alone; ends in the fixture's Stop.
  void RunWorkThread() {
    pthread_t hThreadId = 0;
    ASSERT_EQ(AgentThreads().Create(&hThreadId, &CAgentMgr::WorkThread, nullptr), 0);
    ASSERT_TRUE(m_log.Capture().WaitFor("zxagent CAgentMgr::WorkThread Begin"));
  }
  // What was logged and sent so far.
  void Forget() {
    m_log.Clear();
    m_uHandOffsBefore = AllHandOffs().size();
    m_uAcksBefore = m_cloud.Count(ECloudCall::Send);
  }
  void SetComponentResult(uint32_t uiResult) { m_bus.CompleteAtOnce(uiResult, ""); }

  int Push(int iPcid, const std::string& strMsg) { return m_mgr.ZxcloudPushmsg(iPcid, strMsg.c_str()); }
  static std::string Command(const std::string& strID, const std::string& strCommand,
                             const std::string& strParam = "1") {
    return R"({"ID":")" + strID + R"(","Command":")" + strCommand + R"(","Param":)" + strParam + "}";
  }

  // Commands handed to components since Forget: "guid|command|message".
  std::vector<std::string> HandOffs() const {
    std::vector<std::string> all = AllHandOffs();
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(m_uHandOffsBefore));
    return all;
  }
  static std::string HandOff(const std::string& strGuid, const std::string& strCommand,
                             const std::string& strMsg) {
    return strGuid + "|" + strCommand + "|" + strMsg;
  }
  // Acknowledgements since Forget: "id|type".
  std::vector<std::string> Acks() const {
    std::vector<std::string> acks;
    const std::vector<std::string> texts = m_cloud.Texts(ECloudCall::Send);
    for (size_t u = m_uAcksBefore; u < texts.size(); ++u)
      acks.push_back(Between(texts[u], "{\"ID\":\"", "\",\"msg_type\":\"") + "|" +
                     Between(texts[u], "\",\"msg_type\":\"", "\"}"));
    return acks;
  }

  std::string Path(const std::string& strRelative) const { return m_home.Root().Str() + strRelative; }
  std::string Verdict(const std::string& strCached) const {
    return Member("data/policy/agentcache/" + strCached, "Result_Agent_Taskmgr");
  }
  std::string Member(const std::string& strFile, const char* pszName) const {
    zxtools::CPJsonParse json;
    CPString strValue("(none)");
    if (json.LoadFile(Path(strFile)) && json.GetNode(pszName) != nullptr)
      zxtools::CPJsonParse::GetValue(json.GetNode(pszName), strValue);
    return strValue.Str();
  }
  // The save convention writes beside its target first: a directory there makes the save fail.
  void BlockSave(const std::string& strFile) { m_home.MakeDir(strFile + ".tmp/x"); }

  int LevelOf(const std::string& strLine) const {
    for (const CLogCapture::CEntry& entry : m_log.Capture().Entries())
      if (entry.strText == strLine)
        return entry.iLevel;
    return -1;
  }

  CFakeConfigProxy m_proxy;
  uint32_t m_uThreads = 0;  // running when the test begins

 private:
  static std::string Between(const std::string& strText, const std::string& strFrom,
                             const std::string& strTo) {
    const size_t uBegin = strText.find(strFrom);
    if (uBegin == std::string::npos)
      return "(none)";
    return strText.substr(uBegin + strFrom.size(), strText.find(strTo, uBegin) - uBegin - strFrom.size());
  }
  std::vector<std::string> AllHandOffs() const {
    std::vector<std::string> handOffs;
    for (const _BusCall& call : m_bus.Calls(EBusCall::AsynSendEx)) {
      if (call.uiType != AGENT_MSG_ASYNC_TASKMGR)
        continue;
      const size_t uMsg = call.strData.find("><msg=") + 6;
      handOffs.push_back(Between(call.strData, "<guid=", ">") + "|" +
                         Between(call.strData, "<command=", "><msg=") + "|" +
                         call.strData.substr(uMsg, call.strData.size() - uMsg - 1));
    }
    return handOffs;
  }

  size_t m_uHandOffsBefore = 0;
  size_t m_uAcksBefore = 0;
};
