// What machines sent, as an operator looks at it: uploads, acknowledgements, results of maintenance scripts,
// and the commands they belong to. Each function prints its result and returns the exit code.
#pragma once

#include <string>

#include "CloudClient.h"

namespace zxctl {

struct _ListOptions {
  std::string strMid, strKind, strAbout, strState;  // empty: any
  int iMax = 20;                                    // the newest so many, printed oldest first
};

int Uploads(CCloudClient& cloud, const _ListOptions& options, bool bJson);
int Acks(CCloudClient& cloud, const _ListOptions& options, bool bJson);
int MaintResults(CCloudClient& cloud, const _ListOptions& options, bool bJson);
int Commands(CCloudClient& cloud, const _ListOptions& options, bool bJson);
// One upload by its number or message id; bBody: the body alone, byte for byte as far as it is text.
int ShowUpload(CCloudClient& cloud, const std::string& strWhich, bool bBody, bool bJson);
// One command or policy: its text, where it stands, and what came back about it.
int ShowCommand(CCloudClient& cloud, const std::string& strID, bool bJson);

}  // namespace zxctl
