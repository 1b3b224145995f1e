// The sample components as a host loads them, on the real bus: the test is the agent, a stranger, and now and
// then a component.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Plugin.h"
#include "kit/Component.h"
#include "platform/doc/PJsonParse.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

namespace {

using testing::HasSubstr;

constexpr char kAgent[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
constexpr char kTaskMgr[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";
constexpr char kSample[] = "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D";
constexpr char kOther[] = "11111111-2222-4333-8444-555555555555";
constexpr uint32_t kCommand = 20001;
constexpr uint32_t kGuidList = 20104;

struct _Answer {
  uint32_t uiStatus = 0;
  std::string strData;
};

// One member of the bus that only the test has.
class CMember : public IMRSendComplete, public IMRReceiveComplete {
 public:
  explicit CMember(const char* pszGuid) : m_pBus(ZxBusCreateContext()) {
    const GUID guid(pszGuid);
    EXPECT_EQ(m_pBus->Initialize(&guid), 0u);
  }
  ~CMember() override { ZxBusDestroyContext(m_pBus); }
  CMember(const CMember&) = delete;
  CMember& operator=(const CMember&) = delete;

  uint32_t Send(const char* pszTarget, uint32_t uiType, const std::string& strData) {
    const GUID guid(pszTarget);
    return m_pBus->AsynSendEx(&guid, uiType, strData.data(), static_cast<uint32_t>(strData.size()), this,
                              nullptr, nullptr, 20000);
  }
  _Answer Ask(const char* pszTarget, uint32_t uiType, const std::string& strData) {
    EXPECT_EQ(Send(pszTarget, uiType, strData), 0u);
    return Next();
  }
  _Answer Next() {
    EXPECT_TRUE(m_answered.Wait(++m_uTaken));
    const std::lock_guard lock(m_mutex);
    return m_answers.size() >= m_uTaken ? m_answers[m_uTaken - 1] : _Answer{};
  }
  // Takes messages and never answers.
  void Listen(uint32_t uiType) { EXPECT_EQ(m_pBus->Receive(uiType, this), 0u); }
  bool WaitMessage() { return m_received.Wait(); }
  void Leave() { m_pBus->Uninitialize(); }

 private:
  void SendCallback(unsigned int iRetReply, long, const unsigned char* pResponse,
                    unsigned int uiResponseLength, unsigned long long, void*) override {
    {
      const std::lock_guard lock(m_mutex);
      m_answers.push_back({iRetReply, std::string(reinterpret_cast<const char*>(pResponse),
                                                  pResponse ? uiResponseLength : 0)});
    }
    m_answered.Set();
  }
  void ReceiveCallback(const GUID&, long, const unsigned char*, unsigned int, void*, void*) override {
    m_received.Set();
  }

  IBusContext* m_pBus;
  std::mutex m_mutex;
  std::vector<_Answer> m_answers;
  uint32_t m_uTaken = 0;
  CEventWaiter m_answered;
  CEventWaiter m_received;
};

class ComponentFlow : public testing::Test {
 protected:
  ComponentFlow() {
    m_log.Open("zxtaskmgr");
    m_log.Open("zxsample");
    m_home.MakeDir("lib/plugins");
    m_pTaskMgr = Load("zxtaskmgr", ZX_TASKMGR_SO, kTaskMgr);
    m_pSample = Load("zxsample", ZX_SAMPLE_SO, kSample);
  }

  std::unique_ptr<CPlugin> Load(const char* pszName, const char* pszFile, const char* pszGuid) {
    const CPString strPath = m_home.Path(CPString("lib/plugins/lib") + pszName + ".so");
    std::filesystem::copy_file(pszFile, strPath.Str());
    auto pPlugin =
        std::make_unique<CPlugin>(_PluginEntry{pszName, strPath, pszGuid, 0}, m_home.Root(), m_note);
    EXPECT_TRUE(pPlugin->Load());
    EXPECT_TRUE(pPlugin->Start());
    return pPlugin;
  }
  static std::string HandOff(const std::string& strMsg, const std::string& strCommand = "disk_usage",
                             const std::string& strGuid = kSample) {
    return "<version=1><guid=" + strGuid + "><product=veltcwpp><combo=zxsample><command=" + strCommand +
           "><msg=" + strMsg + ">";
  }

  CTempHome m_home;
  CLogCapture m_log;
  CStepNote m_note;
  std::unique_ptr<CPlugin> m_pTaskMgr;
  std::unique_ptr<CPlugin> m_pSample;
  CMember m_agent{kAgent};
};

TEST_F(ComponentFlow, Command_ReachesItsComponent_AndTheAnswerTheAgent) {
  const _Answer answer = m_agent.Ask(
      kTaskMgr, kCommand, HandOff(R"({"ID":"demo-1","Command":"disk_usage","Param":{"path":"/"}})"));
  EXPECT_EQ(answer.uiStatus, 0u);
  zxtools::CPJsonParse json;
  ASSERT_EQ(json.LoadBuffer(answer.strData.data(), answer.strData.size()), 1) << answer.strData;
  const auto text = [&](const char* pszName) {
    CPString str;
    zxtools::CPJsonParse::GetValue(json.GetNode(pszName), str);
    return str.Str();
  };
  EXPECT_EQ(text("ID"), "demo-1");
  EXPECT_EQ(text("path"), "/");
  const double dTotal = std::stod(text("total_bytes")), dUsed = std::stod(text("used_bytes"));
  EXPECT_GT(dTotal, 0);
  EXPECT_LE(dUsed, dTotal);
  const int iPercent = std::stoi(text("used_percent"));
  EXPECT_TRUE(iPercent >= 0 && iPercent <= 100) << iPercent;
  EXPECT_EQ(m_home.ReadFile("data/zxsample/disk_usage.json"), CPString(answer.strData));
  EXPECT_FALSE(m_home.Exists("data/zxsample/disk_usage.json.tmp"));
  // A trace by the command's id finds it in both logs.
  EXPECT_TRUE(m_log.WaitFor("zxtaskmgr answered strID[demo-1] strCommand[disk_usage]"));
  EXPECT_TRUE(m_log.Contains("zxsample disk_usage strID[demo-1]"));
}

TEST_F(ComponentFlow, Path_IsTheRoot_WhenNotGiven_AndCommandNamesIgnoreCase) {
  const _Answer answer = m_agent.Ask(kTaskMgr, kCommand, HandOff(R"({"ID":"1"})", "DISK_Usage"));
  EXPECT_EQ(answer.uiStatus, 0u);
  EXPECT_THAT(answer.strData, HasSubstr(R"("path":"/")"));
}

TEST_F(ComponentFlow, WhatTheSampleCannotDo_ComesBackAsItsStatus) {
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff(R"({"ID":"1"})", "reboot")).uiStatus,
            kComponentErrCommand);
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff("{not json")).uiStatus, kComponentErrText);
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff("")).uiStatus, kComponentErrText);
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff(R"({"ID":"1","Param":{"path":"etc"}})")).uiStatus,
            kComponentErrText);
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff(R"({"ID":"1","Param":{"path":""}})")).uiStatus,
            kComponentErrText);
  const std::string strLong = R"({"ID":"1","Param":{"path":"/)" + std::string(5000, 'x') + "\"}}";
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff(strLong)).uiStatus, kComponentErrText);
  const _Answer answer =
      m_agent.Ask(kTaskMgr, kCommand, HandOff(R"({"ID":"7","Param":{"path":"/no/such/place"}})"));
  EXPECT_EQ(answer.uiStatus, kComponentErrFailed);
  EXPECT_EQ(answer.strData, "");
  EXPECT_FALSE(m_home.Exists("data/zxsample/disk_usage.json"));
  EXPECT_TRUE(m_log.WaitFor("*zxtaskmgr failed strID[7]"));
}

TEST_F(ComponentFlow, UnsavedAnswer_IsStillGiven) {
  m_home.WriteFile("data/zxsample", "in the way");
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff(R"({"ID":"9"})")).uiStatus, 0u);
  EXPECT_TRUE(m_log.Contains("*zxsample disk_usage strID[9] cannot be saved"));
}

TEST_F(ComponentFlow, OnlyTheAgent_GivesCommands) {
  CMember stranger(kOther);
  EXPECT_EQ(stranger.Ask(kTaskMgr, kCommand, HandOff(R"({"ID":"1"})")).uiStatus, kComponentErrSender);
  EXPECT_EQ(stranger.Ask(kTaskMgr, kGuidList, "{}").uiStatus, kComponentErrSender);
  EXPECT_EQ(stranger.Ask(kSample, kCommand, HandOff(R"({"ID":"1"})")).uiStatus, kComponentErrSender);
  EXPECT_EQ(m_agent.Ask(kSample, kCommand, HandOff(R"({"ID":"1"})")).uiStatus, kComponentErrSender);
  EXPECT_FALSE(m_home.Exists("data/zxsample/disk_usage.json"));
}

TEST_F(ComponentFlow, BrokenHandOffs_AreRefused) {
  for (const std::string& strText :
       {std::string(), std::string("<version=1>"), std::string("\0\0", 2), HandOff("{}", "c", "not-a-guid"),
        HandOff("{}", "c", ""), std::string("<msg=x>")})
    EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, strText).uiStatus, kComponentErrText) << strText;
}

TEST_F(ComponentFlow, MissingComponent_IsToldAtOnce) {
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff("{}", "c", kOther)).uiStatus, kBusErrNoTarget);
  CMember silent(kOther);
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff("{}", "c", kOther)).uiStatus, kBusErrNoReceiver);
}

TEST_F(ComponentFlow, ComponentThatLeaves_IsToldTheAgent) {
  CMember silent(kOther);
  silent.Listen(kCommand);
  ASSERT_EQ(m_agent.Send(kTaskMgr, kCommand, HandOff(R"({"ID":"1"})", "c", kOther)), 0u);
  ASSERT_TRUE(silent.WaitMessage());
  silent.Leave();
  EXPECT_EQ(m_agent.Next().uiStatus, kBusErrGone);
}

TEST_F(ComponentFlow, StopWithACommandUnderWay_EndsIt) {
  CMember silent(kOther);
  silent.Listen(kCommand);
  ASSERT_EQ(m_agent.Send(kTaskMgr, kCommand, HandOff(R"({"ID":"1"})", "c", kOther)), 0u);
  ASSERT_TRUE(silent.WaitMessage());
  m_pTaskMgr->Stop();
  EXPECT_EQ(m_agent.Next().uiStatus, kBusErrGone);
  m_pTaskMgr->Unload();
}

TEST_F(ComponentFlow, GuidList_IsTaken) {
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kGuidList, R"({"command":{}})").uiStatus, 0u);
  EXPECT_TRUE(m_log.Contains(R"(zxtaskmgr keeps the GUID list strGuidList[{"command":{}}])"));
}

TEST_F(ComponentFlow, SecondLife_AfterAFullStop_Works) {
  for (CPlugin* pPlugin : {m_pTaskMgr.get(), m_pSample.get()}) {
    pPlugin->Stop();
    pPlugin->Unload();
    ASSERT_TRUE(pPlugin->Load());
    ASSERT_TRUE(pPlugin->Start());
    EXPECT_EQ(pPlugin->Status(), 2);
  }
  EXPECT_EQ(m_agent.Ask(kTaskMgr, kCommand, HandOff(R"({"ID":"1"})")).uiStatus, 0u);
}

TEST_F(ComponentFlow, TakenGuid_FailsTheStart) {
  CPlugin second(_PluginEntry{"second", m_home.Path("lib/plugins/second.so"), kSample, 0}, m_home.Root(),
                 m_note);
  std::filesystem::copy_file(ZX_SAMPLE_SO, m_home.Path("lib/plugins/second.so").Str());
  ASSERT_TRUE(second.Load());
  EXPECT_FALSE(second.Start());
}

TEST_F(ComponentFlow, WrongGuid_GivesNoObject) {
  CPlugin wrong(_PluginEntry{"wrong", m_home.Path("lib/plugins/libzxsample.so"), kOther, 0}, m_home.Root(),
                m_note);
  EXPECT_FALSE(wrong.Load());
}

}  // namespace
