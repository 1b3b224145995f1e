// Poll envelopes as the cloud writes them.
#pragma once

#include <string>

#include "platform/doc/Base64.h"

inline std::string Encoded(const std::string& strText) {
  return Base64Encode(strText.data(), strText.size()).Str();
}

// strContent as it stands in the envelope.
inline std::string RawItem(const std::string& strBusinessId, const std::string& strContent,
                           const std::string& strMsgId = "m") {
  return "<msg_info><business_id>" + strBusinessId + "</business_id><msg_id>" + strMsgId +
         "</msg_id><content>" + strContent + "</content></msg_info>";
}

inline std::string Item(int iPcid, const std::string& strText, const std::string& strMsgId = "m") {
  return RawItem(std::to_string(iPcid), Encoded(strText), strMsgId);
}

inline std::string Envelope(const std::string& strItems) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?><message><error_code>0</error_code><push_msg_result>"
         "<push_timestamp>77</push_timestamp><poll_period_sec>60</poll_period_sec><push_msg_set>" +
         strItems + "</push_msg_set></push_msg_result></message>";
}
