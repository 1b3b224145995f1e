#include "platform/os/ZxTime.h"

#include <time.h>

#include <cstdio>

uint64_t ZxGetTickCount() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

void ZxGetCurrentFmtTime(char* pszBuffer, size_t uSize) {
  if (pszBuffer == nullptr || uSize == 0)
    return;
  const time_t tNow = time(nullptr);
  struct tm tmNow {};
  localtime_r(&tNow, &tmNow);
  std::snprintf(pszBuffer, uSize, "%04d-%02d-%02d %02d:%02d:%02d", tmNow.tm_year + 1900, tmNow.tm_mon + 1,
                tmNow.tm_mday, tmNow.tm_hour, tmNow.tm_min, tmNow.tm_sec);
}
