// The options of zxcloud_setopt: "key=value" pairs joined by ":". A value ends at the next ":key=" boundary,
// so it may hold ":" itself (an IPv6 address does). Pure; the owner locks.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace zxcloud {

inline constexpr size_t kMaxOptionText = 4096;
inline constexpr size_t kMaxUnknownOptions = 32;

struct _CloudOptions {
  std::string strMid;
  std::string strMid2;
  std::string strPlatId;
  std::string strLocalIp;
  bool bTcpDisable = false;  // cloudtcp_disable: no long connection
  bool bHbDisable = false;   // disable_hb: no keep-alive messages on the long connection
  bool bAllowDebug = true;   // lines of level 0 reach the log callback
  std::map<std::string, std::string> mapOther;

  // Takes over every pair of the text, or nothing: false when it is empty, too long or no list of pairs.
  bool Merge(std::string_view svText);
  std::string Text() const;  // the effective options, in the same form

 private:
  void Set(std::string_view svKey, std::string_view svValue);
};

// 1 to 128 characters of [A-Za-z0-9._-]: what may become part of a topic.
bool IsMid(std::string_view svMid);

}  // namespace zxcloud
