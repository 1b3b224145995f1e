// What happens to a damaged spool: its sound rows move into a new file, the old one stays beside it under
// another name for whoever wants to look. A crash at any point leaves either the old state or the new one.
// One thread; blocks on the disk; the spool's file is closed meanwhile. Nothing here logs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace zxcloud {

inline constexpr size_t kDamagedKept = 3;  // of the files set aside, the newest

struct _Salvage {
  std::string strAside;  // name of the file set aside, without its directory
  uint64_t u64Saved = 0;
  uint64_t u64Lost = 0;
  uint64_t u64NewestRow = 0;  // of the rows saved, and of those that were there once
};

// One more record for the new file: what is to be told about the damage.
struct _SalvageReport {
  uint64_t u64Row = 0;
  int iPriority = 0;
  uint32_t uCreatedSec = 0;
  std::string strId;
  std::string strBody;
};

// fnReport is asked once, when it is known what was saved. False with a reason: nothing has changed.
bool SalvageSpool(const std::string& strFile, int64_t i64NowSec,
                  const std::function<_SalvageReport(const _Salvage&)>& fnReport, _Salvage& salvage,
                  std::string& strReason);

// Completes a salvage that a crash cut short after its new file was whole. Before each opening.
void FinishSalvage(const std::string& strFile, int64_t i64NowSec);

}  // namespace zxcloud
