// The text in which a command travels from the agent to a component (bus type 20001):
//   <version=1><guid=G><product=P><combo=C><command=N><msg=M>
// Values are not escaped. The header values end at the first "><" behind them; the message runs to the last
// ">". Stateless; any thread; nothing here logs.
#pragma once

#include <string>
#include <string_view>

#include "platform/text/PString.h"

struct CHandOff {
  std::string strVersion;
  std::string strGuid;
  std::string strProduct;
  std::string strCombo;
  std::string strCommand;
  std::string strMsg;  // the command's JSON text
};

// False when a part is missing or out of order, or the version is not 1; handOff is then unspecified. Never
// reads past text.
bool ParseHandOff(std::string_view text, CHandOff& handOff);

// "ID" of a command's JSON text, for log lines; empty when there is none.
CPString CommandId(std::string_view msg);

// Whether a text is a GUID in its dashed form, with or without braces. GUID(const char*) itself takes
// anything.
bool IsGuidText(std::string_view text);
