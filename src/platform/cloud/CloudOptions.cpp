#include "platform/cloud/CloudOptions.h"

#include <algorithm>

namespace zxcloud {

namespace {

bool IsKeyChar(char ch) {
  return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_';
}

// Length of the key when "key=" stands at the beginning of sv, else 0. A key begins with a letter.
size_t KeyLength(std::string_view sv) {
  size_t u = 0;
  while (u < sv.size() && IsKeyChar(sv[u]))
    ++u;
  const bool bLetter = !sv.empty() && !(sv.front() >= '0' && sv.front() <= '9');
  return u > 0 && u < sv.size() && sv[u] == '=' && bLetter ? u : 0;
}

// Offset of the ":" in front of the next "key=", or the end.
size_t ValueEnd(std::string_view sv) {
  for (size_t u = sv.find(':'); u != std::string_view::npos; u = sv.find(':', u + 1)) {
    if (KeyLength(sv.substr(u + 1)) != 0)
      return u;
  }
  return sv.size();
}

}  // namespace

bool IsMid(std::string_view svMid) {
  return !svMid.empty() && svMid.size() <= 128 && std::all_of(svMid.begin(), svMid.end(), [](char ch) {
    return IsKeyChar(ch) || ch == '.' || ch == '-';
  });
}

void _CloudOptions::Set(std::string_view svKey, std::string_view svValue) {
  if (svKey == "mid")
    strMid = svValue;
  else if (svKey == "m2")
    strMid2 = svValue;
  else if (svKey == "platid")
    strPlatId = svValue;
  else if (svKey == "localip")
    strLocalIp = svValue;
  else if (svKey == "cloudtcp_disable")
    bTcpDisable = svValue == "1";
  else if (svKey == "disable_hb")
    bHbDisable = svValue == "1";
  else if (svKey == "allowdebug")
    bAllowDebug = svValue == "1";
  else if (const std::string strKey(svKey); mapOther.size() < kMaxUnknownOptions || mapOther.contains(strKey))
    mapOther[strKey] = svValue;
}

bool _CloudOptions::Merge(std::string_view svText) {
  if (svText.empty() || svText.size() > kMaxOptionText || KeyLength(svText) == 0)
    return false;
  while (!svText.empty()) {
    const size_t uKey = KeyLength(svText);
    const std::string_view svKey = svText.substr(0, uKey);
    svText.remove_prefix(uKey + 1);
    const size_t uEnd = ValueEnd(svText);
    Set(svKey, svText.substr(0, uEnd));
    svText.remove_prefix(std::min(svText.size(), uEnd + 1));
  }
  return true;
}

std::string _CloudOptions::Text() const {
  std::string strText;
  const auto Append = [&strText](std::string_view svKey, std::string_view svValue) {
    strText.append(strText.empty() ? "" : ":").append(svKey).append("=").append(svValue);
  };
  const auto Flag = [](bool bFlag) { return bFlag ? "1" : "0"; };
  Append("mid", strMid);
  Append("m2", strMid2);
  Append("platid", strPlatId);
  Append("localip", strLocalIp);
  Append("cloudtcp_disable", Flag(bTcpDisable));
  Append("disable_hb", Flag(bHbDisable));
  Append("allowdebug", Flag(bAllowDebug));
  for (const auto& [strKey, strValue] : mapOther)
    Append(strKey, strValue);
  return strText;
}

}  // namespace zxcloud
