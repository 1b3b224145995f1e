// Translation hook for commands. No translation is defined: TransMsg returns 0 and leaves both outputs
// untouched.
#pragma once

#include "platform/doc/PJsonParse.h"
#include "platform/text/PString.h"

class CAgentTrans {
 public:
  int TransMsg(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
               const CPString& strID, const zxtools::CPJsonParse& json, CPString& strNewCommand,
               CPString& strNewMsg);
};
