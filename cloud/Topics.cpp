#include "Topics.h"

#include "CloudText.h"
#include "platform/doc/PJsonParse.h"

namespace zxcloudd {

namespace {

constexpr std::string_view kRoot = "zx/v1/";
constexpr std::string_view kFrame = "zx1 ";
constexpr size_t kStatusMax = 256;

}  // namespace

bool ParseTopic(std::string_view svTopic, _Topic& topic) {
  if (svTopic.substr(0, kRoot.size()) != kRoot)
    return false;
  svTopic.remove_prefix(kRoot.size());
  const size_t uSlash = svTopic.find('/');
  if (uSlash == std::string_view::npos || !IsMid(svTopic.substr(0, uSlash)))
    return false;
  const std::string_view svRest = svTopic.substr(uSlash + 1);
  int64_t i64Priority = 0;
  if (svRest == "status") {
    topic.eKind = ETopic::Status;
  } else if (svRest.substr(0, 3) == "up/" && ParseNumber(svRest.substr(3), 0, 99, i64Priority) &&
             IsPriority(static_cast<int>(i64Priority))) {
    topic.eKind = ETopic::Upload;
    topic.iPriority = static_cast<int>(i64Priority);
  } else {
    return false;
  }
  topic.strMid = svTopic.substr(0, uSlash);
  return true;
}

bool ParseUploadPayload(std::string_view svPayload, std::string_view& svMessageId, std::string_view& svBody) {
  if (svPayload.substr(0, kFrame.size()) != kFrame)
    return false;
  svPayload.remove_prefix(kFrame.size());
  const size_t uEnd = svPayload.substr(0, kMessageIdMax + 1).find('\n');
  if (uEnd == std::string_view::npos || !IsMessageId(svPayload.substr(0, uEnd)))
    return false;
  svMessageId = svPayload.substr(0, uEnd);
  svBody = svPayload.substr(uEnd + 1);
  return true;
}

bool ParseStatusPayload(std::string_view svPayload, bool& bOnline) {
  zxtools::CPJsonParse json;
  CPString strOnline;
  if (svPayload.empty() || svPayload.size() > kStatusMax ||
      !json.LoadBuffer(svPayload.data(), svPayload.size()) ||
      !zxtools::CPJsonParse::GetValue(json.GetNode("online"), strOnline))
    return false;
  if (strOnline != "0" && strOnline != "1")
    return false;
  bOnline = strOnline == "1";
  return true;
}

std::string PushTopic(const std::string& strMid, int iPcid) {
  return std::string(kRoot) + strMid + "/push/" + std::to_string(iPcid);
}

std::string ConfirmTopic(const std::string& strMid) {
  return std::string(kRoot) + strMid + "/ack";
}

}  // namespace zxcloudd
