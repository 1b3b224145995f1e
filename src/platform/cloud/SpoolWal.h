// Reads the files of a spool that SQLite cannot or will not read whole: bytes with an end, and the log file,
// frame by frame. Each frame is judged by itself, so that one damaged frame does not hide those behind it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zxcloud {

class IBytes {
 public:
  virtual ~IBytes() = default;
  virtual uint64_t Size() const = 0;
  // False: not all of it is there.
  virtual bool Read(uint64_t u64Offset, void* pData, size_t uLength) const = 0;
};

class CTextBytes : public IBytes {
 public:
  explicit CTextBytes(std::string_view sv) : m_sv(sv) {}
  uint64_t Size() const override { return m_sv.size(); }
  bool Read(uint64_t u64Offset, void* pData, size_t uLength) const override;

 private:
  const std::string_view m_sv;
};

// A regular file; without one, no bytes. No SQLite connection of this process may have it open: closing it
// here would drop that connection's locks.
class CFileBytes : public IBytes {
 public:
  explicit CFileBytes(const std::string& strFile);
  ~CFileBytes() override;
  CFileBytes(const CFileBytes&) = delete;
  CFileBytes& operator=(const CFileBytes&) = delete;
  uint64_t Size() const override { return m_u64Size; }
  bool Read(uint64_t u64Offset, void* pData, size_t uLength) const override;

 private:
  int m_fd = -1;
  uint64_t m_u64Size = 0;
};

struct _WalFrame {
  uint32_t uPage = 0;     // number from 1
  bool bCommit = false;   // ends a transaction
  bool bValid = false;    // its checksum follows from the one that the frame before it carries
  uint64_t u64Image = 0;  // offset of the page
};

struct _WalLog {
  bool bHeaderValid = false;
  std::vector<_WalFrame> listFrames;  // of the log's present generation
  size_t uReadable = 0;               // frames that SQLite would use

  // Frames up to the last one that ends a transaction.
  size_t Committed() const;
  // A whole transaction stands behind what SQLite would use: it was written, and is damaged now. A crash in
  // the middle of a transaction does not look like this.
  bool Broken() const { return Committed() > uReadable; }
};

_WalLog ReadWal(const IBytes& bytes);

}  // namespace zxcloud
