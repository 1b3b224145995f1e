// What reaches the cloud from machines and operators: uploads, acknowledgements, poll queries, topics,
// payload frames, states, push requests. The first byte picks the parser.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "cloud/CloudConfig.h"
#include "cloud/CloudService.h"
#include "cloud/JsonText.h"
#include "cloud/PollText.h"
#include "cloud/Topics.h"
#include "cloud/UploadText.h"
#include "platform/doc/PJsonParse.h"

using namespace zxcloudd;

namespace {

void Require(bool bHolds) {
  if (!bHolds)
    abort();
}

bool Inside(std::string_view svPart, std::string_view svWhole) {
  return svPart.empty() || (svPart.data() >= svWhole.data() &&
                            svPart.data() + svPart.size() <= svWhole.data() + svWhole.size());
}

void FuzzUpload(std::string_view sv) {
  _UploadHeader header;
  _Ack ack;
  if (ParseUpload(sv, header)) {
    Require(Inside(header.svMid, sv) && Inside(header.svVersion, sv) && Inside(header.svBody, sv));
    ParseAck(header.svBody, ack);
  }
  if (ParseAck(sv, ack))
    Require(!ack.strID.empty() && ack.strID.size() <= 200 && ack.iMsgType >= 0);
}

void FuzzFrames(std::string_view sv) {
  _Topic topic;
  std::string_view svId, svBody;
  bool bOnline = false;
  if (ParseTopic(sv, topic))
    Require(!topic.strMid.empty() && topic.strMid.size() <= 128);
  if (ParseUploadPayload(sv, svId, svBody))
    Require(Inside(svId, sv) && Inside(svBody, sv) && 4 + svId.size() + 1 + svBody.size() == sv.size());
  ParseStatusPayload(sv, bOnline);
}

// Whatever a machine sent, what operators are shown is JSON.
void FuzzQuote(std::string_view sv) {
  const std::string strJson = "[" + CJsonText::Quote(sv) + "]";
  zxtools::CPJsonParse json;
  Require(sv.find('\0') != std::string_view::npos || json.LoadBuffer(strJson.data(), strJson.size()) != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  if (uSize == 0)
    return 0;
  const std::string_view sv(reinterpret_cast<const char*>(pData) + 1, uSize - 1);
  _PollQuery query;
  _NewCommand command;
  _CloudConfig config;
  std::string strError;
  switch (pData[0] % 6) {
    case 0:
      FuzzUpload(sv);
      break;
    case 1:
      FuzzFrames(sv);
      break;
    case 2:
      if (ParsePollQuery(sv, query))
        Require(!query.strMid.empty());
      break;
    case 3:
      if (ParsePushRequest(std::string(sv), command, strError))
        Require(!command.strID.empty() && !command.strMid.empty() && command.iPcid > 0);
      else
        Require(!strError.empty());
      break;
    case 4:
      if (!ParseCloudConfig(std::string(sv), "/", config, strError))
        Require(!strError.empty());
      break;
    default:
      FuzzQuote(sv);
      break;
  }
  return 0;
}
