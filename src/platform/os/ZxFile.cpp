#include "platform/os/ZxFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "platform/os/ZxNoCancel.h"

// Every operation holds cancellation back: descriptors and half-written files are closed on one path only.

namespace {

constexpr size_t kCopyBytes = 64u << 10;
constexpr mode_t kModeBits = 07777;

// Keeps errno through clean-up.
class CKeepErrno {
 public:
  CKeepErrno() : m_iError(errno) {}
  ~CKeepErrno() { errno = m_iError; }
  CKeepErrno(const CKeepErrno&) = delete;
  CKeepErrno& operator=(const CKeepErrno&) = delete;

 private:
  int m_iError;
};

class CFd {
 public:
  explicit CFd(int iFd) : m_iFd(iFd) {}
  ~CFd() {
    const CKeepErrno keep;
    Close();
  }
  CFd(const CFd&) = delete;
  CFd& operator=(const CFd&) = delete;

  int Get() const { return m_iFd; }
  bool IsOpen() const { return m_iFd >= 0; }
  // False when the file system reports a late write error.
  bool Close() {
    const int iFd = m_iFd;
    m_iFd = -1;
    return iFd < 0 || close(iFd) == 0 || errno == EINTR;
  }

 private:
  int m_iFd;
};

struct CFree {
  void operator()(char* p) const { std::free(p); }
};
using CBuffer = std::unique_ptr<char, CFree>;

bool Fail(int iError) {
  errno = iError;
  return false;
}

// A name that holds a NUL would reach another file than the one that was asked for.
bool IsName(const CPString& strFile) {
  return strFile.View().find('\0') == std::string_view::npos || Fail(EINVAL);
}

int OpenRetry(const CPString& strFile, int iFlags, mode_t mode = 0) {
  if (!IsName(strFile))
    return -1;
  int iFd = -1;
  do {
    iFd = open(strFile.c_str(), iFlags | O_CLOEXEC | O_NOCTTY, mode);
  } while (iFd < 0 && errno == EINTR);
  return iFd;
}

// -1 on error, 0 at the end, else the number of bytes read.
ssize_t ReadRetry(int iFd, char* pData, size_t uLength) {
  ssize_t iRead = -1;
  do {
    iRead = read(iFd, pData, uLength);
  } while (iRead < 0 && errno == EINTR);
  return iRead;
}

bool WriteAll(int iFd, const char* pData, size_t uLength) {
  while (uLength > 0) {
    const ssize_t iWritten = write(iFd, pData, uLength);
    if (iWritten < 0) {
      if (errno == EINTR)
        continue;
      return false;
    }
    pData += iWritten;
    uLength -= static_cast<size_t>(iWritten);
  }
  return true;
}

// Files are opened with O_NONBLOCK, so that a FIFO in the place of a file does not hang its reader.
bool IsRegular(const CFd& fd, struct stat& st) {
  if (!fd.IsOpen() || fstat(fd.Get(), &st) != 0)
    return false;
  return S_ISREG(st.st_mode) || Fail(EINVAL);
}

// Reads to the end of the file, which may grow meanwhile; the size is a first guess only (0 in /proc).
bool ReadToEnd(int iFd, size_t uGuess, CBuffer& pBuffer, size_t& uLength) {
  size_t uCapacity = uGuess + 1;
  pBuffer.reset(static_cast<char*>(std::malloc(uCapacity + 1)));
  if (pBuffer == nullptr)
    return Fail(ENOMEM);
  uLength = 0;
  while (true) {
    const ssize_t iRead = ReadRetry(iFd, pBuffer.get() + uLength, uCapacity - uLength);
    if (iRead < 0)
      return false;
    if (iRead == 0)
      break;
    uLength += static_cast<size_t>(iRead);
    if (uLength > kZxFileMaxBytes)
      return Fail(EFBIG);
    if (uLength == uCapacity) {
      uCapacity += uCapacity < 4096 ? 4096 : uCapacity;
      auto* pLarger = static_cast<char*>(std::realloc(pBuffer.get(), uCapacity + 1));
      if (pLarger == nullptr)
        return Fail(ENOMEM);
      static_cast<void>(pBuffer.release());
      pBuffer.reset(pLarger);
    }
  }
  pBuffer.get()[uLength] = 0;
  return true;
}

bool CopyContent(int iSrc, int iDst) {
  const CBuffer pBuffer(static_cast<char*>(std::malloc(kCopyBytes)));
  if (pBuffer == nullptr)
    return Fail(ENOMEM);
  while (true) {
    const ssize_t iRead = ReadRetry(iSrc, pBuffer.get(), kCopyBytes);
    if (iRead <= 0)
      return iRead == 0;
    if (!WriteAll(iDst, pBuffer.get(), static_cast<size_t>(iRead)))
      return false;
  }
}

std::string DirectoryOf(const std::string& strFile) {
  const size_t uSlash = strFile.rfind('/');
  return uSlash == std::string::npos ? "." : strFile.substr(0, uSlash + 1);
}

bool SyncDirectory(const std::string& strDir) {
  CFd fd(OpenRetry(CPString(strDir), O_RDONLY | O_DIRECTORY));
  if (!fd.IsOpen())
    return false;
  return fsync(fd.Get()) == 0 || errno == EINVAL;  // EINVAL: a file system that does not sync directories
}

// Moves the finished copy into place. Without replacement the system decides, so that a target that appears
// meanwhile is kept as well.
bool PutInPlace(const char* pszTemp, const char* pszDst, bool bFailIfExists) {
  if (!bFailIfExists)
    return rename(pszTemp, pszDst) == 0;
  if (renameat2(AT_FDCWD, pszTemp, AT_FDCWD, pszDst, RENAME_NOREPLACE) == 0)
    return true;
  if (errno != EINVAL && errno != ENOSYS)
    return false;
  return link(pszTemp, pszDst) == 0 && unlink(pszTemp) == 0;
}

}  // namespace

bool ZxReadFileData(const CPString& strFile, char*& pData, size_t& uLength) {
  const CNoCancel noCancel;
  pData = nullptr;
  uLength = 0;
  CFd fd(OpenRetry(strFile, O_RDONLY | O_NONBLOCK));
  struct stat st {};
  if (!IsRegular(fd, st))
    return false;
  if (st.st_size > static_cast<off_t>(kZxFileMaxBytes))
    return Fail(EFBIG);
  CBuffer pBuffer;
  size_t uRead = 0;
  if (!ReadToEnd(fd.Get(), static_cast<size_t>(st.st_size), pBuffer, uRead))
    return false;
  pData = pBuffer.release();
  uLength = uRead;
  return true;
}

void ZxReleaseFileData(char* pData) {
  std::free(pData);
}

bool ZxReadFileText(const CPString& strFile, CPString& strData) {
  char* pData = nullptr;
  size_t uLength = 0;
  strData.Empty();
  if (!ZxReadFileData(strFile, pData, uLength))
    return false;
  const CBuffer pOwner(pData);
  strData = CPString(pData, uLength);
  return true;
}

bool ZxSaveFileData(const CPString& strFile, const CPString& strData, bool bPrivate) {
  const CNoCancel noCancel;
  const mode_t mode = bPrivate ? 0600 : 0644;
  CFd fd(OpenRetry(strFile, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK, mode));
  struct stat st {};
  if (!IsRegular(fd, st))
    return false;
  // Before the first byte: a private text is never readable by others, not even for a moment.
  if ((st.st_mode & kModeBits) != mode && fchmod(fd.Get(), mode) != 0)
    return false;
  return WriteAll(fd.Get(), strData.data(), strData.GetLength()) && fd.Close();
}

bool ZxSyncedRename(const CPString& strSrc, const CPString& strDst) {
  const CNoCancel noCancel;
  {
    CFd fd(OpenRetry(strSrc, O_RDONLY | O_NONBLOCK));
    if (!fd.IsOpen() || fsync(fd.Get()) != 0)
      return false;
  }
  return IsName(strDst) && rename(strSrc.c_str(), strDst.c_str()) == 0 &&
         SyncDirectory(DirectoryOf(strDst.Str()));
}

bool ZxIsDirectoryOrLink(const CPString& strFile, unsigned char ucType) {
  if (ucType != DT_UNKNOWN)
    return ucType == DT_DIR || ucType == DT_LNK;
  struct stat status {};
  return lstat(strFile.c_str(), &status) == 0 && (S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode));
}

bool ZxIsFileExisted(const CPString& strFile) {
  return IsName(strFile) && access(strFile.c_str(), F_OK) == 0;
}

bool ZxCopyFile(const CPString& strSrc, const CPString& strDst, int bFailIfExists) {
  const CNoCancel noCancel;
  CFd fdSrc(OpenRetry(strSrc, O_RDONLY | O_NONBLOCK));
  struct stat st {};
  if (!IsRegular(fdSrc, st) || !IsName(strDst))
    return false;
  if (bFailIfExists != 0 && ZxIsFileExisted(strDst))
    return Fail(EEXIST);
  std::string strTemp = DirectoryOf(strDst.Str()) + "/.zxcopy.XXXXXX";
  CFd fdTemp(mkostemp(strTemp.data(), O_CLOEXEC));
  if (!fdTemp.IsOpen())
    return false;
  // Synced, because a rename may reach the disk before the data it points to.
  if (CopyContent(fdSrc.Get(), fdTemp.Get()) && fchmod(fdTemp.Get(), st.st_mode & kModeBits) == 0 &&
      fsync(fdTemp.Get()) == 0 && fdTemp.Close() &&
      PutInPlace(strTemp.c_str(), strDst.c_str(), bFailIfExists != 0))
    return true;
  const CKeepErrno keep;
  unlink(strTemp.c_str());
  return false;
}

bool ZxGetFileAttr(const CPString& strFile, uint64_t& u64Size, uint32_t& dwLastWriteTime) {
  struct stat st {};
  const bool bOk = IsName(strFile) && stat(strFile.c_str(), &st) == 0;
  u64Size = bOk ? static_cast<uint64_t>(st.st_size) : 0;
  dwLastWriteTime = bOk ? static_cast<uint32_t>(st.st_mtim.tv_sec) : 0;
  return bOk;
}
