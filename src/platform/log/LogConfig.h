// Settings of the log back end: where files go, how large they grow, which levels are written.
// Private to the platform library. Blocking: LoadLogSettings and StatLogConfig read the file system.
#pragma once

#include <time.h>

#include <cstdint>
#include <map>
#include <string>

#include "platform/text/PString.h"

namespace zxlog {

inline constexpr int kLogMinLevel = 1;
inline constexpr int kLogMaxLevel = 9;  // above every level in use: nothing is written
inline constexpr uint64_t kLogMinFileBytes = 4096;
inline constexpr uint64_t kLogMaxFileBytes = 1u << 30;
inline constexpr int kLogMaxFiles = 100;

struct CLogSettings {
  std::string strDir;                 // with a trailing "/"; empty: stderr
  uint64_t u64MaxBytes = 10u << 20;   // per file
  int iMaxFiles = 3;                  // per channel, the one being written included
  int iLevel = 2;                     // of channels that are not named
  std::map<std::string, int> levels;  // by channel name
  bool bForcedLevel = false;          // ZX_LOG_LEVEL: iLevel holds for every channel

  int ThresholdOf(const std::string& strChannel) const;
};

// Identity of the settings file as it stands, to notice a change; all zero when there is none.
struct CLogConfigStamp {
  uint64_t u64Inode = 0;
  int64_t i64Size = 0;
  int64_t i64Seconds = 0;
  int64_t i64Nanoseconds = 0;
  bool operator==(const CLogConfigStamp&) const = default;
};
CLogConfigStamp StatLogConfig(const std::string& strHome);

// Reads <home>etc/zxlog.json and the environment over it. False when the file is there but unusable; the
// settings then are the defaults under the environment. Members of a wrong type or out of range are ignored.
bool LoadLogSettings(const std::string& strHome, CLogSettings& settings);

}  // namespace zxlog
