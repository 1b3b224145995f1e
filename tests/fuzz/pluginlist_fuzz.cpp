// The plug-in list of the configuration service.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "data/AgentData.h"

namespace {

bool IsSame(const _GuidProductCombo& a, const _GuidProductCombo& b) {
  return a.strGuid == b.strGuid && a.strProduct == b.strProduct && a.strCombo == b.strCombo;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const CPString strData(reinterpret_cast<const char*>(pData), uSize);
  CAgentInterface agentInterface;
  std::list<_GuidProductCombo> all;
  std::list<_GuidProductCombo> loaded;
  if (agentInterface.ParsePluginInfo(1, strData, all) != agentInterface.ParsePluginInfo(0, strData, loaded))
    std::abort();
  // The loaded ones are some of all, in the same order; both are put into the maps.
  auto it = all.begin();
  CAgentData data;
  productComboToGuidMap mapPcGuid;
  guidToProductComboMap mapGuidPc;
  for (const _GuidProductCombo& gpc : loaded) {
    while (it != all.end() && !IsSame(*it, gpc))
      ++it;
    if (it == all.end())
      std::abort();
    ++it;
    const int iWhole = gpc.strGuid.IsEmpty() || gpc.strProduct.IsEmpty() || gpc.strCombo.IsEmpty() ? 0 : 1;
    if (data.SetGuidProductCombo(gpc.strGuid, gpc.strProduct, gpc.strCombo, mapPcGuid, mapGuidPc) != iWhole)
      std::abort();
  }
  return 0;
}
