#include "agent/AgentTrans.h"

int CAgentTrans::TransMsg(unsigned long long /*u64DataId*/, const CPString& strProduct,
                          const CPString& strCombo, const CPString& /*strID*/,
                          const zxtools::CPJsonParse& /*json*/, CPString& /*strNewCommand*/,
                          CPString& /*strNewMsg*/) {
  if (strProduct.CompareNoCase("veltExtHost") != 0 || strCombo.CompareNoCase("MessagePush") != 0)
    return 0;
  return 0;  // the one target of the hook, for which no translation is defined
}
