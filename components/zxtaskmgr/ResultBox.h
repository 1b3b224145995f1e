// What components answered, on its way to the cloud: kept on disk as task results until the agent reports
// that the cloud has them (bus type 20105), repeated when refused. The same keeping and pacing as for log
// caches (zxlogcache/Store.h, zxlogcache/Forward.h), one result for each send.
//
// Also hands policies back to the agent: each file that somebody puts into policy/ of its folder is sent as
// it is and, once the agent took it, moved to policy/taken/.
//
// Threads: the thread "zxtaskmgr" owns the store; Start and Stop are the host's, everything else may come
// from any thread and only queues. Completions of its calls come until the bus context is uninitialized: it
// lives longer than that.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/bus/zxbus.h"
#include "platform/log/Log.h"
#include "zxlogcache/Forward.h"
#include "zxlogcache/Store.h"

// The record of bus type 20204; texts longer than their fields are cut.
std::string TaskResultRecord(const zxlogcache::_SourceSettings& source, uint64_t u64DataId,
                             std::string_view body);
// The record of bus type 20105. False: too short.
bool ParseUploadResult(std::string_view data, uint64_t& u64DataId, int32_t& iResult);

class CResultBox : private IMRSendComplete {
 public:
  CResultBox() = default;
  ~CResultBox() override { Stop(); }
  CResultBox(const CResultBox&) = delete;
  CResultBox& operator=(const CResultBox&) = delete;

  // strDir: the task manager's folder, ends in "/".
  void Start(const std::string& strDir, IBusContext* pBus, HLog hLog);
  void Stop();
  // Keeps a result; fnKept runs on the thread once it is on the disk, or cannot be put there (false).
  void Add(const zxlogcache::_SourceSettings& source, std::string strBody, std::function<void(bool)> fnKept);
  void OnUploadResult(uint64_t u64DataId, int32_t iResult);

 private:
  struct _New {
    zxlogcache::_SourceSettings source;
    std::string strBody;
    std::function<void(bool)> fnKept;
  };
  struct _Event {
    uint64_t u64DataId = 0;
    uint32_t uiStatus = 0;
    enum { Reply, Result, Policy } eKind = Reply;
  };

  void SendCallback(unsigned int iRetReply, long i64MsgType, const unsigned char* pResponse,
                    unsigned int uiResponseLength, unsigned long long ui64ACT, void* pContext) override;
  void Put(const _Event& event);
  void Run();
  void Turn(std::vector<_New>& news, const std::vector<_Event>& events, uint64_t u64NowMs);
  bool Open(uint64_t u64NowMs);
  void Keep(std::vector<_New>& news, uint64_t u64NowMs);
  bool Store(const std::vector<_New>& news, uint64_t u64NowMs);
  void SendPolicy(uint64_t u64NowMs);
  void PolicyAnswered(uint32_t uiStatus, uint64_t u64NowMs);
  uint32_t Send(uint32_t uiType, const std::string& strData, void* pContext);

  std::string m_strDir;
  IBusContext* m_pBus = nullptr;
  HLog m_hLog = nullptr;
  std::thread m_thread;
  std::mutex m_mutex;
  std::condition_variable m_cond;
  bool m_bStop = false;          // m_mutex
  std::vector<_New> m_new;       // m_mutex
  std::vector<_Event> m_events;  // m_mutex

  // The thread's own.
  zxlogcache::_Settings m_settings;
  zxlogcache::CStore m_store;
  std::unique_ptr<zxlogcache::CForward> m_pForward;
  uint64_t m_u64RetryMs = 0;
  bool m_bSick = false;
  std::string m_strPolicy;     // file name of the policy under way
  uint64_t m_u64PolicyMs = 0;  // not before
};
