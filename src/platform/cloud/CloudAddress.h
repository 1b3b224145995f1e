// Addresses of the far side as configuration and cloud write them. Pure; nothing here resolves names.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zxcloud {

inline constexpr size_t kMaxAddresses = 16;
inline constexpr uint16_t kHttpsPort = 443;
inline constexpr uint16_t kMqttsPort = 8883;

struct _CloudAddress {
  std::string strHost;  // name, IPv4 or IPv6 literal without brackets
  uint16_t wPort = 0;
  bool bPlain = false;  // written with "http://" or "mqtt://"

  std::string Text() const;  // "host:port", IPv6 in brackets
  friend bool operator==(const _CloudAddress&, const _CloudAddress&) = default;
};

bool IsIpLiteral(const std::string& strHost);
bool IsLoopback(const std::string& strHost);  // literals 127.0.0.0/8 and ::1 only
std::string HostPort(const std::string& strHost, uint16_t wPort);

// "[scheme://]host[:port][/...]"; schemes https, mqtts (TLS, as without one), http, mqtt (plain). A path
// behind the address is cut off. False: not an address.
bool ParseAddress(std::string_view svText, uint16_t wDefaultPort, _CloudAddress& address);

// Addresses joined by ",". Unusable entries are left out: not an address, plain without permission, or plain
// to anything but a loopback literal. At most kMaxAddresses; duplicates count once.
std::vector<_CloudAddress> ParseAddressList(std::string_view svText, uint16_t wDefaultPort,
                                            bool bPlainAllowed);

}  // namespace zxcloud
