// Accepted messages per second of the durable spool (1 KB, synchronous FULL, group commit), against bare
// SQLite inserts in batches of one transaction each, in the same process on the same disk.
//
// usage: bench_spool [DIRECTORY [CALLERS]]  (default: a new one below the working directory; with CALLERS
// only that many, synchronous FULL)
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/cloud/Spool.h"
#include "platform/db/Sqlite.h"

namespace {

using namespace zxcloud;
using TClock = std::chrono::steady_clock;

constexpr size_t kBody = 1024;
constexpr double kSeconds = 2.0;
constexpr size_t kLive = 20000;  // records that stand in the file before older ones are deleted

double Cpu() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto Sec = [](const timeval& tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
  };
  return Sec(usage.ru_utime) + Sec(usage.ru_stime);
}

double Since(TClock::time_point start) {
  return std::chrono::duration<double>(TClock::now() - start).count();
}

struct _Figure {
  double dPerSec = 0;
  double dCpuUs = 0;  // per record
  double dBatch = 0;
};

// What the engine alone makes of it: the insert, and the delete of the oldest in the same transaction.
_Figure Bare(const std::string& strFile, bool bFull, size_t uBatch) {
  zxdb::CSqlite db;
  zxdb::_SqliteOptions options;
  options.bFull = bFull;
  options.bExclusive = true;
  options.bErase = false;
  if (!db.Open(strFile, options) ||
      !db.Exec("CREATE TABLE outbox(id INTEGER PRIMARY KEY, body BLOB NOT NULL)"))
    std::abort();
  const std::string strBody(kBody, 'x');
  int64_t i64Row = 0;
  const double dCpu = Cpu();
  const auto start = TClock::now();
  while (Since(start) < kSeconds) {
    bool bOk = db.Exec("BEGIN");
    for (size_t u = 0; bOk && u < uBatch; ++u)
      bOk =
          db.Query("INSERT INTO outbox(id,body) VALUES(?,?)").Bind(++i64Row).BindBlobUncopied(strBody).Run();
    if (bOk && i64Row > static_cast<int64_t>(kLive))
      bOk = db.Query("DELETE FROM outbox WHERE id<=?").Bind(i64Row - static_cast<int64_t>(kLive)).Run();
    if (!bOk || !db.Exec("COMMIT"))
      std::abort();
  }
  const auto dRecords = static_cast<double>(i64Row);
  return {dRecords / Since(start), (Cpu() - dCpu) * 1e6 / dRecords, static_cast<double>(uBatch)};
}

// The file counts them itself.
double Commits(const std::string& strFile) {
  zxdb::CSqlite db;
  bool bOk = db.Open(strFile);
  return bOk ? static_cast<double>(db.Query("SELECT generation FROM state").Number(1, bOk)) : 1;
}

_Figure Spool(const std::string& strFile, bool bFull, int iCallers) {
  CSystemClock clock;
  CSystemWallClock wall;
  zxcloud_record record{};
  CCallbacks callbacks(record);
  CCloudLog log(callbacks);
  COutbox outbox(64u << 20, clock);
  std::atomic<uint64_t> u64Ids{0};
  std::atomic<bool> bEnd{false};
  _SpoolSettings settings;
  settings.strFile = strFile;
  settings.bFull = bFull;
  CSpool spool(
      {outbox, clock, wall, log, [&] { return "0123456789abcdef-" + std::to_string(++u64Ids); }, [] {}},
      settings);
  outbox.SetSpool(&spool);
  std::thread writer([&] { spool.Run(); });
  // The far side acknowledges at once whatever is beyond the live records.
  std::thread taker([&] {
    _OutRoom room;
    room.uMessages = 64;
    room.uBytes = 4u << 20;
    while (!bEnd.load()) {
      TOutItem pItem;
      if (outbox.Waiting() > kLive)
        pItem = outbox.Take(room);
      if (pItem != nullptr)
        outbox.Done(pItem->u64Seq);
      else
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::atomic<uint64_t> u64Accepted{0};
  std::vector<std::thread> callers;
  const std::string strBody(kBody, 'x');
  (void)spool.Append(strBody, 1);  // the file is open from here on
  const double dCpu = Cpu();
  const auto start = TClock::now();
  for (int i = 0; i < iCallers; ++i)
    callers.emplace_back([&] {
      while (Since(start) < kSeconds)
        u64Accepted += spool.Append(strBody, 1) == 0;
    });
  for (std::thread& thread : callers)
    thread.join();
  const auto dRecords = static_cast<double>(u64Accepted.load());
  const double dSeconds = Since(start);
  const double dCpuUsed = Cpu() - dCpu;
  bEnd = true;
  taker.join();
  spool.Stop();
  writer.join();
  return {dRecords / dSeconds, dCpuUsed * 1e6 / dRecords, dRecords / Commits(strFile)};
}

void Print(const char* pszName, const _Figure& figure, const _Figure* pFloor) {
  std::printf("%-38s%10.0f msg/s%8.1f us cpu%8.1f per commit", pszName, figure.dPerSec, figure.dCpuUs,
              figure.dBatch);
  if (pFloor != nullptr)
    std::printf("   %.2f of the floor", figure.dPerSec / pFloor->dPerSec);
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string strDir =
      argc > 1 ? argv[1]
               : std::filesystem::current_path().string() + "/bench_spool." + std::to_string(getpid());
  std::filesystem::create_directories(strDir);
  int iFile = 0;
  const auto File = [&] { return strDir + "/spool" + std::to_string(++iFile) + ".db"; };
  const std::vector<int> callers = argc > 2 ? std::vector{std::atoi(argv[2])} : std::vector{1, 32, 64, 256};
  for (const bool bFull : {true, false}) {
    if (argc > 2 && !bFull)
      break;
    std::printf("durable spool, 1 KB, synchronous %s\n", bFull ? "FULL" : "NORMAL");
    const _Figure bare = Bare(File(), bFull, 1000);
    Print("  bare insert, batch 1000 (floor)", bare, nullptr);
    for (const int iCallers : callers) {
      const _Figure figure = Spool(File(), bFull, iCallers);
      const std::string strName = "  spool, callers " + std::to_string(iCallers);
      Print(strName.c_str(), figure, &bare);
      const auto uBatch = static_cast<size_t>(std::max(figure.dBatch + 0.5, 1.0));
      const _Figure same = Bare(File(), bFull, uBatch);
      const std::string strSame = "    bare insert, batch " + std::to_string(uBatch);
      Print(strSame.c_str(), same, nullptr);
    }
  }
  std::filesystem::remove_all(strDir);
  return 0;
}
