// The implementation behind CFGCreateInstance: item 5 from the manifests of the home. Threads: any.
#pragma once

#include <string>

#include "platform/configproxy/zxconfigproxy.h"

class CConfigProxy final : public IConfigProxy {
 public:
  explicit CConfigProxy(std::string strHome) : m_strHome(std::move(strHome)) {}

  int GetConfig(int iItem, CConfigValue* pOut, CConfigValue* pIn, unsigned uFlags) override;
  int SetConfigEx(const char* pszKey, CConfigValue* pIn, CConfigValue* pOut, unsigned uFlags) override;

 private:
  const std::string m_strHome;
};
