// The reader of damaged spools: either bytes as they come, or edits of a sound spool, so that the search
// gets behind the checks of the first page. Input: 'r', 2 bytes length of the database in pages, database,
// log; or 'e' and edits of 5 bytes each: 1 bit file, 3 bytes offset, 1 byte value.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/cloud/SpoolCarver.h"
#include "platform/cloud/SpoolFile.h"
#include "support/TempHome.h"

using namespace zxcloud;

namespace {

struct _Sound {
  std::string strDb;
  std::string strLog;
};

std::string Slurp(const std::string& strFile) {
  std::ifstream file(strFile, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

_Sound MakeSound() {
  const CTempHome home;
  const std::string strFile = home.Path("zxcloud.db").Str();
  CSpoolFile file(strFile);
  CSpoolFile::TFound listFound;
  if (file.Open(false, listFound) != ESpoolResult::Ok)
    std::abort();
  for (uint64_t u64Row = 1; u64Row <= 40; ++u64Row) {
    const std::string strBody(static_cast<size_t>(u64Row * u64Row * 7), 'b');
    const _SpoolRow row{u64Row, static_cast<int>(u64Row % 4), 1800000000, "id", strBody};
    std::vector<uint64_t> listDeletes;
    if (u64Row > 20)
      listDeletes.push_back(u64Row - 20);
    if (file.Commit({{row, *SpoolSum(row)}}, listDeletes) != ESpoolResult::Ok)
      std::abort();
    if (u64Row == 25) {  // a part in the database, the rest in the log
      file.Close();
      if (file.Open(false, listFound) != ESpoolResult::Ok)
        std::abort();
    }
  }
  _Sound sound{Slurp(strFile), Slurp(strFile + "-wal")};
  file.Close();
  return sound;
}

// Nothing but what was written once may pass the checksums.
bool WasWritten(const _SpoolRow& row) {
  if (row.svId != "id" || row.svBody.find_first_not_of('b') != std::string_view::npos)
    return false;
  for (size_t u = 1; u <= 40; ++u) {
    if (row.svBody.size() == u * u * 7)
      return true;
  }
  return false;
}

size_t Carve(const std::string& strDb, const std::string& strLog, bool bKnown = false) {
  const CTextBytes db(strDb);
  const CTextBytes log(strLog);
  CSpoolCarver carver(db, log);
  size_t uRows = 0;
  carver.Run([&](const _SpoolRow& row) {
    if (bKnown && !WasWritten(row))
      std::abort();
    ++uRows;
    return true;
  });
  return uRows;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  static const _Sound sound = MakeSound();
  // What is sound is found, whatever was read before.
  static const bool bSound = Carve(sound.strDb, sound.strLog) == 20;
  if (!bSound)
    std::abort();
  if (uSize < 3)
    return 0;
  const auto* pText = reinterpret_cast<const char*>(pData);
  if (pData[0] == 'r') {
    const size_t uDb = std::min(uSize - 3, (static_cast<size_t>(pData[1]) << 8 | pData[2]) * kSpoolPageBytes);
    Carve(std::string(pText + 3, uDb), std::string(pText + 3 + uDb, uSize - 3 - uDb));
    return 0;
  }
  std::string strDb = sound.strDb;
  std::string strLog = sound.strLog;
  for (size_t u = 1; u + 5 <= uSize; u += 5) {
    std::string& strHit = (pData[u] & 1) != 0 ? strLog : strDb;
    const size_t uAt =
        static_cast<size_t>(pData[u + 1]) << 16 | static_cast<size_t>(pData[u + 2]) << 8 | pData[u + 3];
    strHit[uAt % strHit.size()] = pText[u + 4];
  }
  Carve(strDb, strLog, true);
  return 0;
}
