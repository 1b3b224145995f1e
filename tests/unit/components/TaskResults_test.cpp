// What the task manager keeps for the cloud: results until the agent says that they are there, policies until
// the agent took them. The test is the agent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>

#include "platform/bus/zxbus.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "support/Waiter.h"
#include "zxtaskmgr/ResultBox.h"

using testing::HasSubstr;

namespace {

constexpr char kAgent[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
constexpr char kTaskMgr[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";
constexpr char kSample[] = "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D";

class CAgent : public IMRReceiveComplete {
 public:
  CAgent() : m_pBus(ZxBusCreateContext()) {
    const GUID guid(kAgent);
    EXPECT_EQ(m_pBus->Initialize(&guid), 0u);
    EXPECT_EQ(m_pBus->Receive(20204, this), 0u);
    EXPECT_EQ(m_pBus->Receive(20001, this), 0u);
  }
  ~CAgent() override {
    m_pBus->Uninitialize();
    ZxBusDestroyContext(m_pBus);
  }
  CAgent(const CAgent&) = delete;
  CAgent& operator=(const CAgent&) = delete;

  void Answer(uint32_t uiStatus) {
    const std::lock_guard lock(m_mutex);
    m_uiStatus = uiStatus;
  }
  bool WaitCount(size_t uCount) {
    std::unique_lock lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::seconds(20), [&] { return m_data.size() >= uCount; });
  }
  std::string At(size_t u) {
    const std::lock_guard lock(m_mutex);
    return m_data.at(u);
  }

 private:
  void ReceiveCallback(const GUID&, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                       void* pBaton, void* pContext) override {
    uint32_t uiStatus = 0;
    {
      const std::lock_guard lock(m_mutex);
      m_data.emplace_back(reinterpret_cast<const char*>(pData), uiLength);
      uiStatus = m_uiStatus;
    }
    static_cast<IBusContext*>(pContext)->Reply(uiStatus, i64MsgType, nullptr, 0, pBaton);
    m_cond.notify_all();
  }

  IBusContext* m_pBus;
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<std::string> m_data;
  uint32_t m_uiStatus = 0;
};

class TaskResults : public testing::Test {
 protected:
  TaskResults() : m_pBus(ZxBusCreateContext()) {
    m_log.Open("zxtaskmgr");
    const GUID guid(kTaskMgr);
    EXPECT_EQ(m_pBus->Initialize(&guid), 0u);
    Start();
  }
  ~TaskResults() override {
    m_pBox->Stop();
    m_pBus->Uninitialize();
    ZxBusDestroyContext(m_pBus);
  }
  void Start() {
    m_pBox = std::make_unique<CResultBox>();
    m_pBox->Start(m_home.Path("data/zxtaskmgr/").Str(), m_pBus, m_log.Open("zxtaskmgr"));
  }
  void Restart() {
    m_pBox->Stop();
    m_listOld.push_back(std::move(m_pBox));  // calls of it may still be under way
    Start();
  }
  bool Add(const std::string& strBody) {
    zxlogcache::_SourceSettings source;
    source.strName = "sample";
    source.strGuid = kSample;
    source.strProduct = "veltcwpp";
    source.strCombo = "zxsample";
    source.iPriv = 1;
    source.eBody = zxlogcache::EBody::Record;
    CEventWaiter done;
    bool bResult = false;
    m_pBox->Add(source, strBody, [&](bool bKept) {
      bResult = bKept;
      done.Set();
    });
    EXPECT_TRUE(done.Wait());
    return bResult;
  }
  static uint64_t DataId(const std::string& strRecord) {
    uint64_t u64 = 0;
    std::memcpy(&u64, strRecord.data() + 200, sizeof(u64));
    return u64;
  }

  CTempHome m_home;
  CLogCapture m_log;
  IBusContext* m_pBus;
  std::unique_ptr<CResultBox> m_pBox;
  std::vector<std::unique_ptr<CResultBox>> m_listOld;
};

TEST_F(TaskResults, Record_HasItsFieldsWhereTheAgentReadsThem) {
  zxlogcache::_SourceSettings source;
  source.strGuid = kSample;
  source.strProduct = std::string(100, 'p');
  source.strCombo = "combo";
  source.iPriv = 3;
  source.iMsgType = 1;
  const std::string strRecord = TaskResultRecord(source, 0x1122334455667788, "body");
  ASSERT_EQ(strRecord.size(), 216u);
  EXPECT_EQ(strRecord.substr(0, 8), std::string("\3\0\0\0\1\0\0\0", 8));
  EXPECT_STREQ(strRecord.c_str() + 8, kSample);
  EXPECT_STREQ(strRecord.c_str() + 72, "combo");
  EXPECT_EQ(std::string(strRecord.c_str() + 136), std::string(63, 'p'));
  EXPECT_EQ(DataId(strRecord), 0x1122334455667788u);
  EXPECT_EQ(strRecord.substr(208), std::string("\4\0\0\0body", 8));
}

TEST_F(TaskResults, UploadResult_NeedsItsWholeRecord) {
  std::string strRecord(48, '\0');
  strRecord[4] = '\7';
  strRecord[8] = '\11';
  uint64_t u64DataId = 0;
  int32_t iResult = 0;
  EXPECT_TRUE(ParseUploadResult(strRecord, u64DataId, iResult));
  EXPECT_EQ(iResult, 7);
  EXPECT_EQ(u64DataId, 9u);
  EXPECT_FALSE(ParseUploadResult(strRecord.substr(0, 47), u64DataId, iResult));
}

TEST_F(TaskResults, Result_IsKept_OverARestart_UntilTheCloudHasIt) {
  EXPECT_TRUE(Add("answer"));  // nobody there
  CAgent agent;
  ASSERT_TRUE(agent.WaitCount(1));
  EXPECT_EQ(agent.At(0).substr(212), "answer");
  Restart();
  ASSERT_TRUE(agent.WaitCount(2)) << "no upload result came for it";
  EXPECT_EQ(agent.At(1), agent.At(0));
  m_pBox->OnUploadResult(DataId(agent.At(1)), static_cast<int32_t>(0xB0010026));
  ASSERT_TRUE(agent.WaitCount(3));
  m_pBox->OnUploadResult(DataId(agent.At(2)), 0);
  EXPECT_TRUE(Add("second"));
  ASSERT_TRUE(agent.WaitCount(4));
  EXPECT_EQ(agent.At(3).substr(212), "second");
  Restart();
  ASSERT_TRUE(m_log.WaitFor("zxtaskmgr store is open results[1]"));
}

TEST_F(TaskResults, RefusedResult_IsRepeated) {
  CAgent agent;
  agent.Answer(0xB0010003);
  EXPECT_TRUE(Add("answer"));
  ASSERT_TRUE(agent.WaitCount(2));
  agent.Answer(0);
  ASSERT_TRUE(agent.WaitCount(3));
  EXPECT_EQ(agent.At(2), agent.At(0));
}

TEST_F(TaskResults, WithoutADisk_ItIsSaid) {
  m_pBox->Stop();
  m_home.Remove("data");
  m_home.WriteFile("data", "in the way");
  Start();
  EXPECT_FALSE(Add("answer"));
  EXPECT_TRUE(m_log.Contains("**zxtaskmgr cannot open its store"));
  m_home.Remove("data");
  EXPECT_TRUE(EventuallyTrue([&] { return Add("answer"); }));
}

TEST_F(TaskResults, Policy_IsHandedToTheAgent_AndPutAside) {
  CAgent agent;
  m_home.WriteFile("data/zxtaskmgr/policy/b.json", "{\"second\":1}");
  m_home.WriteFile("data/zxtaskmgr/policy/a.txt", "no policy");
  ASSERT_TRUE(agent.WaitCount(1));
  EXPECT_EQ(agent.At(0), "{\"second\":1}");
  EXPECT_TRUE(EventuallyTrue([&] { return m_home.Exists("data/zxtaskmgr/policy/taken/b.json"); }));
  EXPECT_FALSE(m_home.Exists("data/zxtaskmgr/policy/b.json"));
  EXPECT_TRUE(m_home.Exists("data/zxtaskmgr/policy/a.txt"));
}

TEST_F(TaskResults, RefusedPolicy_Stays) {
  CAgent agent;
  agent.Answer(0xB0010001);
  m_home.WriteFile("data/zxtaskmgr/policy/a.json", "{}");
  ASSERT_TRUE(agent.WaitCount(1));
  ASSERT_TRUE(m_log.WaitFor("*zxtaskmgr policy not taken, tried again file[a.json] iStatus[b0010001]"));
  EXPECT_TRUE(m_home.Exists("data/zxtaskmgr/policy/a.json"));
}

}  // namespace
