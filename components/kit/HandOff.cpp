#include "kit/HandOff.h"

namespace {

// Takes "<name=value>" off the front of text; the value ends where the next tag begins.
bool TakeTag(std::string_view& text, std::string_view name, std::string& strValue) {
  const std::string strOpen = "<" + std::string(name) + "=";
  if (text.substr(0, strOpen.size()) != strOpen)
    return false;
  text.remove_prefix(strOpen.size());
  const size_t uEnd = text.find("><");
  if (uEnd == std::string_view::npos)
    return false;
  strValue = text.substr(0, uEnd);
  text.remove_prefix(uEnd + 1);
  return true;
}

}  // namespace

bool ParseHandOff(std::string_view text, CHandOff& handOff) {
  constexpr std::string_view kMessage = "<msg=";
  if (!TakeTag(text, "version", handOff.strVersion) || !TakeTag(text, "guid", handOff.strGuid) ||
      !TakeTag(text, "product", handOff.strProduct) || !TakeTag(text, "combo", handOff.strCombo) ||
      !TakeTag(text, "command", handOff.strCommand))
    return false;
  if (text.substr(0, kMessage.size()) != kMessage)
    return false;
  text.remove_prefix(kMessage.size());
  const size_t uEnd = text.rfind('>');
  if (uEnd == std::string_view::npos)
    return false;
  handOff.strMsg = text.substr(0, uEnd);
  return true;
}
