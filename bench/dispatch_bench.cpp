// What a command costs that is kept in the policy cache, by step, beside the file writes that it cannot do
// without: the copy before the hand-off, and the same file once more with the component's verdict.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "cache/AgentCache.h"
#include "support/TempHome.h"

namespace {

constexpr char kProduct[] = "Scan";
constexpr char kCombo[] = "One";
constexpr char kCommand[] = "disk_usage";

struct CDispatchFixture {
  CTempHome home;
  CAgentCache cache;
  std::string strPush =
      R"({"ID":"20261120-0001-4711","Command":"disk_usage","Param":{"path":"/","depth":3,"pad":")" +
      std::string(180, 'x') + R"("}})";
  CDispatchFixture() {
    cache.Init(home.Root());
    cache.SavePolicyFile(1, "1", kProduct, kCombo, kCommand, strPush.c_str(), 0);
  }
};

CDispatchFixture& Fixture() {
  static auto* pFixture = new CDispatchFixture();
  return *pFixture;
}

void WriteBare(const CPString& strFile, const std::string& strText) {
  const int fd = open(strFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  benchmark::DoNotOptimize(write(fd, strText.data(), strText.size()));
  close(fd);
}

size_t ReadBare(const CPString& strFile, char* pBuffer, size_t uCapacity) {
  const int fd = open(strFile.c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t iLength = read(fd, pBuffer, uCapacity);
  close(fd);
  return iLength < 0 ? 0 : static_cast<size_t>(iLength);
}

void Cache_SavePolicy(benchmark::State& state) {
  CDispatchFixture& f = Fixture();
  for (auto _ : state)
    benchmark::DoNotOptimize(
        f.cache.SavePolicyFile(1, "1", kProduct, kCombo, kCommand, f.strPush.c_str(), 0));
}
BENCHMARK(Cache_SavePolicy);

void Cache_SavePolicy_Floor(benchmark::State& state) {
  CDispatchFixture& f = Fixture();
  const CPString strFile = f.home.Path("floor.json");
  for (auto _ : state)
    WriteBare(strFile, f.strPush);
}
BENCHMARK(Cache_SavePolicy_Floor);

void Cache_UpdatePolicy(benchmark::State& state) {
  CDispatchFixture& f = Fixture();
  for (auto _ : state)
    benchmark::DoNotOptimize(f.cache.UpdatePolicyCache(1, "1", kProduct, kCombo, kCommand, 1));
}
BENCHMARK(Cache_UpdatePolicy);

void Cache_UpdatePolicy_Floor(benchmark::State& state) {
  CDispatchFixture& f = Fixture();
  const CPString strFile = f.home.Path("floor.json");
  WriteBare(strFile, f.strPush);
  char szBuffer[4096];
  for (auto _ : state) {
    benchmark::DoNotOptimize(ReadBare(strFile, szBuffer, sizeof(szBuffer)));
    WriteBare(strFile, f.strPush);
  }
}
BENCHMARK(Cache_UpdatePolicy_Floor);

// A command's whole way through the cache.
void Cache_Command(benchmark::State& state) {
  CDispatchFixture& f = Fixture();
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        f.cache.SavePolicyFile(1, "1", kProduct, kCombo, kCommand, f.strPush.c_str(), 0));
    benchmark::DoNotOptimize(f.cache.UpdatePolicyCache(1, "1", kProduct, kCombo, kCommand, 1));
  }
}
BENCHMARK(Cache_Command);

}  // namespace
