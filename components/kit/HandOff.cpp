#include "kit/HandOff.h"

#include <cctype>

#include "platform/doc/PJsonParse.h"

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
  if (handOff.strVersion != "1" || text.substr(0, kMessage.size()) != kMessage)
    return false;
  text.remove_prefix(kMessage.size());
  const size_t uEnd = text.rfind('>');
  if (uEnd == std::string_view::npos)
    return false;
  handOff.strMsg = text.substr(0, uEnd);
  return true;
}

CPString CommandId(std::string_view msg) {
  zxtools::CPJsonParse json;
  CPString strId;
  if (json.LoadBuffer(msg.data(), msg.size()) == 0)
    return strId;
  if (const zxtools::HJsonNode hId = json.GetNode("ID"); hId != nullptr)
    zxtools::CPJsonParse::GetValue(hId, strId);
  return strId;
}

bool IsGuidText(std::string_view text) {
  if (text.size() == 38 && text.front() == '{' && text.back() == '}')
    text = text.substr(1, 36);
  if (text.size() != 36)
    return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool bDash = i == 8 || i == 13 || i == 18 || i == 23;
    if (bDash ? text[i] != '-' : std::isxdigit(static_cast<unsigned char>(text[i])) == 0)
      return false;
  }
  return true;
}
