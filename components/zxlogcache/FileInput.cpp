#include "FileInput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace zxlogcache {
namespace {

constexpr size_t kHeadBytes = 256;
constexpr size_t kReadBytes = 128u << 10;
// A program keeps writing to its renamed file until it opens the new one.
constexpr uint64_t kRotatedQuietMs = 5000;

bool StatRegular(int hFd, struct stat& st) {
  return fstat(hFd, &st) == 0 && S_ISREG(st.st_mode);
}

std::string HeadOf(int hFd, size_t uBytes) {
  std::string strHead(std::min(uBytes, kHeadBytes), '\0');
  const ssize_t iBytes = strHead.empty() ? 0 : pread(hFd, strHead.data(), strHead.size(), 0);
  strHead.resize(iBytes > 0 ? static_cast<size_t>(iBytes) : 0);
  return strHead;
}

int OpenRegular(const std::string& strPath, struct stat& st) {
  // Non-blocking: a FIFO under that name must not hold the thread.
  const int hFd = open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (hFd < 0 || StatRegular(hFd, st))
    return hFd;
  close(hFd);
  errno = EINVAL;
  return -1;
}

bool IsDeleted(int hFd) {
  struct stat st {};
  return fstat(hFd, &st) == 0 && st.st_nlink == 0;
}

bool IsSame(const _FileMark& mark, const struct stat& st) {
  return mark.u64Device == st.st_dev && mark.u64Inode == st.st_ino;
}

}  // namespace

CFileInput::CFileInput(const _FileSettings& settings, uint32_t uiMaxRecord, HLog hLog)
    : m_settings(settings),
      m_uiMaxRecord(uiMaxRecord),
      m_hLog(hLog),
      m_buffer(std::max<size_t>(kReadBytes, size_t{uiMaxRecord} + 1)) {}

CFileInput::~CFileInput() {
  for (const _Open& file : m_open)
    close(file.hFd);
}

void CFileInput::Resume(const std::vector<_FileMark>& marks) {
  m_known = marks;
  m_bFirst = marks.empty();
  struct stat st {};
  const bool bThere = stat(m_settings.strPath.c_str(), &st) == 0;
  const std::vector<_FileMark> known = m_known;
  for (const _FileMark& mark : known) {
    if (!bThere || !IsSame(mark, st))
      FindRotated(mark);
  }
}

// A file that was followed and has another name by now: in the same directory.
void CFileInput::FindRotated(const _FileMark& mark) {
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::path(m_settings.strPath).parent_path();
  for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    struct stat st {};
    if (stat(it->path().c_str(), &st) == 0 && IsSame(mark, st) && Adopt(it->path().string(), mark))
      return;
  }
  LogWarnTo(m_hLog, "*zxlogforward a followed file is gone strPath[%s] inode[%llu] read up to[%llu]",
            mark.strPath, mark.u64Inode, mark.u64Offset);
  std::erase_if(m_known, [&](const _FileMark& known) {
    return known.u64Inode == mark.u64Inode && known.u64Device == mark.u64Device;
  });
  m_ended.push_back(mark);
}

bool CFileInput::Adopt(const std::string& strPath, const _FileMark& mark) {
  _Open file;
  struct stat st {};
  file.hFd = OpenRegular(strPath, st);
  if (file.hFd < 0)
    return false;
  if (!IsSame(mark, st) || HeadOf(file.hFd, mark.strHead.size()) != mark.strHead) {
    close(file.hFd);
    return false;
  }
  file.mark = mark;
  m_open.push_back(file);
  std::erase_if(m_known, [&](const _FileMark& known) { return IsSame(known, st); });
  return true;
}

void CFileInput::OpenCurrent() {
  struct stat st {};
  if (stat(m_settings.strPath.c_str(), &st) != 0)
    return;
  if (!m_open.empty() && IsSame(m_open.back().mark, st))
    return;
  for (const _FileMark& mark : std::vector<_FileMark>(m_known)) {
    if (IsSame(mark, st) && Adopt(m_settings.strPath, mark))
      return;
  }
  _Open file;
  file.hFd = OpenRegular(m_settings.strPath, st);
  if (file.hFd < 0)
    return;
  std::erase_if(m_known, [&](const _FileMark& known) { return IsSame(known, st); });  // the inode of another
  file.mark.strPath = m_settings.strPath;
  file.mark.u64Device = st.st_dev;
  file.mark.u64Inode = st.st_ino;
  if (m_bFirst && m_settings.bFromEnd)
    file.mark.u64Offset = static_cast<uint64_t>(st.st_size);
  file.mark.strHead = HeadOf(file.hFd, file.mark.u64Offset);
  m_bFirst = false;
  LogInfoTo(m_hLog, "zxlogforward follows strPath[%s] inode[%llu] offset[%llu]", m_settings.strPath,
            file.mark.u64Inode, file.mark.u64Offset);
  m_open.push_back(file);
  Note(m_open.back());
}

bool CFileInput::Poll(CChunks& chunks, uint64_t u64Budget, uint64_t u64NowMs) {
  OpenCurrent();
  struct stat st {};
  const bool bThere = stat(m_settings.strPath.c_str(), &st) == 0;
  for (auto it = m_open.begin(); it != m_open.end();) {
    if (Read(*it, chunks, u64Budget))
      return true;
    const bool bRotated =
        std::next(it) != m_open.end() || (bThere && !IsSame(it->mark, st)) || IsDeleted(it->hFd);
    if (!bRotated || !it->bQuiet) {
      it->bQuiet = true;
      it->u64QuietSinceMs = u64NowMs;
    }
    if (bRotated && u64NowMs - it->u64QuietSinceMs >= kRotatedQuietMs) {
      // The last line of a file that nobody continues is a line without its end.
      const ssize_t iRest =
          pread(it->hFd, m_buffer.data(), m_uiMaxRecord, static_cast<off_t>(it->mark.u64Offset));
      if (iRest > 0)
        AddLine({m_buffer.data(), static_cast<size_t>(iRest)}, m_uiMaxRecord, chunks);
      End(*it);
      it = m_open.erase(it);
      continue;
    }
    ++it;
  }
  return false;
}

// True: the budget is used up and the file has more.
bool CFileInput::Read(_Open& file, CChunks& chunks, uint64_t u64Budget) {
  struct stat st {};
  if (!StatRegular(file.hFd, st))
    return false;
  CheckTruncated(file, static_cast<uint64_t>(st.st_size));
  for (;;) {
    const ssize_t iBytes =
        pread(file.hFd, m_buffer.data(), m_buffer.size(), static_cast<off_t>(file.mark.u64Offset));
    if (iBytes <= 0)
      return false;
    const size_t uUsed = CutLines({m_buffer.data(), static_cast<size_t>(iBytes)}, m_uiMaxRecord, chunks);
    if (uUsed == 0)
      return false;  // an incomplete line
    file.bQuiet = false;
    file.mark.u64Offset += uUsed;
    if (file.mark.strHead.size() < kHeadBytes)
      file.mark.strHead = HeadOf(file.hFd, file.mark.u64Offset);
    Note(file);
    if (chunks.Bytes() >= u64Budget)
      return true;
  }
}

// Shorter than what was read, or other bytes where reading began: it was written anew under the same inode.
void CFileInput::CheckTruncated(_Open& file, uint64_t u64Size) {
  if (u64Size == file.mark.u64Offset && u64Size != 0)
    return;
  if (u64Size >= file.mark.u64Offset && HeadOf(file.hFd, file.mark.strHead.size()) == file.mark.strHead)
    return;
  LogInfoTo(m_hLog, "zxlogforward truncated strPath[%s] offset[%llu] size[%llu]", file.mark.strPath,
            file.mark.u64Offset, u64Size);
  file.mark.u64Offset = 0;
  file.mark.strHead.clear();
  Note(file);
}

void CFileInput::Note(const _Open& file) {
  for (_FileMark& mark : m_changed) {
    if (mark.u64Inode == file.mark.u64Inode && mark.u64Device == file.mark.u64Device) {
      mark = file.mark;
      return;
    }
  }
  m_changed.push_back(file.mark);
}

void CFileInput::End(_Open& file) {
  std::erase_if(m_changed, [&](const _FileMark& mark) {
    return mark.u64Inode == file.mark.u64Inode && mark.u64Device == file.mark.u64Device;
  });
  m_ended.push_back(file.mark);
  close(file.hFd);
}

void CFileInput::Committed() {
  m_changed.clear();
  m_ended.clear();
}

}  // namespace zxlogcache
