// The text in which a command travels from the agent to a component:
//   <version=1><guid=G><product=P><combo=C><command=N><msg=M>
// Values are not escaped. The header values end at the first "><" behind them; the message runs to the last
// ">".
#pragma once

#include <string>
#include <string_view>

struct CHandOff {
  std::string strVersion;
  std::string strGuid;
  std::string strProduct;
  std::string strCombo;
  std::string strCommand;
  std::string strMsg;  // the command's JSON text
};

// False when a part is missing or out of order. Never reads past text.
bool ParseHandOff(std::string_view text, CHandOff& handOff);
