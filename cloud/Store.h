// The cloud's memory: one SQLite database owned by one thread. Everything that reads or changes it is a job
// for that thread; jobs that wait together share one synced commit.
//
// Threads: Run may be called from any thread and blocks until the job is durable (a few milliseconds, more
// on a slow disk). Jobs must not call Run. Memory: at most one waiting job per calling thread.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <string>
#include <thread>

#include "platform/db/Sqlite.h"
#include "platform/os/ZxCritSec.h"
#include "platform/os/ZxEvent.h"

namespace zxcloudd {

using zxdb::CSqlite;
using zxdb::CStatement;
using zxdb::EStep;

class CStore {
 public:
  using TJob = std::function<bool(CSqlite&)>;

  CStore() = default;
  ~CStore();
  CStore(const CStore&) = delete;
  CStore& operator=(const CStore&) = delete;

  // Creates strDir (0700) and the database when they are not there, takes the directory's lock (one daemon
  // per directory) and starts the thread. On failure strError says what and why.
  bool Open(const std::string& strDir, std::string& strError);
  // Commits that would make the database larger fail from now on, as on a full disk.
  bool SetMaxBytes(int64_t i64Bytes);
  // Ends after the jobs that wait; later ones fail at once. Idempotent.
  void Close();

  // True: the job answered true and its changes are on disk. False: nothing of it happened. A job answers
  // false only when the database failed.
  bool Run(const TJob& job) TS_EXCLUDES(m_csQueue);
  // False after a job or a commit failed (disk full, for instance), true again after the next change that
  // works.
  bool Healthy() const { return m_bHealthy.load(std::memory_order_relaxed); }

 private:
  struct _Job {
    const TJob* pJob;
    HZxEvent hDone;
    bool bResult = false;
  };

  bool CreateSchema(std::string& strError);
  void Loop();
  void RunGroup(const std::deque<_Job*>& listJobs);
  bool RunOne(_Job& job, std::string& strError);

  CSqlite m_db;  // the store's thread only, once it runs
  int m_iLockFd = -1;
  std::thread m_thread;
  HZxEvent m_hWork = nullptr;  // set with every job and on Close
  CCritSec m_csQueue;
  std::deque<_Job*> m_listQueue TS_GUARDED_BY(m_csQueue);
  bool m_bClosed TS_GUARDED_BY(m_csQueue) = true;
  std::atomic<bool> m_bHealthy{false};
};

}  // namespace zxcloudd
