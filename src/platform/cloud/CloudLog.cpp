#include "platform/cloud/CloudLog.h"

#include <cstdarg>

#include "platform/text/PString.h"

namespace zxcloud {

// The formats are literals that TLogText has checked at their call sites.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void CCloudLog::Write(int iLevel, const char* pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  CPString strText;
  strText.FormatV(pszFormat, args);
  va_end(args);
  m_callbacks.Log(iLevel, strText.c_str());
}
#pragma GCC diagnostic pop

}  // namespace zxcloud
