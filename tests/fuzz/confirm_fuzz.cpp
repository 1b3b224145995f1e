// The cloud's confirmations: whatever the bytes, only what waits is taken, each at most once, and a reading
// that shares no code with the product's agrees. Input: one byte, how many uploads wait (ids "a", "bb", "ccc"
// and so on), then the message.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#include "platform/cloud/Confirms.h"

using namespace zxcloud;

namespace {

constexpr size_t kMaxIds = 130;  // the longest ids are beyond what a line may hold

void Must(bool bHolds) {
  if (!bHolds)
    std::abort();
}

std::string IdOf(uint64_t u64Seq) {
  return std::string(u64Seq, static_cast<char>('a' + (u64Seq - 1) % 26));
}

struct _Model {
  std::map<std::string, uint64_t> waiting;
  std::map<uint64_t, bool> told;  // by sequence number: stored
  bool bWhole = false;
};

void Read(std::string_view svMessage, _Model& model) {
  if (!svMessage.starts_with("zx1\n"))
    return;
  size_t uAt = 4;
  while (uAt < svMessage.size()) {
    const char chSign = svMessage[uAt];
    const size_t uEnd = svMessage.find('\n', uAt);
    if ((chSign != '+' && chSign != '-') || uEnd == std::string_view::npos)
      return;
    const std::string strId(svMessage.substr(uAt + 1, uEnd - uAt - 1));
    if (strId.empty() || strId.size() > 128)
      return;
    if (const auto it = model.waiting.find(strId); it != model.waiting.end()) {
      model.told[it->second] = chSign == '+';
      model.waiting.erase(it);
    }
    uAt = uEnd + 1;
  }
  model.bWhole = true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  if (uSize == 0)
    return 0;
  CConfirms confirms;
  confirms.Use(true);
  _Model model;
  size_t uBytes = 0;
  for (uint64_t u64Seq = 1; u64Seq <= pData[0] % (kMaxIds + 1); ++u64Seq) {
    const auto pItem = MakeOutItem(u64Seq, 0, IdOf(u64Seq), "body");
    confirms.Sent(*pItem, nullptr, 1000);
    model.waiting[pItem->strId] = u64Seq;
    uBytes += pItem->Bytes();
  }
  const std::string_view svMessage(reinterpret_cast<const char*>(pData) + 1, uSize - 1);
  Read(svMessage, model);
  std::map<uint64_t, bool> told;
  const bool bWhole = confirms.Take(svMessage, [&](uint64_t u64Seq, bool bStored) {
    Must(!confirms.Waits(u64Seq) && told.emplace(u64Seq, bStored).second);
    uBytes -= MakeOutItem(u64Seq, 0, IdOf(u64Seq), "body")->Bytes();
  });
  Must(bWhole == model.bWhole && told == model.told);
  for (const auto& [strId, u64Seq] : model.waiting)
    Must(confirms.Waits(u64Seq));
  _OutRoom room;
  room.uMessages = kUnconfirmedMessages;
  room.uBytes = kUnconfirmedBytes;
  room.bIdle = true;
  confirms.Limit(room);
  Must(room.uMessages == kUnconfirmedMessages - model.waiting.size());
  Must(room.uBytes == kUnconfirmedBytes - uBytes && room.bIdle == model.waiting.empty());
  Must(confirms.TakeAll().size() == model.waiting.size());
  return 0;
}
