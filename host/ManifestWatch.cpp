#include "ManifestWatch.h"

#include <dirent.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                             IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;

}  // namespace

CManifestWatch::CManifestWatch(CPString strHome)
    : m_strHome(std::move(strHome)), m_iFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

CManifestWatch::~CManifestWatch() {
  if (m_iFd >= 0)
    close(m_iFd);
}

int CManifestWatch::Add(const CPString& strDirectory) {
  const int iWatch = inotify_add_watch(m_iFd, strDirectory.c_str(), kEvents);
  if (iWatch < 0 && errno != ENOENT && errno != ENOTDIR)
    m_bComplete = false;
  return iWatch;
}

void CManifestWatch::Arm() {
  m_bComplete = m_iFd >= 0;
  if (m_iFd < 0)
    return;
  m_iEtc = Add(m_strHome + "etc");
  m_iComs = Add(m_strHome + "etc/coms");
  const CPString strClient = m_strHome + "etc/coms/client";
  if (Add(strClient) < 0)
    return;
  DIR* pDir = opendir(strClient.c_str());
  if (pDir == nullptr)
    return;
  while (const dirent* pEntry = readdir(pDir)) {  // NOLINT(concurrency-mt-unsafe) the stream is ours
    if (pEntry->d_name[0] != '.' && (pEntry->d_type == DT_DIR || pEntry->d_type == DT_UNKNOWN))
      Add(strClient + "/" + pEntry->d_name);
  }
  closedir(pDir);
}

bool CManifestWatch::TakeEvents() {
  alignas(inotify_event) char buffer[16384];
  bool bMatters = false;
  ssize_t iRead = 0;
  while ((iRead = read(m_iFd, buffer, sizeof(buffer))) > 0) {
    for (ssize_t i = 0; i < iRead;) {
      const auto* pEvent = reinterpret_cast<const inotify_event*>(buffer + i);
      const char* pszName = pEvent->len != 0 ? pEvent->name : "";
      const bool bOther =
          (pEvent->wd == m_iEtc && std::strcmp(pszName, "coms") != 0 && *pszName != '\0') ||
          (pEvent->wd == m_iComs && std::strcmp(pszName, "client") != 0 && *pszName != '\0') ||
          (pEvent->mask & IN_IGNORED) != 0;
      bMatters = bMatters || !bOther;
      i += static_cast<ssize_t>(sizeof(inotify_event) + pEvent->len);
    }
  }
  return bMatters;
}
