// The cloud's answer to GET /v1/tconf. Pure parser of foreign bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cloud/CloudAddress.h"

namespace zxcloud {

inline constexpr size_t kMaxTconfBytes = 1u << 20;
inline constexpr size_t kDefaultMaxMessage = 8u << 20;

struct _TconfAnswer {
  std::string strPcid;
  std::vector<_CloudAddress> listShort;  // empty: the address that answered
  std::vector<_CloudAddress> listLong;   // empty: no long connection
  std::string strLb;
  int iKeepAliveSec = 30;
  uint32_t uSpreadSec = 60;
  uint32_t uRetryMaxSec = 0;  // 0: not said
  uint32_t uRefreshSec = 3600;
  uint32_t uDrainPerSec = 100;  // 0: no limit
  uint32_t uConnections = 2;
  uint32_t uConfirm = 0;  // 1: the cloud confirms uploads of the long connection
  size_t uMaxMessage = kDefaultMaxMessage;
};

// Numbers outside their range are brought into it. False with strError set: not JSON, another version, a
// member of the wrong type, or an address list in which nothing is usable.
bool ParseTconf(std::string_view svText, bool bPlainAllowed, _TconfAnswer& answer, std::string& strError);

}  // namespace zxcloud
