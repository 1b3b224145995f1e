// The task configuration: whatever it says, lookups answer yes or no, and a yes names a count.
#include <cstdlib>

#include "cache/AgentCache.h"
#include "platform/os/ZxFile.h"
#include "support/TempHome.h"

namespace {

struct CTarget {
  CTempHome home;
  CAgentCache cache;
  CPString strFile;

  CTarget() : strFile(home.Path("etc/zxagent/taskconf.json")) {
    home.MakeDir("etc/zxagent");
    cache.Init(home.Root());
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  static CTarget s_target;
  constexpr unsigned int kUntouched = 4711;
  if (!ZxSaveFileData(s_target.strFile, CPString(reinterpret_cast<const char*>(pData), uSize)))
    std::abort();
  s_target.cache.LoadTaskConf();
  for (const char* pszCombo : {"One", "ONE", ""}) {
    for (const char* pszCommand : {"a", "A", "b", ""}) {
      unsigned int uiCount = kUntouched;
      const int bTask = s_target.cache.FindTaskConf("Scan", pszCombo, pszCommand, uiCount);
      if (bTask == 0 && uiCount != kUntouched)
        std::abort();
    }
  }
  return 0;
}
