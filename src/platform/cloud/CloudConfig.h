// The library's settings in zxagent.json: object "tconf" (tconf_url) and object "zxcloudconf".
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/cloud/Backoff.h"
#include "platform/cloud/CloudAddress.h"
#include "platform/cloud/Spool.h"
#include "platform/cloud/TlsPolicy.h"

namespace zxcloud {

inline constexpr size_t kDefaultQueueBytes = 64u << 20;

struct _CloudConfig {
  std::vector<_CloudAddress> listTconf;  // in the order in which they are tried; never empty when loaded
  _TlsSettings tls;
  bool bPlainLoopback = false;
  std::string strProxy;                        // may hold a password: never logged
  uint32_t uRetryMaxSec = kMaxRetrySec;        // until the cloud has said its own
  size_t uMaxQueueBytes = kDefaultQueueBytes;  // in memory, for blocking callers
  _SpoolSettings spool;                        // on disk, for the others
};

// Relative paths in the file count from the home: the part of strPath in front of "etc/zxagent/", or the
// file's directory. strOther is one more address (or list) behind those of the file; may be empty. Blocks on
// the file. False with strError set when the file cannot be read, a member has the wrong type, or no address
// is usable.
bool LoadCloudConfig(const std::string& strPath, const std::string& strOther, _CloudConfig& config,
                     std::string& strError);

}  // namespace zxcloud
