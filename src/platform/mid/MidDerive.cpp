#include "platform/mid/MidDerive.h"

#include <openssl/evp.h>

#include <utility>

namespace {

constexpr char kLabel[] = "zxmid-v1";
constexpr size_t kIdBytes = 16;  // of the 32 that the hash gives

std::string Sha256Hex(const std::string& strData, size_t uBytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int uLength = 0;
  if (EVP_Digest(strData.data(), strData.size(), digest, &uLength, EVP_sha256(), nullptr) != 1 ||
      uLength < uBytes)
    return {};
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string strHex;
  for (size_t i = 0; i < uBytes; ++i) {
    strHex += kDigits[digest[i] >> 4];
    strHex += kDigits[digest[i] & 15];
  }
  return strHex;
}

// One line per fact. Values hold no line feed (they are normalised), so the text is unambiguous.
std::string Fact(const char* pszName, const std::string& strValue) {
  return strValue.empty() ? std::string() : pszName + ("=" + strValue) + "\n";
}

}  // namespace

CMidDerive::CMidDerive(const CMidSources& sources, std::string strKey)
    : m_sources(sources), m_strKey(std::move(strKey)) {}

std::string CMidDerive::Hash(const std::string& strName, const std::string& strFacts) const {
  if (strFacts.empty())
    return {};
  const std::string strKeyHash = Sha256Hex(m_strKey, 32);
  if (strKeyHash.empty())
    return {};
  return Sha256Hex(std::string(kLabel) + "\n" + strKeyHash + "\n" + strName + "\n" + strFacts, kIdBytes);
}

std::string CMidDerive::Single(const std::string& strName, const std::string& strValue) const {
  return Hash(strName, Fact(strName.c_str(), strValue));
}

std::string CMidDerive::Fallback(const std::string& strName) const {
  std::string strFacts = Fact("machine-id", m_sources.MachineId());
  if (strFacts.empty())
    strFacts = Fact("adapter", m_sources.AnyMac());
  return Hash(strName, strFacts);
}

std::string CMidDerive::Mid() const {
  std::string strFacts = Fact("sn", m_sources.Serial()) + Fact("disk", m_sources.Disk());
  if (strFacts.empty())
    strFacts = Fact("mac", m_sources.Mac());
  return strFacts.empty() ? Fallback("mid") : Hash("mid", strFacts);
}

std::string CMidDerive::Mid2() const {
  const std::string strFacts =
      Fact("sn", m_sources.Serial()) + Fact("disk", m_sources.Disk()) + Fact("mac", m_sources.Mac());
  return strFacts.empty() ? Fallback("mid2") : Hash("mid2", strFacts);
}

std::string CMidDerive::Sn() const {
  return Single("sn", m_sources.Serial());
}

std::string CMidDerive::Disk() const {
  return Single("disk", m_sources.Disk());
}

std::string CMidDerive::Mac() const {
  return Single("mac", m_sources.Mac());
}
