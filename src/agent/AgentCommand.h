// What the readers of a command's JSON text share.
#pragma once

#include <cstddef>

#include "platform/doc/PJsonParse.h"
#include "platform/text/PString.h"

inline constexpr size_t kIdMaxBytes = 200;

// Types of the acknowledgement to the cloud.
inline constexpr int kAckDoneByAgent = 1;
inline constexpr int kAckDoneByComponent = 3;
inline constexpr int kAckNotDone = 4;

// The command's name, possibly empty. The lower-case member counts only when the capitalised one does not
// exist at all.
inline CPString CommandOf(const zxtools::CPJsonParse& json) {
  zxtools::HJsonNode hCommand = json.GetNode("Command");
  if (hCommand == nullptr)
    hCommand = json.GetNode("command");
  CPString strCommand;
  if (hCommand != nullptr)
    zxtools::CPJsonParse::GetValue(hCommand, strCommand);
  return strCommand;
}
