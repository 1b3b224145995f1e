// A library that asks for its home, as the agent's own library does.
#include "data/AgentLog.h"
#include "data/AgentTools.h"
#include "platform/Api.h"

extern "C" ZX_API const char* ProbeHome(HLog hLog) {
  static CPString s_strHome;
  g_hLogMain = hLog;
  s_strHome = CAgentTools::GetHomePath();
  g_hLogMain = nullptr;
  return s_strHome.c_str();
}
