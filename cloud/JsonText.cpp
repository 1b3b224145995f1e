#include "JsonText.h"

#include <cstdio>

namespace zxcloudd {

namespace {

// Length of the valid UTF-8 sequence at the start of sv; 0 when there is none.
size_t Utf8Length(std::string_view sv) {
  const auto at = [&](size_t u) { return static_cast<unsigned char>(sv[u]); };
  const unsigned char ch = at(0);
  const size_t uLength = ch < 0x80                 ? 1
                         : ch >= 0xc2 && ch < 0xe0 ? 2
                         : (ch & 0xf0) == 0xe0     ? 3
                         : ch >= 0xf0 && ch < 0xf5 ? 4
                                                   : 0;
  if (uLength == 0 || uLength > sv.size())
    return 0;
  for (size_t u = 1; u < uLength; ++u) {
    if ((at(u) & 0xc0) != 0x80)
      return 0;
  }
  const bool bOverlong = (ch == 0xe0 && at(1) < 0xa0) || (ch == 0xf0 && at(1) < 0x90);
  const bool bOutside = (ch == 0xed && at(1) > 0x9f) || (ch == 0xf4 && at(1) > 0x8f);
  return bOverlong || bOutside ? 0 : uLength;
}

}  // namespace

std::string CJsonText::Quote(std::string_view sv) {
  std::string str = "\"";
  while (!sv.empty()) {
    const auto ch = static_cast<unsigned char>(sv.front());
    const size_t uLength = Utf8Length(sv);
    if (ch < 0x20 || ch == 0x7f || uLength == 0) {
      char sz[8];
      std::snprintf(sz, sizeof(sz), "\\u%04x", ch);
      str += sz;
      sv.remove_prefix(1);
      continue;
    }
    if (ch == '"' || ch == '\\')
      str += '\\';
    str.append(sv.substr(0, uLength));
    sv.remove_prefix(uLength);
  }
  return str + '"';
}

void CJsonText::Name(const char* pszName) {
  if (m_str.back() != '{' && m_str.back() != '[')
    m_str += ',';
  if (pszName != nullptr)
    m_str += Quote(pszName) + ":";
}

void CJsonText::Text(const char* pszName, std::string_view svValue) {
  Name(pszName);
  m_str += Quote(svValue);
}

void CJsonText::Number(const char* pszName, int64_t i64Value) {
  Name(pszName);
  m_str += std::to_string(i64Value);
}

void CJsonText::Bool(const char* pszName, bool bValue) {
  Name(pszName);
  m_str += bValue ? "true" : "false";
}

void CJsonText::Array(const char* pszName) {
  Name(pszName);
  m_str += '[';
  m_strOpen += ']';
}

void CJsonText::Object(const char* pszName) {
  Name(pszName);
  m_str += '{';
  m_strOpen += '}';
}

void CJsonText::End() {
  m_str += m_strOpen.back();
  m_strOpen.pop_back();
}

std::string CJsonText::Str() {
  while (!m_strOpen.empty())
    End();
  return m_str;
}

}  // namespace zxcloudd
