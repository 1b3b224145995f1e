// A log-cache text: an answer of 0 means a body that lies inside the text, in front of its last bracket.
#include <cstdlib>
#include <cstring>

#include "receive/AgentReceive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const CPString strData(reinterpret_cast<const char*>(pData), uSize);
  CPString strVersion;
  CPString strProduct;
  CPString strCombo;
  unsigned long long u64DataId = 0;
  int iPriv = 0;
  int iMsgType = 0;
  GUID guid;
  const char* pMsg = nullptr;
  unsigned int uiMsgLen = 0;
  if (CAgentReceive::ParseLogCache(strData, strVersion, u64DataId, iPriv, iMsgType, guid, strProduct,
                                   strCombo, pMsg, uiMsgLen) != 0)
    return 0;
  const char* pEnd = strData.data() + strData.GetLength();
  if (uiMsgLen == 0 || pMsg < strData.data() || pMsg + uiMsgLen >= pEnd || pMsg[uiMsgLen] != '>' ||
      std::memchr(pMsg + uiMsgLen + 1, '>', static_cast<size_t>(pEnd - pMsg) - uiMsgLen - 1) != nullptr)
    std::abort();
  // Values end in front of "><", so none can hold it.
  for (const CPString& strValue : {strVersion, strProduct, strCombo})
    if (strValue.Find("><") != CPString::npos)
      std::abort();
  return 0;
}
