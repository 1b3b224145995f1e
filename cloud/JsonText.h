// Writes a JSON object member by member, compact. Texts that are not UTF-8 come out as Latin-1 read byte by
// byte, so that the document stays valid whatever a machine sent. One thread per object.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zxcloudd {

class CJsonText {
 public:
  CJsonText() : m_str("{") {}

  void Text(const char* pszName, std::string_view svValue);
  void Number(const char* pszName, int64_t i64Value);
  void Bool(const char* pszName, bool bValue);
  // Objects inside arrays: Array("list"); for each { Object(); ...; End(); } End();
  void Array(const char* pszName);
  void Object(const char* pszName = nullptr);
  void End();
  // The whole document; closes what is open.
  std::string Str();

  static std::string Quote(std::string_view sv);

 private:
  void Name(const char* pszName);

  std::string m_str;
  std::string m_strOpen = "}";  // what closes each open level
};

}  // namespace zxcloudd
