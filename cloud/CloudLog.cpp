#include "CloudLog.h"

namespace zxcloudd {

namespace {
std::atomic<HLog> g_hLog{nullptr};
}

HLog CloudLog() {
  return g_hLog.load(std::memory_order_acquire);
}

void SetCloudLog(HLog hLog) {
  g_hLog.store(hLog, std::memory_order_release);
}

}  // namespace zxcloudd
