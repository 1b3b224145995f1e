// Preloaded into a program under test: its wall clock runs beside the machine's by the seconds (a 64-bit
// number) that the file named by ZX_CLOCK_FILE holds, which may change at any moment. The monotonic clock
// stays.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace {

using TOffset = std::atomic<int64_t>;

const TOffset* MapOffset() {
  const char* pszFile = getenv("ZX_CLOCK_FILE");
  const int iFd = pszFile != nullptr ? open(pszFile, O_RDONLY | O_CLOEXEC) : -1;
  if (iFd < 0)
    return nullptr;
  void* pMap = mmap(nullptr, sizeof(TOffset), PROT_READ, MAP_SHARED, iFd, 0);
  close(iFd);
  return pMap == MAP_FAILED ? nullptr : static_cast<const TOffset*>(pMap);
}

time_t Offset() {
  static const TOffset* const s_pOffset = MapOffset();
  return s_pOffset != nullptr ? static_cast<time_t>(s_pOffset->load(std::memory_order_relaxed)) : 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t idClock, timespec* pts) noexcept {
  const long lResult = syscall(SYS_clock_gettime, idClock, pts);
  if (lResult == 0 && (idClock == CLOCK_REALTIME || idClock == CLOCK_REALTIME_COARSE))
    pts->tv_sec += Offset();
  return static_cast<int>(lResult);
}

__attribute__((visibility("default"))) int gettimeofday(timeval* ptv, void*) noexcept {
  timespec ts{};
  if (clock_gettime(CLOCK_REALTIME, &ts) != 0)
    return -1;
  ptv->tv_sec = ts.tv_sec;
  ptv->tv_usec = ts.tv_nsec / 1000;
  return 0;
}

__attribute__((visibility("default"))) time_t time(time_t* pt) noexcept {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  if (pt != nullptr)
    *pt = ts.tv_sec;
  return ts.tv_sec;
}

}  // extern "C"
