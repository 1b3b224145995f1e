// Home discovery, directories and the system root. Stateless; any thread.
#pragma once

#include "platform/text/PString.h"

class CAgentTools {
 public:
  // Directory of the loaded library with a trailing "/", or empty (logged).
  static CPString GetHomePath();
  static CPString HomeOfModulePath(const CPString& strModulePath);  // the text rule behind it

  // Recursive; brings an existing directory to iMode. 1 created or present, 0 failed (errno). A relative name
  // or a single component under the root that does not exist is not created.
  static int CreateDirectory(CPString strPath, int iMode);

  // Whether a text from outside may become one path component: not empty, not "." or "..", no "/" or NUL, at
  // most 255 bytes.
  static bool IsFileName(const CPString& strName);

  // A refused document as a log line shows it: itself, or its size in brackets beyond kRefusedTextMax bytes.
  static constexpr size_t kRefusedTextMax = 4096;
  static CPString RefusedText(const CPString& strData);
};
