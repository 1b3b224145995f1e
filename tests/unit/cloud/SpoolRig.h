// A spool on a temporary home with its thread, and the taker of what it holds. Lines that it logs are kept.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CloudFakes.h"
#include "platform/cloud/Spool.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

// The log callback has no object; one list per process, as one test runs at a time.
class CSpoolLog {
 public:
  static void Add(int, int iLevel, const char* pszText) {
    const std::lock_guard lock(Mutex());
    List().push_back(std::to_string(iLevel) + " " + pszText);
  }
  static size_t Count(const std::string& strPart) {
    const std::lock_guard lock(Mutex());
    size_t uCount = 0;
    for (const std::string& str : List())
      uCount += str.find(strPart) != std::string::npos;
    return uCount;
  }
  static std::string Text() {
    const std::lock_guard lock(Mutex());
    std::string strText;
    for (const std::string& str : List())
      strText += str + "\n";
    return strText;
  }
  static void Clear() {
    const std::lock_guard lock(Mutex());
    List().clear();
  }
  static zxcloud_record Record() {
    zxcloud_record record{};
    record.log = Add;
    return record;
  }

 private:
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::vector<std::string>& List() {
    static std::vector<std::string> list;
    return list;
  }
};

class CFakeWallClock : public zxcloud::IWallClock {
 public:
  int64_t NowSec() override { return i64Now.load(); }
  std::atomic<int64_t> i64Now{1800000000};
};

// A monotonic clock that also moves when the test says so.
class CShiftedClock : public zxcloud::IClock {
 public:
  uint64_t NowMs() override { return m_clock.NowMs() + u64Shift.load(); }
  std::atomic<uint64_t> u64Shift{0};

 private:
  zxcloud::CSystemClock m_clock;
};

class CSpoolRig {
 public:
  explicit CSpoolRig(const std::string& strFile) {
    settings.strFile = strFile;
    times.dwDelete = 20;
    times.dwReopenFirst = 20;
    times.dwReopenLast = 50;
  }
  ~CSpoolRig() { Stop(); }

  void Start() {
    const int iStart = ++s_iStarts;
    pOutbox = std::make_unique<zxcloud::COutbox>(64u << 20, clock);
    pSpool = std::make_unique<zxcloud::CSpool>(
        zxcloud::CSpool::_Ports{
            *pOutbox, clock, wall, log,
            [this, iStart] { return std::to_string(iStart) + "-" + std::to_string(++uIds); },
            [this] { ready.Set(); }},
        settings, times);
    pOutbox->SetSpool(pSpool.get());
    thread = std::thread([this] { pSpool->Run(); });
  }
  void Stop() {
    if (!thread.joinable())
      return;
    pSpool->Stop();
    thread.join();
    pSpool->Abandon();
  }
  uint32_t Send(const std::string& strBody, int iPriority = 1) { return pSpool->Append(strBody, iPriority); }

  static zxcloud::_OutRoom Wide() {
    zxcloud::_OutRoom room;
    room.uMessages = 100000;
    room.uBytes = 1u << 30;
    return room;
  }
  // The next entry, also when its body must be read first. Null when nothing is left.
  zxcloud::TOutItem Take() {
    zxcloud::TOutItem pItem;
    EventuallyTrue([&] {
      // Asked first: before it is ready, what the file holds is not known.
      const bool bReady = std::string(pSpool->State().pszMode) == "ready";
      pItem = pOutbox->Take(Wide());
      return pItem != nullptr || (bReady && pSpool->State().u64Depth == pOutbox->Spooled().uTaken);
    });
    return pItem;
  }
  // Takes everything, acknowledges it, and answers the bodies in order.
  std::vector<std::string> Deliver() {
    std::vector<std::string> list;
    while (const zxcloud::TOutItem pItem = Take()) {
      list.emplace_back(pItem->Body());
      listIds.push_back(pItem->strId);
      pOutbox->Done(pItem->u64Seq);
    }
    return list;
  }
  bool WaitMode(const std::string& strMode) {
    return EventuallyTrue([&] { return strMode == pSpool->State().pszMode; });
  }

  CShiftedClock clock;
  CFakeWallClock wall;
  zxcloud::CCallbacks callbacks{CSpoolLog::Record()};
  zxcloud::CCloudLog log{callbacks};
  zxcloud::_SpoolSettings settings;
  zxcloud::_SpoolTimes times;
  std::unique_ptr<zxcloud::COutbox> pOutbox;
  std::unique_ptr<zxcloud::CSpool> pSpool;
  std::thread thread;
  std::atomic<uint64_t> uIds{0};
  CEventWaiter ready;
  std::vector<std::string> listIds;  // of what was delivered

 private:
  static inline std::atomic<int> s_iStarts{0};
};
