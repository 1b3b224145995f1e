// The subcommands of zxctl. Each prints its result and returns the exit code.
#pragma once

#include <string>

#include "CloudClient.h"

namespace zxctl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // refused, not acknowledged in time, or an error answer
inline constexpr int kExitUsage = 2;
inline constexpr int kExitUnreachable = 3;  // the host or the cloud does not answer, or zxctl cannot find it
inline constexpr int kExitDenied = 4;

struct _PushOptions {
  std::string strMid;  // empty: the only machine the cloud knows
  int iPcid = 0;
  std::string strCommand, strID, strParam, strText;
  std::string strVia = "auto";
  int iWaitSec = 0;  // 0: do not wait for the acknowledgement
};

int Push(CCloudClient& cloud, const _PushOptions& options, bool bJson);
int Agents(CCloudClient& cloud, bool bJson);
// strHome: the agent's home, whose logs are merged in; empty: the cloud's events only.
int Trace(CCloudClient& cloud, const std::string& strID, const std::string& strHome, bool bAll, bool bJson);
int Status(CCloudClient& cloud, bool bJson);

}  // namespace zxctl
