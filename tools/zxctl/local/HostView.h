// What the running host says of itself, for people: status and components. The texts are made apart from the
// asking, so that tests need no host.
#pragma once

#include <string>

#include "platform/doc/PJsonParse.h"
#include "zxctl/Answers.h"

namespace zxctl {

// Asks the host of the home. kExitOk with json filled; otherwise says on stderr why not (kExitUnreachable: no
// host runs there, kExitDenied: it does not answer this user).
int AskHost(const std::string& strHome, const char* pszMethod, CPJsonParse& json);

std::string StatusText(const CPJsonParse& json, int64_t i64NowMs);
std::string ComponentsText(const CPJsonParse& json);

int LocalStatus(const std::string& strHome, bool bJson);
int LocalComponents(const std::string& strHome, bool bJson);

// "1.4 MB", "312 kB", "17 B"; "3 d 4 h", "12 min 5 s".
std::string BytesText(int64_t i64Bytes);
std::string SpanText(int64_t i64Seconds);

}  // namespace zxctl
