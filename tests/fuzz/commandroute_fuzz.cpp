// The route file of the deployment.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "data/AgentData.h"
#include "support/TempHome.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  static CTempHome s_home;
  static CAgentData s_data(s_home.Path("root"));
  static const int s_iInit = s_data.Init(s_home.Root());
  s_home.WriteFile("etc/zxagent/commandroute.json", CPString(reinterpret_cast<const char*>(pData), uSize));
  commandRouteMap mapRoute;
  if (s_data.LoadCommandRoute(mapRoute) == 0 && !mapRoute.empty())
    std::abort();
  for (const auto& [strCommand, list] : mapRoute) {
    if (strCommand.IsEmpty() || strCommand != strCommand.Lower() || list.empty())
      std::abort();
    for (const _GuidProductCombo& gpc : list) {
      if (gpc.strGuid.IsEmpty())
        std::abort();
    }
  }
  return s_iInit == 1 ? 0 : -1;
}
