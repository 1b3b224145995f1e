// The byte-string type used everywhere: 8-bit text, UTF-8 where it is not ASCII, may hold NUL bytes.
// A value type: copies are independent. Threads: as std::string; share only behind a lock.
// Nothing here logs or throws, except std::bad_alloc.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "platform/Api.h"

class CPStrList;

class ZX_API CPString {
 public:
  CPString() = default;
  CPString(const char* psz);  // NOLINT(google-explicit-constructor) null gives the empty text
  CPString(const char* pData, size_t uLength);
  CPString(std::string str);  // NOLINT(google-explicit-constructor)
  explicit CPString(std::string_view sv);

  const char* c_str() const { return m_str.c_str(); }
  const char* data() const { return m_str.data(); }
  size_t GetLength() const { return m_str.size(); }
  bool IsEmpty() const { return m_str.empty(); }
  void Empty() { m_str.clear(); }
  const std::string& Str() const { return m_str; }
  std::string_view View() const { return m_str; }

  // printf formats; Format replaces this text, Make returns a new one. %s arguments are C strings.
  void Format(const char* pszFormat, ...) __attribute__((format(printf, 2, 3)));
  void FormatV(const char* pszFormat, va_list args) __attribute__((format(printf, 2, 0)));
  static CPString Make(const char* pszFormat, ...) __attribute__((format(printf, 1, 2)));

  // Splits at every occurrence of strSeparator (not empty) and replaces the list's content.
  // bTrim strips blanks, tabs, CR and LF at both ends of each piece; bSkipEmpty then drops empty pieces.
  // An empty text gives no piece with bSkipEmpty and one empty piece without. Returns the number of pieces.
  int Split(const CPString& strSeparator, CPStrList& list, bool bSkipEmpty, bool bTrim) const;

  // Byte offsets; a range outside the text is clipped, so nothing here fails. npos means "to the end".
  CPString Mid(size_t uStart, size_t uCount = npos) const;
  CPString Left(size_t uCount) const;
  CPString Right(size_t uCount) const;

  // Offset of the first/last occurrence, or npos.
  size_t Find(std::string_view sv, size_t uFrom = 0) const { return m_str.find(sv, uFrom); }
  size_t ReverseFind(char ch) const { return m_str.rfind(ch); }

  void TrimLeft(char ch);
  void TrimRight(char ch);
  void ToLower();          // ASCII letters only, in place
  CPString Lower() const;  // the same as a copy

  // <0, 0 or >0. bExact 1 compares bytes, 0 ignores ASCII case.
  int Compare(const CPString& strOther, int bExact) const;
  int CompareNoCase(const CPString& strOther) const { return Compare(strOther, 0); }

  CPString& operator+=(const CPString& str);
  CPString& operator+=(const char* psz);
  CPString& operator+=(char ch);

  friend bool operator==(const CPString& a, const CPString& b) { return a.m_str == b.m_str; }
  friend bool operator!=(const CPString& a, const CPString& b) { return a.m_str != b.m_str; }
  friend bool operator<(const CPString& a, const CPString& b) { return a.m_str < b.m_str; }
  friend CPString operator+(CPString a, const CPString& b) {
    a += b;
    return a;
  }

  static constexpr size_t npos = static_cast<size_t>(-1);

 private:
  std::string m_str;
};

template <>
struct std::hash<CPString> {
  size_t operator()(const CPString& str) const noexcept { return std::hash<std::string>()(str.Str()); }
};
