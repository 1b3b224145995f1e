// The cloud's terminal configuration, address lists and option texts: whatever the bytes, what is accepted
// must keep the promises that the link builds on.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cloud/CloudAddress.h"
#include "platform/cloud/CloudOptions.h"
#include "platform/cloud/LongLink.h"
#include "platform/cloud/TconfAnswer.h"

namespace {

void Must(bool bHolds) {
  if (!bHolds)
    std::abort();
}

void CheckList(const std::vector<zxcloud::_CloudAddress>& list) {
  Must(list.size() <= zxcloud::kMaxAddresses);
  for (const zxcloud::_CloudAddress& address : list) {
    Must(address.wPort != 0 && !address.strHost.empty());
    Must(!address.bPlain || zxcloud::IsLoopback(address.strHost));
    zxcloud::_CloudAddress again;
    Must(zxcloud::ParseAddress(address.Text(), 1, again));
    Must(again.strHost == address.strHost && again.wPort == address.wPort);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const std::string_view sv(reinterpret_cast<const char*>(pData), uSize);
  zxcloud::_TconfAnswer answer;
  std::string strError;
  if (zxcloud::ParseTconf(sv, true, answer, strError)) {
    CheckList(answer.listShort);
    CheckList(answer.listLong);
    Must(answer.iKeepAliveSec >= 10 && answer.iKeepAliveSec <= 600 && answer.uSpreadSec <= 600 &&
         (answer.uRetryMaxSec == 0 || answer.uRetryMaxSec >= 5) && answer.uRetryMaxSec <= 300);
    Must(answer.uRefreshSec >= 60 && answer.uMaxMessage >= 1024);
  } else {
    Must(!strError.empty());
  }
  CheckList(zxcloud::ParseAddressList(sv, 443, true));
  zxcloud::_CloudOptions options;
  if (options.Merge(sv)) {
    zxcloud::_CloudOptions again;
    Must(again.Merge(options.Text()) || options.Text().size() > zxcloud::kMaxOptionText);
  }
  const int iNumber = zxcloud::PushNumber(sv, "zx/v1/m/push/");
  Must(iNumber >= -1 && iNumber <= 999999999);
  return 0;
}
