#include "platform/cloud/SpoolRecord.h"

#include <openssl/evp.h>

#include <cstring>
#include <memory>

namespace zxcloud {

namespace {

// Looked up once: each look-up by name takes the library's lock.
const EVP_MD* Sha256() {
  static const EVP_MD* const pDigest = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return pDigest;
}

std::optional<int64_t> Digest(const uint64_t (&numbers)[4], std::string_view svFirst,
                              std::string_view svSecond) {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> pContext(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  unsigned char digest[EVP_MAX_MD_SIZE];
  if (pContext == nullptr || EVP_DigestInit_ex(pContext.get(), Sha256(), nullptr) != 1 ||
      EVP_DigestUpdate(pContext.get(), numbers, sizeof(numbers)) != 1 ||
      EVP_DigestUpdate(pContext.get(), svFirst.data(), svFirst.size()) != 1 ||
      EVP_DigestUpdate(pContext.get(), svSecond.data(), svSecond.size()) != 1 ||
      EVP_DigestFinal_ex(pContext.get(), digest, nullptr) != 1)
    return std::nullopt;
  int64_t i64Sum = 0;
  memcpy(&i64Sum, digest, sizeof(i64Sum));
  return i64Sum;
}

}  // namespace

std::optional<int64_t> SpoolSum(const _SpoolRow& row) {
  const uint64_t numbers[4] = {static_cast<uint64_t>(row.iPriority), row.uCreatedSec, row.svId.size(),
                               row.svBody.size()};
  return Digest(numbers, row.svId, row.svBody);
}

std::optional<int64_t> SpoolSum(const _SpoolStateRow& state) {
  const uint64_t numbers[4] = {state.u64Waiting, state.u64Floor, state.u64Generation, 0};
  return Digest(numbers, "state", "");
}

}  // namespace zxcloud
