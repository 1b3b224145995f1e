// The operating system's identification file.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "support/TempHome.h"
#include "system/AgentSystem.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  static CTempHome s_home;
  const CPString strText(reinterpret_cast<const char*>(pData), uSize);
  s_home.WriteFile("root/etc/os-release", strText);
  const int iNation = CAgentSystem(s_home.Path("root")).IsNationSystem();
  if (iNation != 0 && (iNation != 1 || strText.Find("=") == CPString::npos))
    std::abort();
  return 0;
}
