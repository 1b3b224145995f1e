// Looks a home over as an experienced operator would: files, modes, owners, documents, certificates, clock,
// addresses, bus, disk, logs. Each finding names the problem and its cure. Changes nothing. Blocks on files
// and, unless told to stay offline, on name lookups and one health question per address (at most 10 s each).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zxctl {

enum class EFinding : uint8_t { Good, Note, Problem };

struct _Finding {
  EFinding eKind = EFinding::Good;
  std::string strArea;  // "files", "certificates", ...
  std::string strWhat;
  std::string strCure;  // empty when there is nothing to do
};
using TFindings = std::vector<_Finding>;

struct _DoctorOptions {
  bool bOffline = false;
  int64_t i64NowSec = 0;  // 0: the machine's clock
};

// The parts, for tests. strHome ends in "/".
void CheckTree(const std::string& strHome, TFindings& findings);
void CheckModes(const std::string& strHome, TFindings& findings);
void CheckDocuments(const std::string& strHome, TFindings& findings);
void CheckSpace(const std::string& strHome, TFindings& findings);
void CheckClock(const std::string& strHome, int64_t i64NowSec, TFindings& findings);
void CheckCloud(const std::string& strHome, bool bOffline, int64_t i64NowSec, TFindings& findings);
void CheckHost(const std::string& strHome, TFindings& findings);

std::string FindingsText(const TFindings& findings);
// kExitOk when nothing is a problem, else kExitFailed.
int Doctor(const std::string& strHome, const _DoctorOptions& options, bool bJson);

}  // namespace zxctl
