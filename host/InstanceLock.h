// One host per home: an exclusive lock on run/zxhost.lock for the life of the object. The file holds the pid
// for people; the lock, not the file, is what counts, so a crash leaves nothing to clean up.
#pragma once

#include "platform/text/PString.h"

class CInstanceLock {
 public:
  enum class EResult { Locked, Taken, Failed };

  CInstanceLock() = default;
  ~CInstanceLock();
  CInstanceLock(const CInstanceLock&) = delete;
  CInstanceLock& operator=(const CInstanceLock&) = delete;

  // Creates run/ (0755) when needed. Failed: errno says why.
  EResult Lock(const CPString& strHome);

 private:
  int m_iFd = -1;
};
