#include "zxctl/local/LogFollower.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "zxctl/HomeLogs.h"

namespace zxctl {

namespace {

constexpr size_t kMaxPart = 4u << 20;  // of one log at once; what is older is skipped

}  // namespace

CLogFollower::CLogFollower(std::string strHome) : m_strHome(std::move(strHome)) {}

CLogFollower::~CLogFollower() {
  if (m_fdNotify >= 0)
    close(m_fdNotify);
}

bool CLogFollower::Open() {
  m_fdNotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (m_fdNotify < 0 || !Watch())
    return false;
  std::vector<_LogRecord> listIgnored;
  for (const std::string& strName : LogFiles(m_strHome))
    ReadLog(strName, true, listIgnored);
  return true;
}

// Also what is watched already. False with errno set: not log/ itself.
bool CLogFollower::Watch() const {
  const std::vector<std::string> listFolders = LogFolders(m_strHome);
  for (const std::string& strFolder : listFolders) {
    if (inotify_add_watch(m_fdNotify, (m_strHome + strFolder).c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO) <
            0 &&
        strFolder == listFolders.front())
      return false;
  }
  return !listFolders.empty();
}

void CLogFollower::ReadLog(const std::string& strName, bool bSkip, std::vector<_LogRecord>& listRecords) {
  if (!strName.ends_with(".log"))
    return;
  const int fd = open((m_strHome + strName).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  struct stat st {};
  if (fd < 0)
    return;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    _Place& place = m_places[strName];
    if (place.u64Inode != st.st_ino || st.st_size < place.i64Offset)
      place = {st.st_ino, 0, {}};
    if (bSkip)
      place.i64Offset = st.st_size;
    const int64_t i64New = st.st_size - place.i64Offset;
    const auto uPart = std::min<size_t>(static_cast<size_t>(std::max<int64_t>(i64New, 0)), kMaxPart);
    std::string strData(uPart, '\0');
    const ssize_t iRead = pread(fd, strData.data(), uPart, st.st_size - static_cast<int64_t>(uPart));
    strData.resize(static_cast<size_t>(std::max<ssize_t>(iRead, 0)));
    place.i64Offset = st.st_size;
    strData.insert(0, place.strRest);
    const size_t uLine = strData.rfind('\n');
    place.strRest = uLine == std::string::npos ? strData : strData.substr(uLine + 1);
    if (place.strRest.size() > kMaxPart)
      place.strRest.clear();
    if (uLine != std::string::npos) {
      for (_LogRecord& record : SplitLog(LogChannel(strName), std::string_view(strData).substr(0, uLine + 1)))
        listRecords.push_back(std::move(record));
    }
  }
  close(fd);
}

std::vector<_LogRecord> CLogFollower::Read() {
  alignas(inotify_event) char szEvents[16384];
  while (read(m_fdNotify, szEvents, sizeof(szEvents)) > 0) {
  }
  std::vector<_LogRecord> listRecords;
  (void)Watch();  // a component may have come
  for (const std::string& strName : LogFiles(m_strHome))
    ReadLog(strName, false, listRecords);
  std::stable_sort(listRecords.begin(), listRecords.end(),
                   [](const _LogRecord& a, const _LogRecord& b) { return a.i64AtMs < b.i64AtMs; });
  return listRecords;
}

}  // namespace zxctl
