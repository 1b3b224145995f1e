// The tag document of an upload: an answer of 0 means that every tag stands in brackets.
#include <cstdlib>
#include <string>

#include "send/AgentSendMsg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const CPString strMsg(reinterpret_cast<const char*>(pData), uSize);
  CAgentSendMsg sender;
  CPString strTags;
  if (sender.GetCloudTag(strMsg, strTags) == 0 &&
      (strTags.IsEmpty() || strTags.c_str()[0] != '<' || strTags.Str().back() != '>'))
    std::abort();
  return 0;
}
