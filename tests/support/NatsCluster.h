// Three nats-server nodes with JetStream and MQTT on 127.0.0.1, and a client whose session outlives nodes:
// what was acknowledged to a publisher must reach it.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

class CNatsCluster {
 public:
  static constexpr size_t kNodes = 3;
  static bool Installed();
  explicit CNatsCluster(const std::string& strDir);  // ends in "/"; the cluster's own
  ~CNatsCluster();
  CNatsCluster(const CNatsCluster&) = delete;
  CNatsCluster& operator=(const CNatsCluster&) = delete;

  uint16_t Port(size_t uNode) const { return m_nodes[uNode].wMqtt; }  // MQTT, plain text
  void Kill(size_t uNode);                                            // as power loss
  void Restart(size_t uNode);

 private:
  struct _Node {
    uint16_t wClient = 0;
    uint16_t wRoute = 0;
    uint16_t wMqtt = 0;
    pid_t iPid = -1;
  };
  std::string ConfigOf(size_t uNode) const;
  void Spawn(size_t uNode);

  const std::string m_strDir;
  std::array<_Node, kNodes> m_nodes;
};

// A durable subscriber that collects payloads and moves on to the next port when its node is gone.
class CDurableSubscriber {
 public:
  CDurableSubscriber(std::array<uint16_t, CNatsCluster::kNodes> ports, const std::string& strTopic);
  ~CDurableSubscriber();
  CDurableSubscriber(const CDurableSubscriber&) = delete;
  CDurableSubscriber& operator=(const CDurableSubscriber&) = delete;

  bool WaitSubscribed(uint32_t dwMs);
  // Everything that has arrived so far, each once.
  bool Wait(const std::function<bool(const std::multiset<std::string>&)>& fnEnough, uint32_t dwMs);

 private:
  void Loop();
  bool Session(uint16_t wPort);

  const std::array<uint16_t, CNatsCluster::kNodes> m_ports;
  const std::string m_strTopic;
  std::atomic<bool> m_bStop{false};
  std::mutex m_mutex;
  std::condition_variable m_cond;
  bool m_bSubscribed = false;
  std::multiset<std::string> m_setPayloads;
  std::thread m_thread;
};
