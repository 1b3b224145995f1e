// The module that CFakeConfigProxy installs.
#include <cstdlib>
#include <cstring>

#include "platform/Api.h"
#include "platform/configproxy/zxconfigproxy.h"
#include "support/FakeConfigProxy.h"

extern "C" {
extern ZX_API _FakeConfigProxyState g_FakeConfigProxyState;
_FakeConfigProxyState g_FakeConfigProxyState;
ZX_API IConfigProxy* CFGCreateInstance(const char* pszVersion);
ZX_API void CFGRelease(IConfigProxy* pObject);
}

namespace {

class CProxy final : public IConfigProxy {
 public:
  int GetConfig(int iItem, CConfigValue* pOut, CConfigValue* pIn, unsigned uFlags) override {
    _FakeConfigProxyState& state = g_FakeConfigProxyState;
    ++state.iGets;
    state.iLastItem = iItem;
    if (auto* pfnInGet = state.pfnInGet.load())
      pfnInGet();
    if (uFlags != 0 || pIn == nullptr)
      return 1;
    const char* pszText = state.pszText;
    pOut->iTag = state.iTag;
    pOut->pData = pszText != nullptr ? strdup(pszText) : nullptr;
    pIn->pData = std::malloc(1);  // the caller owns both
    return state.iResult;
  }
  int SetConfigEx(const char* pszKey, CConfigValue* pIn, CConfigValue* pOut, unsigned uFlags) override {
    pOut->iTag = kCfgTagText;
    pOut->pData = strdup(pszKey);
    return uFlags == 0 && pIn != nullptr ? g_FakeConfigProxyState.iResult.load() : 1;
  }
};

}  // namespace

IConfigProxy* CFGCreateInstance(const char* pszVersion) {
  if (std::strcmp(pszVersion, "1.0.0") != 0 || g_FakeConfigProxyState.bRefuse != 0)
    return nullptr;
  ++g_FakeConfigProxyState.iCreated;
  ++g_FakeConfigProxyState.iObjects;
  return new CProxy;
}

void CFGRelease(IConfigProxy* pObject) {
  delete static_cast<CProxy*>(pObject);
  --g_FakeConfigProxyState.iObjects;
}
