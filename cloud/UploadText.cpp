#include "UploadText.h"

#include <vector>

#include "CloudText.h"
#include "platform/doc/PJsonParse.h"

namespace zxcloudd {

namespace {

constexpr size_t kAckMax = 4096;

// Takes the texts between fixed marks from left to right; once a mark is missing, everything after fails.
class CMarkReader {
 public:
  explicit CMarkReader(std::string_view sv) : m_svRest(sv) {}

  void Expect(std::string_view svMark) {
    if (m_bOk && m_svRest.substr(0, svMark.size()) == svMark)
      m_svRest.remove_prefix(svMark.size());
    else
      m_bOk = false;
  }
  // The text before the next svMark; the mark is consumed.
  void Until(std::string_view svMark, std::string_view& svValue) {
    const size_t uAt = m_bOk ? m_svRest.find(svMark) : std::string_view::npos;
    m_bOk = uAt != std::string_view::npos;
    if (!m_bOk)
      return;
    svValue = m_svRest.substr(0, uAt);
    m_svRest.remove_prefix(uAt + svMark.size());
  }
  bool Ok() const { return m_bOk; }
  std::string_view Rest() const { return m_svRest; }

 private:
  std::string_view m_svRest;
  bool m_bOk = true;
};

bool StartsWith(std::string_view sv, std::string_view svPrefix) {
  return sv.substr(0, svPrefix.size()) == svPrefix;
}

constexpr std::string_view kServerKey = "PCServerJasonData=";
constexpr std::string_view kPluginKey = "PCPluginJasonData=";
constexpr std::string_view kVersionKey = "PCPluginVersion=";
constexpr std::string_view kBodyEnd = "><PCPluginVersion=";

bool ParseTail(std::string_view svTail, _UploadHeader& header) {
  if (StartsWith(svTail, kVersionKey)) {
    const size_t uEnd = svTail.find('>');
    if (uEnd == std::string_view::npos)
      return false;
    header.eType = EUploadType::Tags;
    header.svBody = svTail.substr(uEnd + 1);
    return true;
  }
  const bool bServer = StartsWith(svTail, kServerKey);
  if (!bServer && !StartsWith(svTail, kPluginKey))
    return false;
  header.eType = bServer ? EUploadType::ServerData : EUploadType::PluginData;
  svTail.remove_prefix(kPluginKey.size());
  const size_t uEnd = svTail.rfind(kBodyEnd);
  if (uEnd == std::string_view::npos || svTail.back() != '>')
    return false;
  header.svBody = svTail.substr(0, uEnd);
  return true;
}

}  // namespace

static_assert(kServerKey.size() == kPluginKey.size());

bool ParseUpload(std::string_view svUpload, _UploadHeader& header) {
  CMarkReader reader(svUpload);
  reader.Expect("<mid=");
  reader.Until("><m2=", header.svMid);
  reader.Until("><v=2><product=", header.svMid2);
  reader.Until("><combo=", header.svProduct);
  reader.Until("><ipartner=", header.svCombo);
  reader.Until("><pa=linux><pid=", header.svPartner);
  reader.Until("><sysver=", header.svChannel);
  reader.Until("><version=", header.svSysVer);
  reader.Until("><", header.svVersion);
  return reader.Ok() && ParseTail(reader.Rest(), header);
}

bool ParseAck(std::string_view svBody, _Ack& ack) {
  if (svBody.empty() || svBody.size() > kAckMax || svBody.front() != '{')
    return false;
  zxtools::CPJsonParse json;
  std::vector<zxtools::HJsonNode> listMembers;
  if (!json.LoadBuffer(svBody.data(), svBody.size()) || !json.GetAllNode(json.GetRoot(), listMembers) ||
      listMembers.size() != 2)
    return false;
  CPString strID, strType;
  if (!zxtools::CPJsonParse::GetValue(json.GetNode("ID"), strID) ||
      !zxtools::CPJsonParse::GetValue(json.GetNode("msg_type"), strType))
    return false;
  int64_t i64Type = 0;
  if (!IsCommandId(strID.View()) || !ParseNumber(strType.View(), 0, 1000000, i64Type))
    return false;
  ack.strID = strID.Str();
  ack.iMsgType = static_cast<int>(i64Type);
  return true;
}

const char* TypeName(EUploadType eType) {
  switch (eType) {
    case EUploadType::ServerData:
      return "server";
    case EUploadType::PluginData:
      return "plugin";
    case EUploadType::Tags:
      return "tags";
  }
  return "plugin";
}

namespace {

constexpr std::string_view kMaintCombo = "zxpmaint";
constexpr size_t kStateMax = 32;

void ParseMaintResult(std::string_view svBody, _UploadNature& nature) {
  zxtools::CPJsonParse json;
  CPString strID, strState, strExit;
  if (svBody.empty() || svBody.front() != '{' || !json.LoadBuffer(svBody.data(), svBody.size()) ||
      !zxtools::CPJsonParse::GetValue(json.GetNode("ID"), strID) ||
      !zxtools::CPJsonParse::GetValue(json.GetNode("state"), strState) || !IsCommandId(strID.View()) ||
      strState.View().size() > kStateMax)
    return;
  int64_t i64Exit = 0;
  nature.strAbout = strID.Str();
  nature.strOutcome = strState.Str();
  if (zxtools::CPJsonParse::GetValue(json.GetNode("exit_code"), strExit) &&
      ParseNumber(strExit.View(), 0, 255, i64Exit))
    nature.strOutcome += " " + strExit.Str();
}

}  // namespace

_UploadNature NatureOf(const _UploadHeader& header) {
  _UploadNature nature;
  _Ack ack;
  if (header.eType == EUploadType::Tags) {
    nature.eKind = EUploadKind::Tags;
  } else if (ParseAck(header.svBody, ack)) {
    nature.eKind = EUploadKind::Ack;
    nature.strAbout = ack.strID;
    nature.strOutcome = std::to_string(ack.iMsgType);
  } else if (header.svCombo == kMaintCombo) {
    nature.eKind = EUploadKind::Maint;
    ParseMaintResult(header.svBody, nature);  // a tool of somebody else may write another format
  }
  return nature;
}

const char* KindName(EUploadKind eKind) {
  switch (eKind) {
    case EUploadKind::Ack:
      return "ack";
    case EUploadKind::Maint:
      return "maint";
    case EUploadKind::Tags:
      return "tags";
    case EUploadKind::Data:
      return "data";
  }
  return "data";
}

}  // namespace zxcloudd
