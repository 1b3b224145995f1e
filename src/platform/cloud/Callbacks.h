// The host's callbacks behind one turnstile: one at a time whatever thread reports, a callback may cause
// another on its own thread (a log line), and none runs once Close() has returned.
// No lock is held while a callback runs.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>

#include "platform/cloud/zxcloud.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace zxcloud {

// Values of the data callback's flag.
enum class EData : int { Short = 1, Long = 2, Tconf = 3, Poll = 5 };

class CCallbacks {
 public:
  explicit CCallbacks(const zxcloud_record& record);
  ~CCallbacks();
  CCallbacks(const CCallbacks&) = delete;
  CCallbacks& operator=(const CCallbacks&) = delete;

  // Null callbacks are left out.
  void Push(int iPcid, const char* pszText);
  void Tconf(const std::string& strPcid);
  void Connect(const std::string& strIp, uint16_t wPort);
  void Disconnect();
  void Log(int iLevel, const char* pszText);
  void Poll(const std::string& strText);
  void Data(EData eFlag, const std::string& strText);

  // From here on nothing is called any more; waits for a callback that is running on another thread.
  void Close() TS_EXCLUDES(m_cs);
  // The calling thread is inside a callback.
  bool Inside() TS_EXCLUDES(m_cs);

 private:
  class CTurn;
  bool Enter() TS_EXCLUDES(m_cs);
  void Leave() TS_EXCLUDES(m_cs);

  const zxcloud_record m_record;  // the callbacks; its texts are not used
  CCritSec m_cs;
  pthread_cond_t m_cond = PTHREAD_COND_INITIALIZER;
  bool m_bClosed TS_GUARDED_BY(m_cs) = false;
  uint32_t m_uDepth TS_GUARDED_BY(m_cs) = 0;
  pthread_t m_hOwner TS_GUARDED_BY(m_cs){};  // valid while m_uDepth is not 0
};

}  // namespace zxcloud
