// Finds the rows of a damaged spool without SQLite: page by page, each row proven by its own checksum, so
// that only what is really damaged is lost. Damaged bytes of any kind are safe to read. One thread; blocks on
// the files. Memory: 8 bytes per page, and one row at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/cloud/SpoolRecord.h"
#include "platform/cloud/SpoolWal.h"

namespace zxcloud {

class CSpoolCarver {
 public:
  // False ends the search.
  using TFound = std::function<bool(const _SpoolRow&)>;

  CSpoolCarver(const IBytes& db, const IBytes& log);

  // Every sound row once, the newest image of its page first. The texts live for the call.
  void Run(const TFound& fnFound);

  const _SpoolStateRow& State() const { return m_state; }  // the newest sound one; generation 0: none
  uint64_t BadCells() const { return m_u64Bad; }           // rows that were there and are not sound

 private:
  struct _Image {
    const IBytes* pBytes = nullptr;
    uint64_t u64At = 0;
  };
  struct _Value {
    uint64_t u64Type = 0;
    std::string_view sv;
  };

  bool Newest(uint32_t uPage, _Image& image) const;
  bool ReadPage(const _Image& image, std::vector<unsigned char>& page) const;
  bool IsFreeKind(uint32_t uPage) const;
  void FindFree();
  bool ScanPage(const _Image& image, bool bFirst, const TFound& fnFound, bool bRows);
  bool Cell(const std::vector<unsigned char>& page, size_t uAt, uint64_t u64MaxPayload,
            std::string& strPayload, uint64_t& u64Row);
  bool Overflow(uint32_t uPage, size_t uLength, std::string& strPayload);
  static bool Columns(std::string_view svPayload, std::vector<_Value>& listValues);
  bool Row(uint64_t u64Row, const std::vector<_Value>& listValues, const TFound& fnFound, bool bRows);
  void TakeState(const std::vector<_Value>& listValues);
  bool Each(const TFound& fnFound, bool bRows);

  const IBytes& m_db;
  const IBytes& m_log;
  uint32_t m_uPages = 0;
  std::vector<uint32_t> m_listNewest;  // per page: frame + 1, 0: the file itself
  std::vector<bool> m_listFree;
  _WalLog m_wal;
  _SpoolStateRow m_state;
  uint64_t m_u64Bad = 0;
  std::unordered_set<uint64_t> m_setSeen;
};

}  // namespace zxcloud
