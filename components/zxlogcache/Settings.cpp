#include "Settings.h"

#include <pwd.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "kit/HandOff.h"
#include "platform/doc/PJsonParse.h"

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

namespace zxlogcache {
namespace {

constexpr char kOwnGuid[] = "9946467F-0102-46E8-ACAC-B9EFE3CD68FD";
constexpr size_t kMaxSources = 64;
constexpr size_t kMaxInputs = 256;

// Reads members of one object; the first complaint is kept and makes every later read a no-op.
class CReader {
 public:
  CReader(const CPJsonParse& json, std::string& strError) : m_json(json), m_strError(strError) {}

  bool Ok() const { return m_strError.empty(); }
  bool Fail(const std::string& strWhat) {
    if (m_strError.empty())
      m_strError = strWhat;
    return false;
  }
  HJsonNode Find(HJsonNode hParent, const char* pszName) const {
    return hParent == nullptr ? nullptr : m_json.GetNode(hParent, pszName);
  }
  std::vector<HJsonNode> List(HJsonNode hNode) const {
    std::vector<HJsonNode> list;
    if (hNode != nullptr)
      m_json.GetAllNode(hNode, list);
    return list;
  }
  void Text(HJsonNode hParent, const char* pszName, std::string& strValue) const {
    CPString str;
    if (const HJsonNode hNode = Find(hParent, pszName); hNode != nullptr) {
      CPJsonParse::GetValue(hNode, str);
      strValue = str.Str();
    }
  }
  void Flag(HJsonNode hParent, const char* pszName, bool& bValue) {
    std::string strValue = bValue ? "true" : "false";
    Text(hParent, pszName, strValue);
    if (strValue != "true" && strValue != "false")
      Fail(std::string(pszName) + " is neither true nor false");
    bValue = strValue == "true";
  }
  template <class T>
  void Number(HJsonNode hParent, const char* pszName, T& value, double dMin, double dMax, double dUnit = 1) {
    const HJsonNode hNode = Find(hParent, pszName);
    if (hNode == nullptr)
      return;
    double dValue = 0;
    if (!CPJsonParse::GetDoubleValue(hNode, dValue) || !(dValue >= dMin) || !(dValue <= dMax) ||
        dValue != std::floor(dValue))
      Fail(std::string(pszName) + " is no whole number in its range");
    else
      value = static_cast<T>(dValue * dUnit);
  }
  template <class T>
  void Choice(HJsonNode hParent, const char* pszName, T& value,
              std::initializer_list<std::pair<const char*, T>> choices) {
    std::string strValue;
    Text(hParent, pszName, strValue);
    if (strValue.empty())
      return;
    for (const auto& [pszText, choice] : choices) {
      if (strValue == pszText) {
        value = choice;
        return;
      }
    }
    Fail(std::string(pszName) + " has no such value: " + strValue);
  }

 private:
  const CPJsonParse& m_json;
  std::string& m_strError;
};

std::string Absolute(const std::string& strPath, const std::string& strFolder) {
  return strPath.empty() || strPath.front() == '/' ? strPath : strFolder + strPath;
}

// A user name or number.
bool UidOf(const std::string& strUser, uid_t& uid) {
  if (!strUser.empty() && strUser.find_first_not_of("0123456789") == std::string::npos &&
      strUser.size() < 10) {
    uid = static_cast<uid_t>(std::stoul(strUser));
    return true;
  }
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* pEntry = nullptr;
  if (getpwnam_r(strUser.c_str(), &entry, buffer.data(), buffer.size(), &pEntry) != 0 || pEntry == nullptr)
    return false;
  uid = entry.pw_uid;
  return true;
}

bool IsHeaderText(const std::string& strText) {
  return strText.size() <= 63 && strText.find_first_of(std::string("<>\0\r\n", 5)) == std::string::npos;
}

void ReadSocket(CReader& reader, HJsonNode hSocket, const std::string& strFolder, _SourceSettings& source) {
  _SocketSettings sock;
  std::string strMode = "0660";
  reader.Text(hSocket, "path", sock.strPath);
  reader.Text(hSocket, "mode", strMode);
  reader.Choice(hSocket, "type", sock.bStream, {{"stream", true}, {"datagram", false}});
  sock.bStream = sock.bStream || reader.Find(hSocket, "type") == nullptr;
  reader.Choice(hSocket, "framing", sock.eFraming,
                {{"lines", EFraming::Lines}, {"octets", EFraming::Octets}});
  reader.Flag(hSocket, "ack", sock.bAck);
  sock.strPath = Absolute(sock.strPath, strFolder);
  if (sock.strPath.empty() || sock.strPath.size() > 107)
    reader.Fail("socket path of source " + source.strName + " is missing or longer than 107 bytes");
  if (strMode.empty() || strMode.size() > 4 || strMode.find_first_not_of("01234567") != std::string::npos)
    reader.Fail("mode is not octal: " + strMode);
  else
    sock.mode = static_cast<mode_t>(std::stoul(strMode, nullptr, 8)) & 0777;
  for (const HJsonNode hUser : reader.List(reader.Find(hSocket, "allow_users"))) {
    CPString strUser;
    uid_t uid = 0;
    CPJsonParse::GetValue(hUser, strUser);
    if (UidOf(strUser.Str(), uid))
      sock.uids.push_back(uid);
    else
      reader.Fail("allow_users names nobody on this machine: " + strUser.Str());
  }
  source.sockets.push_back(std::move(sock));
}

void ReadFiles(CReader& reader, HJsonNode hSource, const std::string& strFolder, _SourceSettings& source) {
  for (const HJsonNode hFile : reader.List(reader.Find(hSource, "files"))) {
    _FileSettings file;
    reader.Text(hFile, "path", file.strPath);
    reader.Choice(hFile, "from", file.bFromEnd, {{"start", false}, {"end", true}});
    file.strPath = Absolute(file.strPath, strFolder);
    if (file.strPath.empty() || file.strPath.back() == '/')
      reader.Fail("a file of source " + source.strName + " has no path");
    source.files.push_back(std::move(file));
  }
}

void ReadSource(CReader& reader, HJsonNode hSource, const std::string& strFolder,
                const std::string& strSocketFolder, _SourceSettings& source) {
  source.strGuid = kOwnGuid;
  reader.Text(hSource, "name", source.strName);
  reader.Text(hSource, "guid", source.strGuid);
  reader.Text(hSource, "product", source.strProduct);
  reader.Text(hSource, "combo", source.strCombo);
  reader.Number(hSource, "priv", source.iPriv, 0, 3);
  reader.Number(hSource, "msgtype", source.iMsgType, 1, 2);
  reader.Choice(hSource, "body", source.eBody,
                {{"json", EBody::Json}, {"lines", EBody::Lines}, {"record", EBody::Record}});
  if (source.strName.empty() || !IsHeaderText(source.strName))
    reader.Fail("a source has no name, or one of more than 63 bytes or with angle brackets");
  if (!IsGuidText(source.strGuid))
    reader.Fail("guid of source " + source.strName + " is none");
  if (!IsHeaderText(source.strProduct) || !IsHeaderText(source.strCombo))
    reader.Fail("product or combo of source " + source.strName + " has brackets or more than 63 bytes");
  for (const HJsonNode hSocket : reader.List(reader.Find(hSource, "sockets")))
    ReadSocket(reader, hSocket, strSocketFolder, source);
  ReadFiles(reader, hSource, strFolder, source);
}

bool CheckTogether(CReader& reader, const _Settings& settings) {
  std::set<std::string> names, paths;
  size_t uInputs = 0;
  for (const _SourceSettings& source : settings.sources) {
    if (!names.insert(source.strName).second)
      reader.Fail("two sources are called " + source.strName);
    for (const _SocketSettings& sock : source.sockets) {
      if (!paths.insert(sock.strPath).second)
        reader.Fail("two inputs have the path " + sock.strPath);
    }
    for (const _FileSettings& file : source.files) {
      if (!paths.insert(file.strPath).second)
        reader.Fail("two inputs have the path " + file.strPath);
    }
    uInputs += source.sockets.size() + source.files.size();
  }
  if (settings.sources.size() > kMaxSources || uInputs > kMaxInputs)
    reader.Fail("more than 64 sources or 256 inputs");
  if (settings.uiRetryMinMs > settings.uiRetryMaxMs)
    reader.Fail("retry_min_ms is above retry_max_ms");
  if (settings.u64MaxBytes / 8 < std::max(settings.uiBatchBytes, settings.uiMaxRecordBytes))
    reader.Fail("store max_bytes is below eight times batch max_bytes or max_record_bytes");
  return reader.Ok();
}

}  // namespace

bool ParseSettings(std::string_view text, const std::string& strFolder, const std::string& strSocketFolder,
                   _Settings& settings, std::string& strError) {
  settings = _Settings();
  strError.clear();
  CPJsonParse json;
  CReader reader(json, strError);
  if (json.LoadBuffer(text.data(), text.size()) == 0)
    return reader.Fail("no JSON");
  const HJsonNode hRoot = json.GetRoot();
  for (const HJsonNode hSource : reader.List(reader.Find(hRoot, "sources")))
    ReadSource(reader, hSource, strFolder, strSocketFolder, settings.sources.emplace_back());
  const HJsonNode hStore = reader.Find(hRoot, "store");
  reader.Number(hStore, "max_bytes", settings.u64MaxBytes, 1 << 20, 1099511627776.0);
  reader.Number(hStore, "max_age_sec", settings.i64MaxAgeMs, 60, 315360000, 1000);
  reader.Choice(hStore, "when_full", settings.eWhenFull,
                {{"drop_oldest", EWhenFull::DropOldest}, {"refuse", EWhenFull::Refuse}});
  const HJsonNode hBatch = reader.Find(hRoot, "batch");
  reader.Number(hBatch, "max_bytes", settings.uiBatchBytes, 1024, 1 << 20);
  reader.Number(hBatch, "linger_ms", settings.uiLingerMs, 0, 60000);
  reader.Number(hRoot, "window", settings.uiWindow, 1, 256);
  reader.Number(hRoot, "retry_min_ms", settings.uiRetryMinMs, 10, 3600000);
  reader.Number(hRoot, "retry_max_ms", settings.uiRetryMaxMs, 10, 3600000);
  reader.Number(hRoot, "result_timeout_sec", settings.uiResultTimeoutMs, 1, 86400, 1000);
  reader.Number(hRoot, "max_record_bytes", settings.uiMaxRecordBytes, 256, 1 << 20);
  reader.Number(hRoot, "max_clients", settings.uiMaxClients, 1, 4096);
  return CheckTogether(reader, settings);
}

}  // namespace zxlogcache
