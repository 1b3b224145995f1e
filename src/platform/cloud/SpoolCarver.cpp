#include "platform/cloud/SpoolCarver.h"

#include <algorithm>
#include <cstring>

#include "platform/cloud/OutItem.h"

namespace zxcloud {

namespace {

constexpr size_t kUsable = kSpoolPageBytes;
constexpr size_t kMaxLocal = kUsable - 35;
constexpr size_t kMinLocal = (kUsable - 12) * 32 / 255 - 23;
constexpr size_t kOverflowBytes = kUsable - 4;
constexpr unsigned char kTableLeaf = 0x0d;
// Every so many pages one tells of what kind those behind it are: 5 bytes for each, the first is the kind.
constexpr uint32_t kPagesPerMap = kUsable / 5 + 1;
constexpr unsigned char kFreeKind = 2;
constexpr uint32_t kMaxPages = 4u << 20;  // 16 GiB
constexpr size_t kMaxColumns = 16;
constexpr size_t kMaxPayload = kMaxSpoolBody + 4096;

uint32_t Big32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

size_t Big16(const unsigned char* p) {
  return static_cast<size_t>(p[0]) << 8 | p[1];
}

// SQLite's variable-length number. False: it does not end within the bytes.
bool Varint(const unsigned char* p, size_t uEnd, size_t& uAt, uint64_t& u64Value) {
  u64Value = 0;
  for (int i = 0; i < 9; ++i) {
    if (uAt >= uEnd)
      return false;
    const unsigned char ch = p[uAt++];
    if (i == 8) {
      u64Value = u64Value << 8 | ch;
      return true;
    }
    u64Value = u64Value << 7 | (ch & 0x7f);
    if ((ch & 0x80) == 0)
      return true;
  }
  return true;
}

// Bytes of a value by its serial type; 10 and 11 are not used in files.
bool TypeBytes(uint64_t u64Type, uint64_t& u64Bytes) {
  constexpr uint8_t kFixed[] = {0, 1, 2, 3, 4, 6, 8, 8, 0, 0};
  if (u64Type == 10 || u64Type == 11)
    return false;
  u64Bytes = u64Type < 10 ? kFixed[u64Type] : (u64Type - 12) / 2;
  return true;
}

bool IsInteger(uint64_t u64Type) {
  return (u64Type >= 1 && u64Type <= 6) || u64Type == 8 || u64Type == 9;
}

bool IsTextOrBlob(uint64_t u64Type) {
  return u64Type >= 12;
}

int64_t Integer(uint64_t u64Type, std::string_view sv) {
  if (u64Type == 8 || u64Type == 9)
    return u64Type == 9 ? 1 : 0;
  uint64_t u64 = !sv.empty() && (sv.front() & 0x80) != 0 ? ~uint64_t{0} : 0;
  for (const char ch : sv)
    u64 = u64 << 8 | static_cast<unsigned char>(ch);
  return static_cast<int64_t>(u64);
}

}  // namespace

CSpoolCarver::CSpoolCarver(const IBytes& db, const IBytes& log) : m_db(db), m_log(log), m_wal(ReadWal(log)) {
  uint32_t uPages = static_cast<uint32_t>(std::min<uint64_t>(db.Size() / kSpoolPageBytes, kMaxPages));
  const size_t uFrames = m_wal.Committed();
  for (size_t u = 0; u < uFrames; ++u) {
    if (m_wal.listFrames[u].bValid && m_wal.listFrames[u].uPage <= kMaxPages)
      uPages = std::max(uPages, m_wal.listFrames[u].uPage);
  }
  m_uPages = uPages;
  m_listNewest.resize(size_t{uPages} + 1);
  m_listFree.resize(size_t{uPages} + 1);
  for (size_t u = 0; u < uFrames; ++u) {
    const _WalFrame& frame = m_wal.listFrames[u];
    if (frame.bValid && frame.uPage >= 1 && frame.uPage <= uPages)
      m_listNewest[frame.uPage] = static_cast<uint32_t>(u) + 1;
  }
  FindFree();
}

bool CSpoolCarver::Newest(uint32_t uPage, _Image& image) const {
  if (uPage < 1 || uPage > m_uPages)
    return false;
  const uint32_t uFrame = m_listNewest[uPage];
  image = uFrame != 0 ? _Image{&m_log, m_wal.listFrames[uFrame - 1].u64Image}
                      : _Image{&m_db, uint64_t{uPage - 1} * kSpoolPageBytes};
  return true;
}

bool CSpoolCarver::ReadPage(const _Image& image, std::vector<unsigned char>& page) const {
  page.resize(kSpoolPageBytes);
  return image.pBytes->Read(image.u64At, page.data(), page.size());
}

// A damaged list must not take a page with rows for a free one.
bool CSpoolCarver::IsFreeKind(uint32_t uPage) const {
  if (uPage < 3)
    return false;
  const uint32_t uMap = (uPage - 2) / kPagesPerMap * kPagesPerMap + 2;
  _Image image;
  unsigned char chKind = 0;
  return uMap < uPage && Newest(uMap, image) &&
         image.pBytes->Read(image.u64At + uint64_t{5} * (uPage - uMap - 1), &chKind, 1) &&
         chKind == kFreeKind;
}

// Free pages keep their old content: rows that were delivered long ago.
void CSpoolCarver::FindFree() {
  std::vector<unsigned char> page;
  _Image image;
  if (!Newest(1, image) || !ReadPage(image, page))
    return;
  uint32_t uTrunk = Big32(page.data() + 32);
  for (uint32_t uSteps = 0; uTrunk != 0 && uSteps < m_uPages; ++uSteps) {
    if (!Newest(uTrunk, image) || m_listFree[uTrunk] || !IsFreeKind(uTrunk) || !ReadPage(image, page))
      return;
    m_listFree[uTrunk] = true;
    const uint32_t uLeaves = std::min<uint32_t>(Big32(page.data() + 4), kUsable / 4 - 2);
    for (uint32_t u = 0; u < uLeaves; ++u) {
      const uint32_t uLeaf = Big32(page.data() + 8 + size_t{u} * 4);
      if (uLeaf >= 1 && uLeaf <= m_uPages && IsFreeKind(uLeaf))
        m_listFree[uLeaf] = true;
    }
    uTrunk = Big32(page.data());
  }
}

bool CSpoolCarver::Overflow(uint32_t uPage, size_t uLength, std::string& strPayload) {
  std::vector<unsigned char> page;
  _Image image;
  while (uLength != 0) {
    if (!Newest(uPage, image) || !ReadPage(image, page))
      return false;
    const size_t uHere = std::min(uLength, kOverflowBytes);
    strPayload.append(reinterpret_cast<const char*>(page.data()) + 4, uHere);
    uLength -= uHere;
    uPage = Big32(page.data());
  }
  return true;
}

bool CSpoolCarver::Cell(const std::vector<unsigned char>& page, size_t uAt, uint64_t u64MaxPayload,
                        std::string& strPayload, uint64_t& u64Row) {
  uint64_t u64Payload = 0;
  if (!Varint(page.data(), page.size(), uAt, u64Payload) || !Varint(page.data(), page.size(), uAt, u64Row) ||
      u64Payload > u64MaxPayload)
    return false;
  const auto uPayload = static_cast<size_t>(u64Payload);
  size_t uLocal = uPayload;
  if (uPayload > kMaxLocal) {
    const size_t uSplit = kMinLocal + (uPayload - kMinLocal) % kOverflowBytes;
    uLocal = uSplit <= kMaxLocal ? uSplit : kMinLocal;
  }
  const bool bOverflow = uLocal < uPayload;
  if (uAt + uLocal + (bOverflow ? 4 : 0) > page.size())
    return false;
  strPayload.assign(reinterpret_cast<const char*>(page.data()) + uAt, uLocal);
  return !bOverflow || Overflow(Big32(page.data() + uAt + uLocal), uPayload - uLocal, strPayload);
}

bool CSpoolCarver::Columns(std::string_view svPayload, std::vector<_Value>& listValues) {
  listValues.clear();
  const auto* p = reinterpret_cast<const unsigned char*>(svPayload.data());
  size_t uAt = 0;
  uint64_t u64Header = 0;
  if (!Varint(p, svPayload.size(), uAt, u64Header) || u64Header > svPayload.size())
    return false;
  const auto uHeader = static_cast<size_t>(u64Header);
  uint64_t u64Body = u64Header;
  while (uAt < uHeader) {
    _Value value;
    uint64_t u64Bytes = 0;
    if (listValues.size() == kMaxColumns || !Varint(p, uHeader, uAt, value.u64Type) ||
        !TypeBytes(value.u64Type, u64Bytes) || u64Bytes > svPayload.size() - u64Body)
      return false;
    value.sv = svPayload.substr(static_cast<size_t>(u64Body), static_cast<size_t>(u64Bytes));
    u64Body += u64Bytes;
    listValues.push_back(value);
  }
  return true;
}

// Columns of "state" behind the row's number: waiting, floor, generation, sum.
void CSpoolCarver::TakeState(const std::vector<_Value>& listValues) {
  const auto Number = [&](size_t u) { return Integer(listValues[u].u64Type, listValues[u].sv); };
  const _SpoolStateRow state{static_cast<uint64_t>(Number(1)), static_cast<uint64_t>(Number(2)),
                             static_cast<uint64_t>(Number(3))};
  if (SpoolSum(state) == Number(4) && state.u64Generation > m_state.u64Generation)
    m_state = state;
}

// Columns of "outbox" behind the row's number: priority, created, msgid, sum, body. False ends the search.
bool CSpoolCarver::Row(uint64_t u64Row, const std::vector<_Value>& listValues, const TFound& fnFound,
                       bool bRows) {
  const auto Type = [&](size_t u) { return listValues[u].u64Type; };
  const auto Number = [&](size_t u) { return Integer(Type(u), listValues[u].sv); };
  const size_t uColumns = listValues.size();
  if (uColumns == 5 && IsInteger(Type(1)) && IsInteger(Type(2)) && IsInteger(Type(3)) && IsInteger(Type(4))) {
    if (!bRows)
      TakeState(listValues);
    return true;
  }
  if (!bRows || uColumns == 5)  // or a row of the schema
    return true;
  const bool bShape = uColumns == 6 && IsInteger(Type(1)) && IsInteger(Type(2)) && IsTextOrBlob(Type(3)) &&
                      IsInteger(Type(4)) && IsTextOrBlob(Type(5));
  if (!bShape) {
    ++m_u64Bad;
    return true;
  }
  const int64_t i64Priority = Number(1);
  const int64_t i64Created = Number(2);
  const _SpoolRow row{u64Row, static_cast<int>(i64Priority), static_cast<uint32_t>(i64Created),
                      listValues[3].sv, listValues[5].sv};
  if (i64Priority < 0 || i64Priority > 13 || PriorityIndex(row.iPriority) < 0 || i64Created < 0 ||
      i64Created > UINT32_MAX || SpoolSum(row) != Number(4)) {
    ++m_u64Bad;
    return true;
  }
  if (u64Row < m_state.u64Floor || !m_setSeen.insert(u64Row).second)
    return true;
  return fnFound(row);
}

bool CSpoolCarver::ScanPage(const _Image& image, bool bFirst, const TFound& fnFound, bool bRows) {
  std::vector<unsigned char> page;
  const size_t uHeader = bFirst ? 100 : 0;
  if (!ReadPage(image, page) || page[uHeader] != kTableLeaf)
    return true;
  const size_t uCells = std::min(Big16(page.data() + uHeader + 3), (kUsable - uHeader - 8) / 2);
  std::string strPayload;
  std::vector<_Value> listValues;
  // No row is larger than the file, and that of the state fits into its page.
  const uint64_t u64MaxPayload =
      bRows ? std::min<uint64_t>(kMaxPayload, uint64_t{m_uPages} * kSpoolPageBytes + kMaxLocal) : kMaxLocal;
  for (size_t u = 0; u < uCells; ++u) {
    uint64_t u64Row = 0;
    const size_t uAt = Big16(page.data() + uHeader + 8 + u * 2);
    if (!Cell(page, uAt, u64MaxPayload, strPayload, u64Row) || !Columns(strPayload, listValues))
      m_u64Bad += bRows;
    else if (!Row(u64Row, listValues, fnFound, bRows))
      return false;
  }
  return true;
}

bool CSpoolCarver::Each(const TFound& fnFound, bool bRows) {
  _Image image;
  for (uint32_t uPage = 1; uPage <= m_uPages; ++uPage) {
    if (!m_listFree[uPage] && Newest(uPage, image) && !ScanPage(image, uPage == 1, fnFound, bRows))
      return false;
  }
  // A damaged frame may hold sound rows beside the damaged one.
  for (size_t u = 0; u < m_wal.Committed(); ++u) {
    const _WalFrame& frame = m_wal.listFrames[u];
    if (!frame.bValid && !ScanPage({&m_log, frame.u64Image}, false, fnFound, bRows))
      return false;
  }
  return true;
}

void CSpoolCarver::Run(const TFound& fnFound) {
  Each(fnFound, false);  // the state first: it says which rows are gone
  Each(fnFound, true);
}

}  // namespace zxcloud
