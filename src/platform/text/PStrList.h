// Ordered list and ordered set of CPString. Value types; threads as the standard containers.
#pragma once

#include <set>
#include <vector>

#include "platform/Api.h"
#include "platform/text/PString.h"

class ZX_API CPStrList {
 public:
  using TItems = std::vector<CPString>;

  void AddTail(CPString str) { m_items.push_back(std::move(str)); }
  void RemoveAll() { m_items.clear(); }
  size_t GetCount() const { return m_items.size(); }
  bool IsEmpty() const { return m_items.empty(); }
  const CPString& GetAt(size_t uIndex) const { return m_items.at(uIndex); }

  // Index of the first item at or after iStart that equals strData byte for byte; -1 when there is none.
  int FindData(const CPString& strData, int iStart) const;
  CPString ToString(const CPString& strSeparator) const;

  TItems::const_iterator begin() const { return m_items.begin(); }
  TItems::const_iterator end() const { return m_items.end(); }
  friend bool operator==(const CPStrList& a, const CPStrList& b) { return a.m_items == b.m_items; }

 private:
  TItems m_items;
};

class ZX_API CPStrSet {
 public:
  using TItems = std::set<CPString>;

  void Insert(CPString str) { m_items.insert(std::move(str)); }
  bool Contains(const CPString& str) const { return m_items.count(str) != 0; }
  size_t GetCount() const { return m_items.size(); }
  bool IsEmpty() const { return m_items.empty(); }
  CPString ToString(const CPString& strSeparator) const;

  TItems::const_iterator begin() const { return m_items.begin(); }
  TItems::const_iterator end() const { return m_items.end(); }
  friend bool operator==(const CPStrSet& a, const CPStrSet& b) { return a.m_items == b.m_items; }

 private:
  TItems m_items;
};
