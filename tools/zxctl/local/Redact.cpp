#include <algorithm>
#include <array>
#include <cctype>
#include <regex>

#include "zxctl/local/Bundle.h"

namespace zxctl {

namespace {

constexpr std::string_view kMask = "***";

bool IsWord(char ch) {
  return std::isalnum(static_cast<unsigned char>(ch)) != 0 || ch == '_' || ch == '-';
}

// Names whose values are secrets, matched as parts of a longer name ("proxy_password").
bool IsSecretName(std::string strName) {
  std::transform(strName.begin(), strName.end(), strName.begin(),
                 [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
  constexpr std::array<std::string_view, 6> kParts{"passw", "passphrase", "secret",
                                                   "token", "credential", "authorization"};
  for (const std::string_view svPart : kParts) {
    if (strName.find(svPart) != std::string::npos)
      return true;
  }
  return strName == "key" || strName == "apikey" || strName == "api_key" || strName == "private_key" ||
         strName == "cookie" || strName == "pwd";
}

// Where the value that begins at uFrom ends: a quoted text with its escapes, a bracketed log value, or a
// word.
size_t ValueEnd(std::string_view sv, size_t uFrom, char chOpen) {
  if (chOpen == '"' || chOpen == '\'') {
    size_t u = uFrom;
    while (u < sv.size() && sv[u] != chOpen && sv[u] != '\n')
      u += sv[u] == '\\' && u + 1 < sv.size() ? 2 : 1;
    return std::min(u, sv.size());
  }
  if (chOpen == '\\')  // a text within a text
    return std::min(sv.find_first_of("\\\"\n", uFrom), sv.size());
  if (chOpen == '[')
    return std::min(sv.find_first_of("]\n", uFrom), sv.size());
  return std::min(sv.find_first_of(" \t\r\n,;&<>}\"", uFrom), sv.size());
}

// After a secret name: blanks, quotes that close the name, one of ':', '=', '[', blanks, an opening quote.
// npos when no value follows.
size_t ValueBegin(std::string_view sv, size_t u, char& chOpen) {
  const auto skip = [&](std::string_view svSet) {
    while (u < sv.size() && svSet.find(sv[u]) != std::string_view::npos)
      ++u;
  };
  chOpen = 0;
  if (u < sv.size() && sv[u] == '[') {
    chOpen = '[';
    return u + 1;
  }
  skip("\"' \t\\");
  if (u >= sv.size() || (sv[u] != ':' && sv[u] != '='))
    return std::string_view::npos;
  ++u;
  skip(" \t");
  if (sv.substr(u, 2) == "\\\"") {
    chOpen = '\\';
    return u + 2;
  }
  // "Authorization: Bearer x" and the like: the whole line is the value.
  if (u < sv.size() && (sv[u] == '"' || sv[u] == '\'')) {
    chOpen = sv[u];
    ++u;
  }
  return u;
}

bool NameIsHeader(std::string_view svName) {
  return svName.size() == 13 && (svName[0] == 'A' || svName[0] == 'a');
}

std::string MaskNamed(std::string_view sv) {
  std::string str;
  size_t u = 0;
  while (u < sv.size()) {
    if (!IsWord(sv[u])) {
      str += sv[u++];
      continue;
    }
    size_t uEnd = u;
    while (uEnd < sv.size() && IsWord(sv[uEnd]))
      ++uEnd;
    const std::string strName(sv.substr(u, uEnd - u));
    str += strName;
    u = uEnd;
    char chOpen = 0;
    const size_t uValue = IsSecretName(strName) ? ValueBegin(sv, uEnd, chOpen) : std::string_view::npos;
    if (uValue == std::string_view::npos)
      continue;
    const size_t uValueEnd = chOpen == 0 && NameIsHeader(strName) ? std::min(sv.find('\n', uValue), sv.size())
                                                                  : ValueEnd(sv, uValue, chOpen);
    str += sv.substr(uEnd, uValue - uEnd);
    if (uValueEnd > uValue)
      str += kMask;
    u = uValueEnd;
  }
  return str;
}

std::string MaskUrls(const std::string& str) {
  static const std::regex reUser(R"(([A-Za-z][A-Za-z0-9+.-]{0,15}://)[^\s/@"']{1,512}@)");
  return std::regex_replace(str, reUser, "$1***@");
}

std::string MaskKeys(std::string str) {
  constexpr std::string_view kBegin = "-----BEGIN ";
  size_t u = 0;
  while ((u = str.find(kBegin, u)) != std::string::npos) {
    const size_t uLabelEnd = str.find("-----", u + kBegin.size());
    const std::string strLabel =
        str.substr(u + kBegin.size(), std::min<size_t>(64, uLabelEnd - u - kBegin.size()));
    if (strLabel.find("PRIVATE KEY") == std::string::npos) {
      u += kBegin.size();
      continue;
    }
    const std::string strEnd = "-----END " + strLabel + "-----";
    const size_t uEnd = str.find(strEnd, u);  // a key that is cut off has no end: all that follows goes
    str.replace(u, uEnd == std::string::npos ? std::string::npos : uEnd + strEnd.size() - u,
                "*** private key ***");
  }
  return str;
}

}  // namespace

std::string Redact(std::string_view svText) {
  return MaskUrls(MaskNamed(MaskKeys(std::string(svText))));
}

}  // namespace zxctl
