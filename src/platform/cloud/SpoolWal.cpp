#include "platform/cloud/SpoolWal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstring>

#include "platform/cloud/SpoolRecord.h"

namespace zxcloud {

namespace {

constexpr size_t kHeaderBytes = 32;
constexpr size_t kFrameHeaderBytes = 24;
constexpr size_t kFrameBytes = kFrameHeaderBytes + kSpoolPageBytes;
constexpr uint32_t kMagic = 0x377f0682;  // the last bit: words of the checksum are big-endian
constexpr uint64_t kMaxFrames = 1u << 20;

uint32_t Big32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

struct _Sum {
  uint32_t u0 = 0;
  uint32_t u1 = 0;
  bool operator==(const _Sum&) const = default;
};

uint32_t Word(const unsigned char* p, bool bBig) {
  if (bBig)
    return Big32(p);
  return static_cast<uint32_t>(p[3]) << 24 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[1]) << 8 | p[0];
}

_Sum AddTo(_Sum sum, const unsigned char* p, size_t uLength, bool bBig) {
  for (size_t u = 0; u + 8 <= uLength; u += 8) {
    sum.u0 += Word(p + u, bBig) + sum.u1;
    sum.u1 += Word(p + u + 4, bBig) + sum.u0;
  }
  return sum;
}

struct _Salts {
  std::array<unsigned char, 8> bytes{};
  bool operator==(const _Salts&) const = default;
};

_Salts SaltsAt(const unsigned char* p) {
  _Salts salts;
  memcpy(salts.bytes.data(), p, salts.bytes.size());
  return salts;
}

}  // namespace

bool CTextBytes::Read(uint64_t u64Offset, void* pData, size_t uLength) const {
  if (u64Offset > m_sv.size() || m_sv.size() - u64Offset < uLength)
    return false;
  memcpy(pData, m_sv.data() + u64Offset, uLength);
  return true;
}

CFileBytes::CFileBytes(const std::string& strFile)
    : m_fd(open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {
  struct stat info {};
  if (m_fd >= 0 && fstat(m_fd, &info) == 0 && S_ISREG(info.st_mode))
    m_u64Size = static_cast<uint64_t>(info.st_size);
}

CFileBytes::~CFileBytes() {
  if (m_fd >= 0)
    close(m_fd);
}

bool CFileBytes::Read(uint64_t u64Offset, void* pData, size_t uLength) const {
  if (u64Offset > m_u64Size || m_u64Size - u64Offset < uLength)
    return false;
  auto* p = static_cast<unsigned char*>(pData);
  while (uLength != 0) {
    const ssize_t iRead = pread(m_fd, p, uLength, static_cast<off_t>(u64Offset));
    if (iRead <= 0)
      return false;
    p += iRead;
    u64Offset += static_cast<uint64_t>(iRead);
    uLength -= static_cast<size_t>(iRead);
  }
  return true;
}

size_t _WalLog::Committed() const {
  size_t uEnd = listFrames.size();
  while (uEnd > 0 && !listFrames[uEnd - 1].bCommit)
    --uEnd;
  return uEnd;
}

_WalLog ReadWal(const IBytes& bytes) {
  _WalLog log;
  unsigned char header[kHeaderBytes];
  if (!bytes.Read(0, header, sizeof(header)))
    return log;
  const bool bMagic = (Big32(header) & ~1u) == kMagic;
  const bool bBig = bMagic ? (Big32(header) & 1) != 0 : std::endian::native == std::endian::big;
  _Sum sum{Big32(header + 24), Big32(header + 28)};
  log.bHeaderValid = bMagic && Big32(header + 8) == kSpoolPageBytes && AddTo({}, header, 24, bBig) == sum;
  _Salts salts = SaltsAt(header + 16);
  bool bChain = log.bHeaderValid;
  bool bOurs = log.bHeaderValid;
  std::vector<unsigned char> frame(kFrameBytes);
  for (uint64_t u = 0; u < kMaxFrames; ++u) {
    const uint64_t u64At = kHeaderBytes + u * kFrameBytes;
    if (!bytes.Read(u64At, frame.data(), frame.size()))
      break;
    const unsigned char* p = frame.data();
    if (u == 0 && !log.bHeaderValid)
      salts = SaltsAt(p + 8);  // a log is always written from its beginning
    const _Sum stored{Big32(p + 16), Big32(p + 20)};
    const bool bSalts = SaltsAt(p + 8) == salts;
    const bool bValid = AddTo(AddTo(sum, p, 8, bBig), p + kFrameHeaderBytes, kSpoolPageBytes, bBig) == stored;
    sum = stored;
    // Frames of an older generation may stand behind the end; one that follows ours has only lost its salts.
    bOurs = bSalts || (bOurs && bValid);
    if (!bOurs)
      continue;
    bChain = bChain && bSalts && bValid && log.listFrames.size() == u;
    log.listFrames.push_back({Big32(p), Big32(p + 4) != 0, bValid, u64At + kFrameHeaderBytes});
    if (bChain && log.listFrames.back().bCommit)
      log.uReadable = log.listFrames.size();
  }
  return log;
}

}  // namespace zxcloud
