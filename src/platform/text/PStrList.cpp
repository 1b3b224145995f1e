#include "platform/text/PStrList.h"

#include <algorithm>

namespace {

template <class TItems>
CPString Join(const TItems& items, const CPString& strSeparator) {
  std::string strResult;
  bool bFirst = true;
  for (const CPString& str : items) {
    if (!bFirst)
      strResult += strSeparator.Str();
    strResult += str.Str();
    bFirst = false;
  }
  return CPString(std::move(strResult));
}

}  // namespace

int CPStrList::FindData(const CPString& strData, int iStart) const {
  const size_t uStart = iStart > 0 ? static_cast<size_t>(iStart) : 0;
  for (size_t u = uStart; u < m_items.size(); ++u) {
    if (m_items[u] == strData)
      return static_cast<int>(u);
  }
  return -1;
}

CPString CPStrList::ToString(const CPString& strSeparator) const {
  return Join(m_items, strSeparator);
}

CPString CPStrSet::ToString(const CPString& strSeparator) const {
  return Join(m_items, strSeparator);
}
