#include "platform/cloud/OutItem.h"

#include <utility>

namespace zxcloud {

int PriorityIndex(int iPriority) {
  if (iPriority >= 0 && iPriority <= 3)
    return iPriority;
  return iPriority >= 10 && iPriority <= 13 ? iPriority - 10 + kPriorityGroup : -1;
}

int PriorityOf(int iIndex) {
  return iIndex < kPriorityGroup ? iIndex : iIndex - kPriorityGroup + 10;
}

std::shared_ptr<_OutItem> MakeOutItem(uint64_t u64Seq, int iPriority, std::string strId,
                                      std::string_view svBody, bool bWaited) {
  auto pItem = std::make_shared<_OutItem>();
  pItem->u64Seq = u64Seq;
  pItem->iPriority = iPriority;
  pItem->bWaited = bWaited;
  pItem->strWire.reserve(strId.size() + 5 + svBody.size());
  pItem->strWire.append("zx1 ").append(strId).append("\n");
  pItem->uBody = pItem->strWire.size();
  pItem->strWire.append(svBody);
  pItem->strId = std::move(strId);
  return pItem;
}

}  // namespace zxcloud
