// Lines from a socket through the forwarder, the bus and the agent to the cloud, and the result back.
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <set>

#include "AgentFixture.h"
#include "zxlogcache/LogCache.h"

using testing::HasSubstr;
using zxlogcache::CLogCache;

namespace {

class LogCacheRelay : public CAgentFixture {
 protected:
  LogCacheRelay() {
    m_home.WriteFile("etc/zxlogcache.json",
                     R"({"sources":[{"name":"app","product":"veltcwpp","combo":"zxlogcache",
      "body":"lines","sockets":[{"path":"in.sock","ack":true}]}],
      "store":{"max_bytes":67108864},"batch":{"linger_ms":20,"max_bytes":65536},
      "retry_min_ms":20,"retry_max_ms":200})");
    m_log.Open("zxlogforward");
  }
  ~LogCacheRelay() override {
    for (const auto& entry : m_log.Entries()) {
      if (HasFailure() && entry.strChannel == "zxlogforward")
        std::fprintf(stderr, "%s\n", entry.strText.c_str());
    }
    StopForwarder();
    if (m_pObj != nullptr)
      LeaveAgent();
    if (m_bMounted)
      umount2(m_home.Path("data/zxlogcache").c_str(), MNT_DETACH);
  }

  void StartForwarder() {
    m_pBus = ZxBusCreateContext();
    m_pForwarder = std::make_unique<CLogCache>();
    m_pForwarder->Initialize(m_home.Root().Str());
    m_pForwarder->SetBus(m_pBus);
    ASSERT_EQ(m_pForwarder->Start(), 0);
  }
  void StopForwarder() {
    if (m_pForwarder == nullptr)
      return;
    m_pForwarder->Stop();
    m_pForwarder.reset();
    ZxBusDestroyContext(m_pBus);
  }
  // As StartAgent of the fixture, but on the bus that the forwarder is on.
  void JoinAgent() {
    ASSERT_NO_FATAL_FAILURE(Load());
    m_pAgentBus = ZxBusCreateContext();
    int iParam = 1;
    ASSERT_EQ(m_pObj->pfnInitialize(&iParam), 0);
    m_pObj->pfnSetCtx(m_pAgentBus);
    ASSERT_EQ(m_pObj->pfnStart(), 0);
    Online();
  }
  void LeaveAgent() {
    StopAgent();
    Unload();
    ZxBusDestroyContext(m_pAgentBus);
  }

  // The records that the forwarder answered for; stops early when it takes no more.
  size_t Feed(const std::string& strPrefix, int iCount, const std::string& strTail = std::string()) {
    const int hFd = Connect();
    size_t uAcknowledged = 0;
    for (int i = 0; i < iCount; ++i) {
      const std::string strLine = strPrefix + std::to_string(i) + strTail + "\n";
      size_t uSent = 0;
      const bool bTaken = EventuallyTrue(
          [&] {
            uAcknowledged = std::max(uAcknowledged, Answered(hFd));
            const ssize_t iBytes =
                send(hFd, strLine.data() + uSent, strLine.size() - uSent, MSG_NOSIGNAL | MSG_DONTWAIT);
            uSent += iBytes > 0 ? static_cast<size_t>(iBytes) : 0;
            return uSent == strLine.size() || m_log.Contains("**zxlogforward cannot write its store");
          },
          20000);
      if (!bTaken || uSent != strLine.size())
        break;
    }
    shutdown(hFd, SHUT_WR);
    EventuallyTrue(
        [&] {
          uAcknowledged = std::max(uAcknowledged, Answered(hFd));
          return uAcknowledged == static_cast<size_t>(iCount) ||
                 m_log.Contains("**zxlogforward cannot write its store");
        },
        20000);
    close(hFd);
    return uAcknowledged;
  }
  int Connect() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_home.Path("data/zxlogcache/in.sock").Str().copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int hFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(EventuallyTrue(
        [&] { return connect(hFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0; }));
    return hFd;
  }
  // The largest count of the answers that have come; 0 without a new one.
  static size_t Answered(int hFd) {
    std::string strAll;
    char buffer[1024];
    ssize_t iBytes = 0;
    while ((iBytes = recv(hFd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0)
      strAll.append(buffer, static_cast<size_t>(iBytes));
    const size_t uLast = strAll.rfind("ok ");
    return uLast == std::string::npos ? 0 : std::stoul(strAll.substr(uLast + 3));
  }
  // Lines that the cloud said yes to.
  bool CloudHas(const std::string& strPrefix, size_t uCount) {
    return EventuallyTrue(
        [&] {
          std::set<std::string> lines;
          for (const std::string& strText : m_cloud.Taken()) {
            for (size_t u = strText.find(strPrefix); u != std::string::npos;
                 u = strText.find(strPrefix, u + 1))
              lines.insert(strText.substr(u, strText.find_first_of(" \n", u) - u));
          }
          return lines.size() >= uCount;
        },
        30000);
  }
  bool Empty() {
    return EventuallyTrue(
        [&] {
          return m_home.Exists("data/zxlogcache/status.json") &&
                 m_home.ReadFile("data/zxlogcache/status.json").Str().find("\"held_records\":\t0") !=
                     std::string::npos;
        },
        30000);
  }

  // What blocking uploads reached the cloud, with its answer.
  class CCloud {
   public:
    CCloud() {
      CFakeCloud::Get().SetHook(ECloudCall::SendSync, [this](const _CloudCall& call) {
        const std::lock_guard lock(m_mutex);
        if (m_uiResult == 0)
          m_taken.push_back(call.strText);
        return m_uiResult;
      });
    }
    void Answer(uint32_t uiResult) {
      const std::lock_guard lock(m_mutex);
      m_uiResult = uiResult;
    }
    std::vector<std::string> Taken() {
      const std::lock_guard lock(m_mutex);
      return m_taken;
    }

   private:
    std::mutex m_mutex;
    std::vector<std::string> m_taken;
    uint32_t m_uiResult = 0;
  };

  CCloud m_cloud;
  IBusContext* m_pBus = nullptr;
  IBusContext* m_pAgentBus = nullptr;
  std::unique_ptr<CLogCache> m_pForwarder;
  bool m_bMounted = false;
};

TEST_F(LogCacheRelay, Lines_ReachTheCloud_AndTheirResultLetsThemGo) {
  JoinAgent();
  StartForwarder();
  EXPECT_EQ(Feed("line-", 50), 50u);
  EXPECT_TRUE(CloudHas("line-", 50));
  EXPECT_THAT(m_cloud.Taken()[0], HasSubstr("<product=veltcwpp><combo=zxlogcache>"));
  EXPECT_THAT(m_cloud.Taken()[0], HasSubstr("<PCPluginJasonData=line-0\n"));
  EXPECT_TRUE(Empty());
}

TEST_F(LogCacheRelay, RefusingCloud_GetsThemLater) {
  m_cloud.Answer(7);
  JoinAgent();
  StartForwarder();
  EXPECT_EQ(Feed("line-", 20), 20u);
  ASSERT_TRUE(m_log.WaitFor("*zxrelay not uploaded source[app]"));
  EXPECT_TRUE(m_cloud.Taken().empty());
  m_cloud.Answer(0);
  EXPECT_TRUE(CloudHas("line-", 20));
  EXPECT_TRUE(Empty());
}

TEST_F(LogCacheRelay, AgentThatIsRestarted_GetsThemThen) {
  JoinAgent();
  StartForwarder();
  EXPECT_EQ(Feed("first-", 5), 5u);
  EXPECT_TRUE(CloudHas("first-", 5));
  LeaveAgent();
  EXPECT_EQ(Feed("second-", 5), 5u);
  ASSERT_TRUE(m_log.WaitFor("*zxrelay refused source[app]"));
  JoinAgent();
  EXPECT_TRUE(CloudHas("second-", 5));
  EXPECT_TRUE(Empty());
}

TEST_F(LogCacheRelay, FullDisk_TakesNoInput_LosesNothing_AndRecovers) {
  m_home.MakeDir("data/zxlogcache");
  m_bMounted = mount("none", m_home.Path("data/zxlogcache").c_str(), "tmpfs", 0, "size=24m") == 0;
  if (!m_bMounted)
    GTEST_SKIP() << "this system permits no mounts";
  StartForwarder();
  const std::string strTail(20000, 'x');
  const size_t uKept = Feed("line-", 2000, " " + strTail);
  EXPECT_GT(uKept, 10u);
  EXPECT_LT(uKept, 2000u);
  EXPECT_TRUE(m_log.Contains("**zxlogforward cannot write its store"));
  JoinAgent();
  EXPECT_TRUE(CloudHas("line-", uKept)) << "everything that was answered for";
  ASSERT_TRUE(m_log.WaitFor("zxlogforward store works again"));
  EXPECT_TRUE(Empty());
  m_log.Clear();
  EXPECT_EQ(Feed("later-", 10), 10u);
  EXPECT_TRUE(CloudHas("later-", 10));
}

}  // namespace
