#include "platform/cloud/CloudAddress.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace zxcloud {

namespace {

constexpr size_t kMaxHost = 253;

bool IsName(std::string_view sv) {
  if (sv.empty() || sv.size() > kMaxHost || sv.front() == '-' || sv.front() == '.')
    return false;
  return std::all_of(sv.begin(), sv.end(), [](char ch) {
    return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '.' ||
           ch == '-' || ch == '_';
  });
}

bool IsIpv6(const std::string& str) {
  in6_addr address{};
  return inet_pton(AF_INET6, str.c_str(), &address) == 1;
}

std::string_view Trim(std::string_view sv) {
  while (!sv.empty() && (sv.front() == ' ' || sv.front() == '\t'))
    sv.remove_prefix(1);
  while (!sv.empty() && (sv.back() == ' ' || sv.back() == '\t' || sv.back() == '\r' || sv.back() == '\n'))
    sv.remove_suffix(1);
  return sv;
}

// Cuts a known scheme off; false for an unknown one.
bool CutScheme(std::string_view& sv, bool& bPlain) {
  const size_t uEnd = sv.find("://");
  bPlain = false;
  if (uEnd == std::string_view::npos)
    return true;
  const std::string_view svScheme = sv.substr(0, uEnd);
  sv.remove_prefix(uEnd + 3);
  bPlain = svScheme == "http" || svScheme == "mqtt";
  return bPlain || svScheme == "https" || svScheme == "mqtts";
}

bool ParsePort(std::string_view sv, uint16_t& wPort) {
  unsigned uPort = 0;
  const auto [pEnd, error] = std::from_chars(sv.data(), sv.data() + sv.size(), uPort);
  if (error != std::errc() || pEnd != sv.data() + sv.size() || uPort == 0 || uPort > 65535)
    return false;
  wPort = static_cast<uint16_t>(uPort);
  return true;
}

}  // namespace

std::string HostPort(const std::string& strHost, uint16_t wPort) {
  const bool bBrackets = strHost.find(':') != std::string::npos;
  std::string strText;
  strText.reserve(strHost.size() + 8);
  strText += bBrackets ? "[" : "";
  strText += strHost;
  strText += bBrackets ? "]:" : ":";
  return strText += std::to_string(wPort);
}

std::string _CloudAddress::Text() const {
  return HostPort(strHost, wPort);
}

bool IsIpLiteral(const std::string& strHost) {
  in_addr address{};
  return inet_pton(AF_INET, strHost.c_str(), &address) == 1 || IsIpv6(strHost);
}

bool IsLoopback(const std::string& strHost) {
  in_addr address{};
  if (inet_pton(AF_INET, strHost.c_str(), &address) == 1)
    return (ntohl(address.s_addr) >> 24) == 127;
  in6_addr address6{};
  return inet_pton(AF_INET6, strHost.c_str(), &address6) == 1 && IN6_IS_ADDR_LOOPBACK(&address6);
}

bool ParseAddress(std::string_view svText, uint16_t wDefaultPort, _CloudAddress& address) {
  std::string_view sv = Trim(svText);
  _CloudAddress parsed;
  if (!CutScheme(sv, parsed.bPlain))
    return false;
  sv = sv.substr(0, sv.find('/'));
  parsed.wPort = wDefaultPort;
  std::string_view svPort;
  bool bPort = false;
  if (!sv.empty() && sv.front() == '[') {
    const size_t uEnd = sv.find(']');
    if (uEnd == std::string_view::npos)
      return false;
    parsed.strHost = sv.substr(1, uEnd - 1);
    sv.remove_prefix(uEnd + 1);
    if (!IsIpv6(parsed.strHost) || (!sv.empty() && sv.front() != ':'))
      return false;
    bPort = !sv.empty();
    svPort = bPort ? sv.substr(1) : sv;
  } else {
    const size_t uColon = sv.find(':');
    bPort = uColon != std::string_view::npos;
    parsed.strHost = sv.substr(0, uColon);
    svPort = bPort ? sv.substr(uColon + 1) : std::string_view();
    if (!IsName(parsed.strHost))
      return false;
  }
  if (bPort && !ParsePort(svPort, parsed.wPort))
    return false;
  address = std::move(parsed);
  return true;
}

std::vector<_CloudAddress> ParseAddressList(std::string_view svText, uint16_t wDefaultPort,
                                            bool bPlainAllowed) {
  std::vector<_CloudAddress> list;
  while (!svText.empty() && list.size() < kMaxAddresses) {
    const size_t uEnd = svText.find(',');
    _CloudAddress address;
    if (ParseAddress(svText.substr(0, uEnd), wDefaultPort, address) &&
        (!address.bPlain || (bPlainAllowed && IsLoopback(address.strHost))) &&
        std::find(list.begin(), list.end(), address) == list.end())
      list.push_back(std::move(address));
    svText = uEnd == std::string_view::npos ? std::string_view() : svText.substr(uEnd + 1);
  }
  return list;
}

}  // namespace zxcloud
