#include "PollText.h"

#include "CloudText.h"
#include "platform/doc/Base64.h"
#include "platform/doc/PXmlParse.h"

namespace zxcloudd {

namespace {

using zxtools::CPXmlParse;
using zxtools::HXmlNode;

std::string ValueOf(HXmlNode hNode) {
  CPString strValue;
  if (hNode == nullptr || !CPXmlParse::GetValue(hNode, strValue))
    return {};
  return std::string(Trim(strValue.View()));
}

}  // namespace

bool ParsePollQuery(std::string_view svXml, _PollQuery& query) {
  if (svXml.empty() || svXml.size() > kPollQueryMax)
    return false;
  CPXmlParse xml;
  if (!xml.LoadBuffer(svXml.data(), svXml.size()))
    return false;
  const HXmlNode hMessage = xml.GetNode(nullptr, "message");
  const HXmlNode hQuery = hMessage != nullptr ? xml.GetNode(hMessage, "push_msg_query") : nullptr;
  if (hQuery == nullptr)
    return false;
  query.strMid = ValueOf(xml.GetNode(hMessage, "mid"));
  query.strMid2 = ValueOf(xml.GetNode(hMessage, "m2"));
  if (query.strMid.empty())
    return false;
  query.listBusiness.clear();
  const HXmlNode hBusiness = xml.GetNode(hQuery, "business_id");
  if (hBusiness == nullptr)
    return true;
  std::vector<HXmlNode> listIds;
  xml.GetNode(hBusiness, "id", listIds);
  if (listIds.size() > kPollBusinessMax)
    return false;
  for (const HXmlNode hId : listIds) {
    int64_t i64Id = 0;
    if (ParseNumber(ValueOf(hId), 1, 999999999, i64Id))
      query.listBusiness.push_back(static_cast<int>(i64Id));
  }
  return true;
}

std::string WritePollEnvelope(const std::vector<_PollItem>& listItems, int64_t i64NowSec, int iPeriodSec) {
  std::string str =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<message>\n\t<error_code>0</error_code>\n"
      "\t<push_msg_result>\n\t\t<push_timestamp>" +
      std::to_string(i64NowSec) + "</push_timestamp>\n\t\t<poll_period_sec>" + std::to_string(iPeriodSec) +
      "</poll_period_sec>\n\t\t<push_msg_set>\n";
  for (const _PollItem& item : listItems) {
    str += "\t\t\t<msg_info>\n\t\t\t\t<business_id>" + std::to_string(item.iPcid) +
           "</business_id>\n\t\t\t\t<msg_id>" + std::to_string(item.i64Seq) + "</msg_id>\n\t\t\t\t<content>" +
           Base64Encode(item.strText.data(), item.strText.size()).Str() + "</content>\n\t\t\t</msg_info>\n";
  }
  return str + "\t\t</push_msg_set>\n\t</push_msg_result>\n</message>";
}

}  // namespace zxcloudd
