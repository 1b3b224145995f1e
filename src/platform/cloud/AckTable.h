// Matches the numbers that the MQTT library gives out with our tokens. An acknowledgement may arrive before
// the number is known to us; it then counts when the number is bound. One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <unordered_map>

namespace zxcloud {

class CAckTable {
 public:
  // True: it has been acknowledged already.
  bool Bind(int iMessageId, uint64_t u64Token) {
    if (m_setEarly.erase(iMessageId) != 0)
      return true;
    m_mapTokens[iMessageId] = u64Token;
    return false;
  }
  std::optional<uint64_t> Ack(int iMessageId) {
    const auto it = m_mapTokens.find(iMessageId);
    if (it == m_mapTokens.end()) {
      m_setEarly.insert(iMessageId);
      return std::nullopt;
    }
    const uint64_t u64Token = it->second;
    m_mapTokens.erase(it);
    return u64Token;
  }
  void Clear() {
    m_mapTokens.clear();
    m_setEarly.clear();
  }

 private:
  std::unordered_map<int, uint64_t> m_mapTokens;
  std::set<int> m_setEarly;  // 16-bit numbers, so bounded
};

}  // namespace zxcloud
