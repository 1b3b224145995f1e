#include <vector>

#include "data/AgentCodes.h"
#include "platform/doc/PJsonParse.h"
#include "send/AgentSendMsg.h"

uint32_t CAgentSendMsg::GetCloudTag(const CPString& strMsg, CPString& strTags) {
  if (strMsg.IsEmpty())
    return kErrTagsEmptyText;
  strTags.Empty();
  zxtools::CPJsonParse json;
  if (!json.LoadBuffer(strMsg.c_str()))
    return kErrJson;
  const zxtools::HJsonNode hTags = json.GetNode("CloudTags");
  if (hTags == nullptr)
    return kErrTagsNoObject;
  std::vector<zxtools::HJsonNode> nodes;
  if (!json.GetAllNode(hTags, nodes))
    return kErrTagsNotEnumerable;
  CPString strName;
  CPString strValue;
  for (const zxtools::HJsonNode hNode : nodes) {
    strName.Empty();
    strValue.Empty();
    zxtools::CPJsonParse::GetName(hNode, strName);
    zxtools::CPJsonParse::GetValue(hNode, strValue);
    if (strName.IsEmpty())
      continue;
    strTags += CPString::Make("<%s=%s>", strName.c_str(), strValue.c_str());
  }
  return strTags.IsEmpty() ? static_cast<uint32_t>(kErrTagsNone) : 0;
}
