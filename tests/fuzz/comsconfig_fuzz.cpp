// The per-client component file.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "data/AgentData.h"
#include "support/TempHome.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  static CTempHome s_home;
  s_home.WriteFile("config.json", CPString(reinterpret_cast<const char*>(pData), uSize));
  CAgentData data;
  std::list<_GuidProductCombo> list;
  const int iCount = data.LoadComsClientConfig(s_home.Path("config.json"), list);
  if (iCount < 0 || list.size() > static_cast<size_t>(iCount))
    std::abort();
  for (const _GuidProductCombo& gpc : list) {
    std::list<_ComboConfig> configs;
    if (data.GetComboConfigListByProductCombo(gpc.strProduct + "/" + gpc.strCombo, configs) == 0 ||
        configs.empty())
      std::abort();
  }
  return 0;
}
