// Texts that the cloud sends and the agent stores as they are: terminal connect and message-server addresses.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "data/AgentData.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  static CAgentData s_data;
  const CPString strData(reinterpret_cast<const char*>(pData), uSize);
  int iType = 0;
  int iPollerCycle = 0;
  if (s_data.ParseTermConnectData(strData, iType, iPollerCycle) != 0 && iPollerCycle < 60)
    std::abort();
  CPString strAddr;
  if (s_data.ParseMsgSrvAddrSetData(strData, strAddr) != 0 && !strAddr.IsEmpty() && strAddr.Right(1) == ",")
    std::abort();
  return 0;
}
