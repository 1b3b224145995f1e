// A manager over the fake cloud, bus and machine-id libraries, in a home and a system root of its own. It is
// the process's manager, so that its threads and the cloud's callbacks find it. Nothing is started.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "agent/AgentMgr.h"
#include "data/AgentCodes.h"
#include "data/AgentThreads.h"
#include "support/FakeBus.h"
#include "support/FakeCloud.h"
#include "support/FakeMid.h"
#include "support/LogChannels.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

// The pauses a manager asks for; bShort makes a millisecond of each, which still lets other threads end.
class CPauses {
 public:
  explicit CPauses(bool bShort) : m_bShort(bShort) {}
  void operator()(uint32_t dwMs) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_pauses.push_back(dwMs);
    }
    if (m_fnOnPause)
      m_fnOnPause(dwMs);
    CAgentMgr::SleepMs(m_bShort ? 1 : dwMs);
  }
  std::vector<uint32_t> All() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pauses;
  }
  std::function<void(uint32_t)> m_fnOnPause;

 private:
  const bool m_bShort;
  mutable std::mutex m_mutex;
  std::vector<uint32_t> m_pauses;
};

class CManagerTest : public ::testing::Test {
 protected:
  explicit CManagerTest(bool bShortPauses = false)
      : m_pauses(bShortPauses), m_mgr(m_home.Path("root"), [this](uint32_t dwMs) { m_pauses(dwMs); }) {
    m_cloud.Reset();
    CFakeMid::Instance().Reset();
    m_hLogZxcloud = m_log.Capture().Open("zxcloud", kLogDetail);
    m_pBefore = CAgentMgr::SetCurrent(&m_mgr);
    m_home.MakeDir("root/etc");
  }
  ~CManagerTest() override {
    if (m_mgr.IsWorking())
      m_mgr.Stop();
    EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs)) << "a thread outlives its test";
    CAgentMgr::SetCurrent(m_pBefore);
  }

  // The home and the bus, as the host hands them over before Start.
  void Prepare() {
    m_mgr.Init(m_home.Root());
    m_mgr.SetCtx(static_cast<IBusContext*>(&m_bus));
  }
  // What Start loads, without the cloud and the threads.
  void Load() {
    Prepare();
    ASSERT_EQ(m_mgr.Data().Init(m_home.Root()), 1);
    ASSERT_TRUE(m_mgr.GetConfig());
  }
  void StoreTermConnect(int iType, int iPollerCycle) {
    m_home.WriteFile("etc/zxagent/inner/termconnect.json",
                     CPString::Make("{\"Param\":{\"type\":%d,\"poller_cycle\":%d}}", iType, iPollerCycle));
  }
  void StoreMsgSrvAddrSet(const std::string& strAddr1, const std::string& strAddr2) {
    m_home.WriteFile(
        "etc/zxagent/inner/msgsrvaddrset.json",
        R"({"Param":[{"addr":")" + strAddr1 + R"(","type":"1"},{"addr":")" + strAddr2 + R"(","type":"1"}]})");
  }
  void StoreEngineStatus(int iStatus, const char* pszAddr) {
    m_home.WriteFile("etc/zxagent/inner/engineaddr.json",
                     CPString::Make("{\"enginestatus\":%d,\"engineaddr\":\"%s\"}", iStatus, pszAddr));
  }
  void StorePersonalEdition() {
    m_home.WriteFile("etc/version.xml",
                     "<Config><CurrentVer>1</CurrentVer><SystemName>server</SystemName>"
                     "<AppId>com.tamber.veltsafe</AppId></Config>");
  }
  // A network adapter of the machine, as the kernel shows it.
  void AddAdapter(const std::string& strName, const std::string& strMac) {
    const std::string strDevice = "root/sys/devices/pci0/net/" + strName;
    m_home.WriteFile(strDevice + "/address", strMac + "\n");
    m_home.MakeDir("root/sys/class/net");
    std::filesystem::create_directory_symlink("../../devices/pci0/net/" + strName,
                                              m_home.Path("root/sys/class/net/" + strName).Str());
  }

  bool Logged(const std::string& strPart) const { return m_log.Capture().Contains(strPart); }
  std::vector<std::string> MainLines() const { return m_log.Lines("zxagent"); }

  // Messages of one type that went out on the bus.
  std::vector<std::string> Broadcasts(uint32_t uiType) const {
    std::vector<std::string> texts;
    for (const _BusCall& call : m_bus.Calls(EBusCall::BroadcastSend))
      if (call.uiType == uiType)
        texts.push_back(call.strData);
    return texts;
  }

  CTempHome m_home;
  mutable CLogChannels m_log;
  CFakeBus m_bus;
  CFakeCloud& m_cloud = CFakeCloud::Get();
  CPauses m_pauses;
  CAgentMgr m_mgr;
  HLog m_hLogZxcloud = nullptr;

 private:
  CAgentMgr* m_pBefore = nullptr;
};
