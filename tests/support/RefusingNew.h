// Memory that runs out on demand. Links global allocation functions, so a test that uses it is a program of
// its own.
#pragma once

// While one lives, non-throwing allocations of its thread fail. Does not nest.
class CRefuseNew {
 public:
  CRefuseNew();
  ~CRefuseNew();
  CRefuseNew(const CRefuseNew&) = delete;
  CRefuseNew& operator=(const CRefuseNew&) = delete;
};
