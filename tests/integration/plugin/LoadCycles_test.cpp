// A host that loads, runs and unloads the agent again and again keeps nothing of it.
#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "AgentFixture.h"
#include "support/Gauges.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

constexpr int kWarmUp = 20;
constexpr int kCycles = 200;
// What allocators, log capture and the C library keep for themselves; one forgotten object a cycle is more.
#if defined(__SANITIZE_ADDRESS__)
// The sanitizer registers an exit handler of its own with each one of the library, and never takes it back;
// objects that nobody can reach any more it finds by itself.
constexpr size_t kSlackBytes = 96u << 10;
#else
constexpr size_t kSlackBytes = 32u << 10;
#endif

size_t AllocatedBytes() {
#if defined(__SANITIZE_ADDRESS__)
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

size_t EntriesOf(const char* pszDir) {
  size_t uCount = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(pszDir))
    ++uCount;
  return uCount;
}

// Lines of the memory map that name a file of the home.
size_t MappedFrom(const std::string& strHome) {
  std::ifstream maps("/proc/self/maps");
  size_t uCount = 0;
  for (std::string strLine; std::getline(maps, strLine);)
    uCount += strLine.find(strHome) != std::string::npos ? 1 : 0;
  return uCount;
}

class LoadCycles : public CAgentFixture {
 protected:
  void Cycle(int iCycle) {
    const auto pBus = std::make_unique<CFakeBus>();
    ASSERT_NO_FATAL_FAILURE(Load());
    int iParam = 1;
    ASSERT_EQ(m_pObj->pfnInitialize(&iParam), 0);
    m_pObj->pfnSetCtx(static_cast<IBusContext*>(pBus.get()));
    ASSERT_EQ(m_pObj->pfnStart(), 0);
    ASSERT_GE(GaugeValue("agent.threads").value_or(0), 34);
    if (iCycle % 4 == 0)  // with a command and an upload in some of them
      Work(*pBus);
    ASSERT_EQ(m_pObj->pfnStop(), 0);
    m_pObj->pfnUninitialize();
    ASSERT_NO_FATAL_FAILURE(Unload());
    ASSERT_FALSE(IsMapped()) << "cycle " << iCycle;
    ASSERT_FALSE(GaugeValue("agent.threads").has_value());
    // The test's own records of this cycle.
    m_log.Clear();
    CFakeCloud::Get().Reset();
    CFakeMid::Instance().Reset();
  }

  void Work(CFakeBus& bus) {
    Online();
    bus.CompleteAtOnce(0, "");
    Push(kPcidSample, PushText("cycle", "disk_usage"));
    EXPECT_TRUE(Acknowledged("cycle", 3));
    bus.Deliver(
        GUID("9946467F-0102-46E8-ACAC-B9EFE3CD68FD"), 20002,
        std::string("<guid={") + kSampleId +
            "}><product=veltcwpp><combo=zxsample><version=1><msgtype=2><priv=3><dataid=1><end=1><msg={}>");
    EXPECT_TRUE(CFakeCloud::Get().WaitCount(ECloudCall::SendSync, 1));
  }
};

TEST_F(LoadCycles, Host_KeepsNoMemoryDescriptorOrThread_Of200LifeCycles) {
  for (int i = 0; i < kWarmUp; ++i)
    ASSERT_NO_FATAL_FAILURE(Cycle(i));
  const size_t uDescriptors = EntriesOf("/proc/self/fd");
  const size_t uThreads = EntriesOf("/proc/self/task");
  const size_t uBytes = AllocatedBytes();
  for (int i = 0; i < kCycles; ++i)
    ASSERT_NO_FATAL_FAILURE(Cycle(i));
  // Threads that have left the library may still be ending.
  EXPECT_TRUE(EventuallyTrue([&] { return EntriesOf("/proc/self/task") <= uThreads; }))
      << EntriesOf("/proc/self/task") << " threads, " << uThreads << " before";
  EXPECT_EQ(EntriesOf("/proc/self/fd"), uDescriptors);
  EXPECT_EQ(MappedFrom(m_home.Root().Str()), 0u);
  EXPECT_LE(AllocatedBytes(), uBytes + kSlackBytes);
}

}  // namespace
