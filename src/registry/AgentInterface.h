// The installed plug-ins with their GUID, product and combo, asked of the configuration proxy
// (lib/modules/libconfigproxy.so under the home). Owned by CAgentData. Any thread; blocks while the proxy
// reads.
#pragma once

#include <list>

#include "data/AgentRecords.h"
#include "platform/text/PString.h"

class CAgentInterface {
 public:
  int Init(CPString strHomePath);
  int Uninit();

  // bGetAll 0: only plug-ins whose status is 1. Appends to the list; 1 when the answer could be parsed.
  int GetPluginInfo(int bGetAll, std::list<_GuidProductCombo>& list);
  int ParsePluginInfo(int bGetAll, const CPString& strData, std::list<_GuidProductCombo>& list);
  int GetAllGuidProductCombo(std::list<_GuidProductCombo>& list) { return GetPluginInfo(1, list); }
  int GetLoadGuidProductCombo(std::list<_GuidProductCombo>& list) { return GetPluginInfo(0, list); }

 private:
  CPString m_strHomePath;
};
