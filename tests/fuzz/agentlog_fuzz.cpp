// zxctl reads logs into which components write what they like.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/zxctl/LogTrace.h"
#include "tools/zxctl/Table.h"

using namespace zxctl;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const std::string_view sv(reinterpret_cast<const char*>(pData), uSize);
  for (const _LogRecord& record : SelectCommand(SplitLog("zxagent", sv), "demo-1")) {
    _Hop hop;
    if (HopOf(record, hop))
      FormatTable({{ClockText(hop.i64AtMs), hop.strWhere, hop.strWhat}});
  }
  return 0;
}
