// Log-cache forwarder: takes records from sockets and followed files, keeps them in a store on disk, and
// hands them to the agent as log caches until the agent reports that the cloud has them. What was taken is
// lost only with the disk; what cannot be taken waits at its source.
//
// The thread "zxlogforward" owns everything here but the queue of bus events; it is started by OnStart and
// joined by OnStop. Bus callbacks only put events into that queue.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FileInput.h"
#include "Forward.h"
#include "Records.h"
#include "Settings.h"
#include "SocketInput.h"
#include "Store.h"
#include "kit/Component.h"

namespace zxlogcache {

class CLogCache final : public CComponent, private IMRSendComplete {
 public:
  static constexpr char kGuid[] = "9946467F-0102-46E8-ACAC-B9EFE3CD68FD";

  CLogCache();
  ~CLogCache() override;

 private:
  // One event of the bus, in the order of arrival.
  struct _Event {
    uint64_t u64DataId = 0;
    uint32_t uiStatus = 0;
    bool bResult = false;  // the upload's result; else the agent's answer to a send
  };
  // The inputs of one source, and what they brought that is not stored yet.
  struct _Source {
    _Source(int64_t i64Id, const _SourceSettings& s, uint32_t uiBatch)
        : i64Source(i64Id), settings(s), chunks(uiBatch, s.eBody == EBody::Record) {}
    int64_t i64Source;
    const _SourceSettings& settings;
    CChunks chunks;
    std::vector<std::unique_ptr<CSocketInput>> sockets;
    std::vector<std::unique_ptr<CFileInput>> files;
  };

  void OnMessage(const GUID& sender, uint32_t uiType, std::string_view data, const CBaton& baton) override;
  void SendCallback(unsigned int iRetReply, long i64MsgType, const unsigned char* pResponse,
                    unsigned int uiResponseLength, unsigned long long ui64ACT, void* pContext) override;
  bool OnStart() override;
  void OnStop() override;

  std::string Folder() const { return DataDir("zxlogcache"); }
  void Put(const _Event& event);
  void Wake() const;
  void Run();
  void Turn(uint64_t u64NowMs);
  void Wait(uint64_t u64NowMs);
  void TakeEvents(uint64_t u64NowMs);

  // The store and its inputs (LogCacheStore.cpp).
  bool OpenStore();
  bool MakeInputs();
  void OpenSockets();
  void WatchFolders();
  void ReadInputs(uint64_t u64NowMs);
  bool HasWork(uint64_t u64NowMs) const;
  bool Store(uint64_t u64NowMs);
  bool StoreInputs();
  bool MakeRoom();
  void StoreFailed(uint64_t u64NowMs);
  void StoreWorks();
  void InputsStored();
  bool KeepReserve();
  void SetPaused(bool bPaused, const char* pszWhy);
  uint64_t PendingBytes() const;
  void WriteStatus(uint64_t u64NowMs);

  const GUID m_guidAgent;
  _Settings m_settings;
  std::thread m_thread;
  std::atomic<bool> m_bStop{false};
  const int m_hWake;   // eventfd; bus callbacks use it until the bus is left
  int m_hEpoll = -1;   // of the thread
  int m_hInputs = -1;  // epoll of the sockets, taken out of m_hEpoll while nothing may be read
  int m_hNotify = -1;  // inotify on the folders of the followed files
  std::mutex m_mutex;
  std::vector<_Event> m_events;  // m_mutex

  // The thread's own.
  CStore m_store;
  std::unique_ptr<CForward> m_pForward;
  std::vector<std::unique_ptr<_Source>> m_sources;
  bool m_bPaused = false;
  bool m_bStoreSick = false;
  bool m_bNoRoom = false;     // on the disk; the reserve has been given back
  bool m_bCanLetGo = false;   // while sick: transactions without input work
  bool m_bMoreFiles = false;  // a file has more than was read in one go
  bool m_bLookAtFiles = true;
  uint64_t m_u64RetryStoreMs = 0;
  uint64_t m_u64NextLookMs = 0;  // at files and unopened sockets
  uint64_t m_u64NextSweepMs = 0;
  bool m_bStatusDue = false;
  uint64_t m_u64NextStatusMs = 0;
  uint64_t m_u64Taken = 0;    // records stored
  uint64_t m_u64Dropped = 0;  // records dropped to make room
  std::string m_strStatus;    // as written last
};

}  // namespace zxlogcache
