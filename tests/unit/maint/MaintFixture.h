// The maintenance part over a home of its own, with a stand-in for the manager and pauses that the test
// controls: the reader's seconds pass when the test lets them, the stop wait when the reader has ended.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "data/AgentThreads.h"
#include "maint/AgentMaint.h"
#include "platform/os/ZxEvent.h"
#include "support/FakeHub.h"
#include "support/FileTree.h"
#include "support/MainLog.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

inline constexpr uint32_t kReaderPauseMs = 1000;
inline constexpr uint32_t kStopPauseMs = 300;

// Takes the results that the reader uploads; a hook may answer, block or throw.
class CUploadHub final : public CFakeHub {
 public:
  void SetUploadHook(std::function<uint32_t()> fnHook) { m_fnHook = std::move(fnHook); }  // before it is used
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (const _UploadedText& upload : Uploads())
      texts.push_back(upload.strMsg.Str());
    return texts;
  }

  uint32_t ZxcloudSendMsg(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                          int iPriv, int iMsgType, const CPString& strMsg) override {
    const uint32_t uiRet = CFakeHub::ZxcloudSendMsg(u64DataId, strProduct, strCombo, iPriv, iMsgType, strMsg);
    return m_fnHook ? m_fnHook() : uiRet;
  }

 private:
  std::function<uint32_t()> m_fnHook;
};

// The pauses of the maintenance part. The reader's pauses (one second) wait for permits; the stop wait's
// pauses let the reader go and wait until it has ended, unless bStopSkips.
class CMaintPauses {
 public:
  CMaintPauses() : m_hPermits(ZxCreateEvent()) {}
  ~CMaintPauses() { ZxDestroyEvent(m_hPermits); }
  CMaintPauses(const CMaintPauses&) = delete;
  CMaintPauses& operator=(const CMaintPauses&) = delete;

  void operator()(uint32_t dwMs) {
    if (dwMs == kReaderPauseMs) {
      m_reader.Set();
      while (!TakePermit())
        ZxWaitEvent(m_hPermits);  // where a cancelled thread ends
      return;
    }
    EXPECT_EQ(dwMs, kStopPauseMs);
    m_stop.Set();
    if (m_bStopSkips)
      return;
    Free();
    EventuallyTrue([] { return AgentThreads().Running() == 0; });
  }
  void Permit(uint32_t uCount) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_uPermits += uCount;
    }
    ZxSetEvent(m_hPermits);
  }
  void Free() { Permit(1u << 20); }                                   // the reader never waits again
  bool WaitReader(uint32_t uCount) { return m_reader.Wait(uCount); }  // it began that many pauses
  uint32_t ReaderPauses() { return m_reader.Count(); }
  uint32_t StopPauses() { return m_stop.Count(); }

  bool m_bStopSkips = false;

 private:
  bool TakePermit() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_uPermits == 0)
      return false;
    --m_uPermits;
    return true;
  }

  HZxEvent m_hPermits;
  CEventWaiter m_reader;
  CEventWaiter m_stop;
  std::mutex m_mutex;
  uint32_t m_uPermits = 0;
};

class CMaintTest : public ::testing::Test {
 protected:
  CMaintTest() : m_maint([this](uint32_t dwMs) { m_pauses(dwMs); }) {}
  ~CMaintTest() override {
    m_maint.Uninit();
    EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs)) << "the reader outlives its test";
  }

  void Init() {
    m_maint.Init(m_home.Root());
    m_log.Clear();
  }
  std::string Path(const std::string& strRelative) const { return m_home.Root().Str() + strRelative; }
  void Result(const std::string& strName, const std::string& strText) {
    m_home.WriteFile("data/zxpmaint/result/" + strName, strText);
  }
  // Spools a script of the kind that starts no tool; the reader runs from then on.
  void Spool(const char* pszID = "id-1") {
    ASSERT_EQ(m_maint.ForwardMsg(1, "RunScriptFile", pszID, "{}"), 1);
  }
  static bool ReaderRuns() { return AgentThreads().Running() != 0; }

  CTempHome m_home;
  CMainLog m_log;
  CUploadHub m_hub;
  CMaintPauses m_pauses;
  CAgentMaint m_maint;
};
