#include "platform/configproxy/ConfigProxy.h"

#include <dlfcn.h>

#include <cstring>
#include <exception>
#include <filesystem>
#include <new>

#include "platform/Api.h"
#include "platform/configproxy/ComsConfig.h"

namespace {

constexpr char kVersion[] = "1.0.0";

// <home>/lib/modules/libconfigproxy.so; empty when the loader cannot tell.
std::string HomeOfThisModule() {
  Dl_info info{};
  if (dladdr(&kVersion, &info) == 0 || info.dli_fname == nullptr)
    return {};
  std::error_code ec;
  const std::filesystem::path module = std::filesystem::absolute(info.dli_fname, ec);
  return ec ? std::string() : module.parent_path().parent_path().parent_path().string();
}

}  // namespace

int CConfigProxy::GetConfig(int iItem, CConfigValue* pOut, CConfigValue*, unsigned) {
  if (pOut == nullptr)
    return kCfgErrArgument;
  if (iItem != kCfgItemPlugins)
    return kCfgErrItem;
  try {
    const std::string strList = ListInstalledPlugins(m_strHome);
    char* pszText = strList.empty() ? nullptr : strdup(strList.c_str());
    if (pszText == nullptr)
      return kCfgErrInternal;
    pOut->iTag = kCfgTagText;
    pOut->pData = pszText;
    return kCfgOk;
  } catch (const std::exception&) {
    return kCfgErrInternal;
  }
}

int CConfigProxy::SetConfigEx(const char*, CConfigValue*, CConfigValue*, unsigned) {
  return kCfgErrItem;  // the manifests belong to the installer
}

extern "C" {

ZX_API IConfigProxy* CFGCreateInstance(const char* pszVersion) {
  if (pszVersion == nullptr || std::strcmp(pszVersion, kVersion) != 0)
    return nullptr;
  try {
    return new CConfigProxy(HomeOfThisModule());
  } catch (const std::exception&) {
    return nullptr;
  }
}

ZX_API void CFGRelease(IConfigProxy* pObject) {
  delete static_cast<CConfigProxy*>(pObject);
}

}  // extern "C"
