#include "platform/doc/Base64.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t kInvalid = 0xff;

constexpr std::array<uint8_t, 256> MakeReverse() {
  std::array<uint8_t, 256> table{};
  for (uint8_t& value : table)
    value = kInvalid;
  for (uint8_t u = 0; u < 64; ++u)
    table[static_cast<unsigned char>(kAlphabet[u])] = u;
  return table;
}
constexpr std::array<uint8_t, 256> kReverse = MakeReverse();

bool IsBlank(char ch) {
  return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n' || ch == '\v' || ch == '\f';
}

// Padding is either complete or missing, and the last group holds at least one byte.
bool IsWellFormed(size_t uDigits, size_t uPadding) {
  const size_t uRest = uDigits % 4;
  if (uRest == 1)
    return false;
  return uPadding == 0 || (uRest != 0 && uPadding == 4 - uRest);
}

struct CFree {
  void operator()(char* p) const { std::free(p); }
};

}  // namespace

char* base64Decode(const char* pszText, int iLength, int /*iReserved*/, size_t* puDecoded) {
  if (puDecoded != nullptr)
    *puDecoded = 0;
  if (pszText == nullptr || iLength <= 0)
    return nullptr;
  const auto uLength = static_cast<size_t>(iLength);
  std::unique_ptr<char, CFree> pResult(static_cast<char*>(std::malloc(uLength / 4 * 3 + 4)));
  if (pResult == nullptr)
    return nullptr;

  size_t uDigits = 0;
  size_t uPadding = 0;
  size_t uDecoded = 0;
  uint32_t uBits = 0;
  for (size_t u = 0; u < uLength; ++u) {
    const char ch = pszText[u];
    if (IsBlank(ch))
      continue;
    if (ch == '=') {
      ++uPadding;
      continue;
    }
    const uint8_t uDigit = kReverse[static_cast<unsigned char>(ch)];
    if (uDigit == kInvalid || uPadding != 0)
      return nullptr;
    uBits = (uBits << 6) | uDigit;
    // The second, third and fourth digit of a group complete a byte each.
    const size_t uInGroup = uDigits++ % 4;
    if (uInGroup != 0)
      pResult.get()[uDecoded++] = static_cast<char>((uBits >> (6 - 2 * uInGroup)) & 0xff);
  }
  if (!IsWellFormed(uDigits, uPadding) || uDecoded == 0)
    return nullptr;
  pResult.get()[uDecoded] = 0;
  if (puDecoded != nullptr)
    *puDecoded = uDecoded;
  return pResult.release();
}

CPString Base64Encode(const void* pData, size_t uLength) {
  const auto* pBytes = static_cast<const uint8_t*>(pData);
  std::string strResult;
  strResult.reserve((uLength + 2) / 3 * 4);
  for (size_t u = 0; u < uLength; u += 3) {
    const size_t uLeft = uLength - u;
    const uint32_t uBits = static_cast<uint32_t>(pBytes[u]) << 16 |
                           static_cast<uint32_t>(uLeft > 1 ? pBytes[u + 1] : 0) << 8 |
                           static_cast<uint32_t>(uLeft > 2 ? pBytes[u + 2] : 0);
    strResult += kAlphabet[uBits >> 18];
    strResult += kAlphabet[uBits >> 12 & 63];
    strResult += uLeft > 1 ? kAlphabet[uBits >> 6 & 63] : '=';
    strResult += uLeft > 2 ? kAlphabet[uBits & 63] : '=';
  }
  return CPString(std::move(strResult));
}
