// A clustered broker loses the node that the machine is connected to.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

#include "CloudFixture.h"
#include "support/NatsCluster.h"
#include "support/Waiter.h"

namespace {

constexpr uint32_t kPatientMs = 120000;
constexpr size_t kConnected = 0;  // the node that the machine tries first

class CCluster : public CCloudFixture {
 protected:
  CCluster() : m_https(&m_cert) {}

  static std::string BodyOf(const std::string& strPayload) {
    return strPayload.substr(strPayload.find('\n') + 1);
  }
  // Sends one after another, small and large in turn, until told to stop; notes what was acknowledged.
  void SendMany(int iSender) {
    for (int i = 0; !m_bStop.load(); ++i) {
      std::string strBody = "s" + std::to_string(iSender) + "-" + std::to_string(i);
      if (i % 4 == 3)
        strBody.resize(8000, '.');
      if (zxcloud_send_sync(strBody.data(), static_cast<int>(strBody.size()), 1, 30000) != 0)
        continue;
      const std::lock_guard lock(m_mutex);
      m_acked.insert(strBody);
      m_lastAck = std::chrono::steady_clock::now();
    }
  }
  size_t Acked() {
    const std::lock_guard lock(m_mutex);
    return m_acked.size();
  }

  CTestHttps m_https;
  std::atomic<bool> m_bStop{false};
  std::mutex m_mutex;
  std::set<std::string> m_acked;
  std::chrono::steady_clock::time_point m_lastAck;
};

TEST_F(CCluster, NodeKilled_LosesNothingAcknowledged_AndServiceReturns) {
  if (!CNatsCluster::Installed())
    GTEST_SKIP() << "no clustered broker (package nats-server)";
  CNatsCluster cluster(m_home.Path("nats/").Str());
  // Not connected to the node that goes: what it must see is the cluster's memory.
  CDurableSubscriber oracle({cluster.Port(1), cluster.Port(2), cluster.Port(1)}, "zx/v1/+/up/+");
  ASSERT_TRUE(oracle.WaitSubscribed(kPatientMs));
  m_https.Answer("/v1/upload", [](const _TestRequest&) { return _TestReply{503, "", {}}; });
  std::string strLong;
  for (size_t u = 0; u < CNatsCluster::kNodes; ++u)
    strLong += (u == 0 ? "mqtt://" : ",mqtt://") + Local(cluster.Port(u));
  ServeTconf(m_https, "", strLong);
  WriteConfig(m_https.Address(), ",\"plaintext_loopback\":true");
  ASSERT_EQ(Init(), 0u);
  ASSERT_TRUE(m_events.Wait("connect", 1, kPatientMs));

  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([this, i] { SendMany(i); });
  EXPECT_TRUE(EventuallyTrue([this] { return Acked() > 200; }, kPatientMs));
  cluster.Kill(kConnected);
  const auto killed = std::chrono::steady_clock::now();
  EXPECT_TRUE(m_events.Wait("connect", 2, kPatientMs));
  const size_t uAtReturn = Acked();
  EXPECT_TRUE(EventuallyTrue([&] { return Acked() > uAtReturn; }, kPatientMs));
  const std::chrono::duration<double> away = std::chrono::steady_clock::now() - killed;
  std::printf("service was back %.1f s after the node died\n", away.count());
  EXPECT_TRUE(EventuallyTrue([&] { return Acked() > uAtReturn + 200; }, kPatientMs));
  m_bStop.store(true);
  for (std::thread& thread : threads)
    thread.join();

  size_t uRepeats = 0;
  EXPECT_TRUE(oracle.Wait(
      [&](const std::multiset<std::string>& payloads) {
        std::multiset<std::string> bodies;
        for (const std::string& strPayload : payloads)
          bodies.insert(BodyOf(strPayload));
        uRepeats = bodies.size() - std::set<std::string>(bodies.begin(), bodies.end()).size();
        const std::lock_guard lock(m_mutex);
        return std::includes(bodies.begin(), bodies.end(), m_acked.begin(), m_acked.end());
      },
      kPatientMs))
      << "acknowledged messages are missing";
  std::printf("%zu acknowledged, %zu repeats\n", Acked(), uRepeats);
  EXPECT_NE(m_events.Events("connect").back(), m_events.Events("connect").front());
}

}  // namespace
