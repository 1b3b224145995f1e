#include "InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

CInstanceLock::~CInstanceLock() {
  if (m_iFd >= 0)
    close(m_iFd);
}

CInstanceLock::EResult CInstanceLock::Lock(const CPString& strHome) {
  if (mkdir((strHome + "run").c_str(), 0755) != 0 && errno != EEXIST)
    return EResult::Failed;
  m_iFd = open((strHome + "run/zxhost.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (m_iFd < 0)
    return EResult::Failed;
  if (flock(m_iFd, LOCK_EX | LOCK_NB) != 0)
    return errno == EWOULDBLOCK ? EResult::Taken : EResult::Failed;
  const CPString strPid = CPString::Make("%d\n", getpid());
  if (ftruncate(m_iFd, 0) != 0 || write(m_iFd, strPid.data(), strPid.GetLength()) < 0)
    return EResult::Failed;
  return EResult::Locked;
}
