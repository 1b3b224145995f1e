// A command of the maintenance tool: what is taken keeps the limits, and every result is one JSON text.
#include <cstdlib>
#include <cstring>

#include "platform/doc/PJsonParse.h"
#include "zxpmaint/Spool.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const std::string strText(reinterpret_cast<const char*>(pData), uSize);
  CMaintCommand command;
  std::string strError;
  if (ParseCommand(strText, command, strError)) {
    const CScript& script = command.script;
    if (command.strId.empty() || script.strText.empty() || script.strInterpreter.empty() ||
        script.strInterpreter[0] != '/' || script.uTimeoutMs < 1000 || script.uTimeoutMs > 3600000 ||
        script.uMaxOutputBytes < 1 || script.uMaxOutputBytes > (1u << 20))
      std::abort();
  } else if (strError.empty()) {
    std::abort();
  }
  CScriptResult result;
  result.strStdout = strText;
  result.strStderr = command.script.strText;
  const std::string strResult = FormatResult(command.strId, result, strError);
  zxtools::CPJsonParse json;
  if (std::strlen(strResult.c_str()) != strResult.size() ||
      json.LoadBuffer(strResult.data(), strResult.size()) == 0)
    std::abort();
  return 0;
}
