// Failures of the system calls and allocations behind the data store, on demand. Scoped: the destructor
// restores normal behaviour. One at a time per process.
#pragma once

#include <string>

// Calls to rename() onto strTarget fail with iError, the first iCount times.
class CRenameFault {
 public:
  explicit CRenameFault(const std::string& strTarget, int iError, int iCount = 1 << 30);
  ~CRenameFault();
  CRenameFault(const CRenameFault&) = delete;
  CRenameFault& operator=(const CRenameFault&) = delete;
};

// The JSON library gets uAllowed allocations from now on and none after that.
class CJsonMemoryFault {
 public:
  explicit CJsonMemoryFault(unsigned int uAllowed);
  ~CJsonMemoryFault();
  CJsonMemoryFault(const CJsonMemoryFault&) = delete;
  CJsonMemoryFault& operator=(const CJsonMemoryFault&) = delete;

  bool Hit() const;  // an allocation was refused
};
