#include "platform/text/PString.h"

#include <algorithm>
#include <cstdio>

#include "platform/text/PStrList.h"

namespace {

constexpr size_t kFormatStackBytes = 4096;  // measuring a text that does not fit costs as much as writing it

char LowerAscii(char ch) {
  return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
}

std::string_view TrimBlanks(std::string_view sv) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t uFirst = sv.find_first_not_of(kBlanks);
  if (uFirst == std::string_view::npos)
    return {};
  return sv.substr(uFirst, sv.find_last_not_of(kBlanks) - uFirst + 1);
}

// A new text, so that an argument may point into the one that receives the result.
__attribute__((format(printf, 1, 0))) std::string FormatText(const char* pszFormat, va_list args) {
  char szStack[kFormatStackBytes];
  va_list again;
  va_copy(again, args);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized) the caller started it
  const int iLength = std::vsnprintf(szStack, sizeof(szStack), pszFormat, args);
  std::string strResult;
  if (iLength > 0 && static_cast<size_t>(iLength) < sizeof(szStack)) {
    strResult.assign(szStack, static_cast<size_t>(iLength));
  } else if (iLength > 0) {
    strResult.resize(static_cast<size_t>(iLength));
    std::vsnprintf(strResult.data(), strResult.size() + 1, pszFormat, again);
  }
  va_end(again);
  return strResult;
}

}  // namespace

CPString::CPString(const char* psz) : m_str(psz != nullptr ? psz : "") {}

CPString::CPString(const char* pData, size_t uLength) {
  if (pData != nullptr)
    m_str.assign(pData, uLength);
}

CPString::CPString(std::string str) : m_str(std::move(str)) {}

CPString::CPString(std::string_view sv) : m_str(sv) {}

void CPString::Format(const char* pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  FormatV(pszFormat, args);
  va_end(args);
}

void CPString::FormatV(const char* pszFormat, va_list args) {
  m_str = FormatText(pszFormat, args);
}

CPString CPString::Make(const char* pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  CPString strResult(FormatText(pszFormat, args));
  va_end(args);
  return strResult;
}

int CPString::Split(const CPString& strSeparator, CPStrList& list, bool bSkipEmpty, bool bTrim) const {
  list.RemoveAll();
  const std::string_view svText = m_str;
  const std::string_view svSeparator = strSeparator.View();
  size_t uFrom = 0;
  while (true) {
    const size_t uEnd = svSeparator.empty() ? npos : svText.find(svSeparator, uFrom);
    std::string_view svPiece = svText.substr(uFrom, uEnd == npos ? npos : uEnd - uFrom);
    if (bTrim)
      svPiece = TrimBlanks(svPiece);
    if (!bSkipEmpty || !svPiece.empty())
      list.AddTail(CPString(svPiece));
    if (uEnd == npos)
      break;
    uFrom = uEnd + svSeparator.size();
  }
  return static_cast<int>(list.GetCount());
}

CPString CPString::Mid(size_t uStart, size_t uCount) const {
  if (uStart >= m_str.size())
    return {};
  return CPString(m_str.substr(uStart, uCount));
}

CPString CPString::Left(size_t uCount) const {
  return Mid(0, uCount);
}

CPString CPString::Right(size_t uCount) const {
  return uCount >= m_str.size() ? *this : Mid(m_str.size() - uCount);
}

void CPString::TrimLeft(char ch) {
  m_str.erase(0, std::min(m_str.find_first_not_of(ch), m_str.size()));
}

void CPString::TrimRight(char ch) {
  m_str.erase(m_str.find_last_not_of(ch) + 1);  // npos + 1 is 0: nothing but ch
}

void CPString::ToLower() {
  std::transform(m_str.begin(), m_str.end(), m_str.begin(), LowerAscii);
}

CPString CPString::Lower() const {
  CPString strResult(*this);
  strResult.ToLower();
  return strResult;
}

int CPString::Compare(const CPString& strOther, int bExact) const {
  if (bExact != 0)
    return m_str.compare(strOther.m_str);
  const size_t uCommon = std::min(m_str.size(), strOther.m_str.size());
  for (size_t u = 0; u < uCommon; ++u) {
    const int iDiff = static_cast<unsigned char>(LowerAscii(m_str[u])) -
                      static_cast<unsigned char>(LowerAscii(strOther.m_str[u]));
    if (iDiff != 0)
      return iDiff;
  }
  if (m_str.size() == strOther.m_str.size())
    return 0;
  return m_str.size() < strOther.m_str.size() ? -1 : 1;
}

CPString& CPString::operator+=(const CPString& str) {
  m_str += str.m_str;
  return *this;
}

CPString& CPString::operator+=(const char* psz) {
  if (psz != nullptr)
    m_str += psz;
  return *this;
}

CPString& CPString::operator+=(char ch) {
  m_str += ch;
  return *this;
}
