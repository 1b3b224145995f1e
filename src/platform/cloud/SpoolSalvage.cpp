#include "platform/cloud/SpoolSalvage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/cloud/SpoolCarver.h"
#include "platform/cloud/SpoolFile.h"

namespace zxcloud {

namespace {

namespace fs = std::filesystem;

constexpr size_t kBatchBytes = 1u << 20;
constexpr const char kNew[] = ".new";      // being written
constexpr const char kWhole[] = ".whole";  // complete: takes the old one's place
constexpr const char kAside[] = ".damaged-";

bool Exists(const std::string& strFile) {
  return access(strFile.c_str(), F_OK) == 0;
}

void SyncDirectory(const std::string& strFile) {
  const size_t uSlash = strFile.rfind('/');
  const std::string strDir = uSlash == std::string::npos ? "." : strFile.substr(0, uSlash + 1);
  const int fd = open(strDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0)
    return;
  (void)fsync(fd);
  close(fd);
}

void RemoveDatabase(const std::string& strFile) {
  for (const char* pszEnd : {"", "-wal", "-shm"})
    unlink((strFile + pszEnd).c_str());
}

// The oldest first, by the time in the name.
std::vector<std::string> FilesAside(const std::string& strFile) {
  std::vector<std::string> list;
  const fs::path path(strFile);
  const std::string strPrefix = path.filename().string() + kAside;
  std::error_code error;
  for (fs::directory_iterator it(path.parent_path(), error), end; !error && it != end; it.increment(error)) {
    const std::string strName = it->path().filename().string();
    if (strName.compare(0, strPrefix.size(), strPrefix) == 0 && !strName.ends_with("-wal"))
      list.push_back(it->path().string());
  }
  std::sort(list.begin(), list.end());
  return list;
}

std::string NameAside(const std::string& strFile, int64_t i64NowSec) {
  for (int i = 0;; ++i) {
    char szTime[48];
    (void)std::snprintf(szTime, sizeof(szTime), "%s%012lld-%03d", kAside, static_cast<long long>(i64NowSec),
                        i);
    if (!Exists(strFile + szTime) || i == 999)
      return strFile + szTime;
  }
}

// Rows of the new file, committed in batches.
class CRescue {
 public:
  CRescue(CSpoolFile& file) : m_file(file) {}

  bool Add(const _SpoolRow& row) {
    const std::optional<int64_t> sum = SpoolSum(row);
    if (!sum.has_value())
      return false;
    const std::string& strId = m_texts.emplace_back(row.svId);
    const std::string& strBody = m_texts.emplace_back(row.svBody);
    m_inserts.push_back({{row.u64Row, row.iPriority, row.uCreatedSec, strId, strBody}, *sum});
    m_uBytes += strBody.size();
    ++m_u64Rows;
    return m_uBytes < kBatchBytes || Commit();
  }
  bool Commit() {
    m_bOk = m_bOk && m_file.Commit(m_inserts, {}) == ESpoolResult::Ok;
    m_inserts.clear();
    m_texts.clear();
    m_uBytes = 0;
    return m_bOk;
  }
  uint64_t Rows() const { return m_u64Rows; }
  bool Ok() const { return m_bOk; }

 private:
  CSpoolFile& m_file;
  std::deque<std::string> m_texts;
  std::vector<_SpoolInsert> m_inserts;
  size_t m_uBytes = 0;
  uint64_t m_u64Rows = 0;
  bool m_bOk = true;
};

bool Rescue(const std::string& strFile, CSpoolFile& file,
            const std::function<_SalvageReport(const _Salvage&)>& fnReport, _Salvage& salvage) {
  const CFileBytes db(strFile);
  const CFileBytes log(strFile + "-wal");
  CSpoolCarver carver(db, log);
  CRescue rescue(file);
  carver.Run([&](const _SpoolRow& row) { return rescue.Add(row); });
  if (!rescue.Commit())
    return false;
  salvage.u64Saved = rescue.Rows();
  const _SpoolStateRow& state = carver.State();
  salvage.u64Lost = state.u64Generation == 0 ? carver.BadCells()
                                             : state.u64Waiting - std::min(state.u64Waiting, rescue.Rows());
  salvage.u64NewestRow = std::max(file.NewestRow(), std::max<uint64_t>(state.u64Floor, 1) - 1);
  const _SalvageReport report = fnReport(salvage);
  return rescue.Add({report.u64Row, report.iPriority, report.uCreatedSec, report.strId, report.strBody}) &&
         rescue.Commit();
}

// The log goes first: a database without its log is still recognised by the new file beside it, a log beside
// the new database would be taken for its own.
void Replace(const std::string& strFile, const std::string& strAside) {
  (void)rename((strFile + "-wal").c_str(), (strAside + "-wal").c_str());
  unlink((strFile + "-shm").c_str());
  (void)rename(strFile.c_str(), strAside.c_str());
  SyncDirectory(strFile);
  (void)rename((strFile + kWhole).c_str(), strFile.c_str());
  SyncDirectory(strFile);
  const std::vector<std::string> listAside = FilesAside(strFile);
  for (size_t u = 0; u + kDamagedKept < listAside.size(); ++u)
    RemoveDatabase(listAside[u]);
}

}  // namespace

bool SalvageSpool(const std::string& strFile, int64_t i64NowSec,
                  const std::function<_SalvageReport(const _Salvage&)>& fnReport, _Salvage& salvage,
                  std::string& strReason) {
  const std::string strNew = strFile + kNew;
  const std::string strAside = NameAside(strFile, i64NowSec);
  RemoveDatabase(strNew);
  salvage = {};
  salvage.strAside = strAside.substr(strAside.rfind('/') + 1);
  CSpoolFile file(strNew);
  CSpoolFile::TFound listFound;
  bool bDone = file.Open(true, listFound) == ESpoolResult::Ok && Rescue(strFile, file, fnReport, salvage);
  file.Close();
  bDone = bDone && !Exists(strNew + "-wal");  // its log is part of it now
  if (!bDone || rename(strNew.c_str(), (strFile + kWhole).c_str()) != 0) {
    strReason = file.Reason().empty() ? "the new file could not be moved" : file.Reason();
    RemoveDatabase(strNew);
    return false;
  }
  SyncDirectory(strFile);
  Replace(strFile, strAside);
  return true;
}

void FinishSalvage(const std::string& strFile, int64_t i64NowSec) {
  if (Exists(strFile + kWhole))
    Replace(strFile, NameAside(strFile, i64NowSec));
}

}  // namespace zxcloud
