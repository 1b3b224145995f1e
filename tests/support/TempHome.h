// A private, empty home directory for one test; removed with everything in it at the end of the scope.
#pragma once

#include <sys/types.h>

#include "platform/text/PString.h"

class CTempHome {
 public:
  CTempHome();  // aborts the test program when no directory can be made
  ~CTempHome();
  CTempHome(const CTempHome&) = delete;
  CTempHome& operator=(const CTempHome&) = delete;

  const CPString& Root() const { return m_strRoot; }  // ends in "/"
  CPString Path(const CPString& strRelative) const;   // Root() + strRelative

  // Paths below are relative to the home. Parents are created. A failure is a gtest failure.
  void MakeDir(const CPString& strRelative, mode_t mode = 0755) const;
  void WriteFile(const CPString& strRelative, const CPString& strData, mode_t mode = 0644) const;
  CPString ReadFile(const CPString& strRelative) const;  // empty (and a failure) when it cannot be read
  bool Exists(const CPString& strRelative) const;
  mode_t Mode(const CPString& strRelative) const;  // permission bits, 0 when it does not exist
  void Remove(const CPString& strRelative) const;  // recursive; missing is fine

 private:
  CPString m_strRoot;
};
