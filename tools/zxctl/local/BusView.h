// The bus as a person sees it: one line per message that crosses it, and a message of one's own.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zxctl {

// What a message is about, without its body: "command disk_usage for velt/zxsample, id demo-1", "result of
// upload ...", at least the number of bytes. svData is foreign.
std::string DescribeMessage(uint32_t uiType, std::string_view svData);

struct _WatchOptions {
  bool bBus = true;   // what crosses the bus between processes; needs root or the host's user
  bool bLogs = true;  // steps of commands, from the logs of the home
  int iForSec = 0;    // 0: until interrupted
};

// Prints a line per event as it happens.
int Watch(const std::string& strHome, const _WatchOptions& options, bool bJson);

struct _SendOptions {
  std::string strTarget;  // GUID
  uint32_t uiType = 0;
  std::string strData;  // the message
  std::string strFile;  // instead of strData; "-": standard input
  uint32_t uiTimeoutMs = 30000;
};

// Sends one message from a component of zxctl's own, and prints status and answer. The daemon lets only root
// and the host's user do that. kExitFailed when the status is not 0.
int SendMessage(const std::string& strHome, const _SendOptions& options, bool bJson);

}  // namespace zxctl
