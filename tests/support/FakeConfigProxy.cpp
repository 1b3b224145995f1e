#include "support/FakeConfigProxy.h"

#include <dlfcn.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

CFakeConfigProxy::CFakeConfigProxy(const std::string& strHome, EFakeConfigProxy eKind)
    : m_strFile(strHome + "lib/modules/libconfigproxy.so") {
  std::filesystem::create_directories(strHome + "lib/modules");
  if (eKind == EFakeConfigProxy::NotALibrary) {
    std::ofstream(m_strFile) << "not a library";
    return;
  }
  const bool bComplete = eKind == EFakeConfigProxy::Complete;
  std::filesystem::copy_file(bComplete ? ZX_FAKE_CONFIGPROXY : ZX_FAKE_CONFIGPROXY_EMPTY, m_strFile,
                             std::filesystem::copy_options::overwrite_existing);
  if (!bComplete)
    return;
  // Held, so that the state outlives the loads and unloads of the code under test.
  m_hLib = dlopen(m_strFile.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_hLib == nullptr)
    throw std::runtime_error(dlerror());
  m_pState = static_cast<_FakeConfigProxyState*>(dlsym(m_hLib, "g_FakeConfigProxyState"));
}

CFakeConfigProxy::~CFakeConfigProxy() {
  if (m_hLib != nullptr)
    dlclose(m_hLib);
}

void CFakeConfigProxy::SetText(std::string strText) {
  m_pState->pszText = nullptr;
  m_strText = std::move(strText);
  m_pState->pszText = m_strText.c_str();
}

bool CFakeConfigProxy::Remove() const {
  return std::filesystem::remove(m_strFile);
}

std::string CFakeConfigProxy::Plugin(const std::string& strGuid, const std::string& strProduct,
                                     const std::string& strCombo, int iStatus) {
  return R"({"id":")" + strGuid + R"(","product":")" + strProduct + R"(","combo":")" + strCombo +
         R"(","status":)" + std::to_string(iStatus) + "}";
}
