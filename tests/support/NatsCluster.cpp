#include "support/NatsCluster.h"

#include <fcntl.h>
#include <mosquitto.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>

#include "support/CloudServers.h"

namespace {

const char* Program() {
  for (const char* psz : {"/usr/sbin/nats-server", "/usr/bin/nats-server", "/usr/local/bin/nats-server"}) {
    if (access(psz, X_OK) == 0)
      return psz;
  }
  return nullptr;
}

}  // namespace

bool CNatsCluster::Installed() {
  return Program() != nullptr;
}

CNatsCluster::CNatsCluster(const std::string& strDir) : m_strDir(strDir) {
  mkdir(strDir.c_str(), 0755);
  std::set<uint16_t> setUsed;
  const auto NextPort = [&setUsed] {
    uint16_t wPort = FreePort();
    while (!setUsed.insert(wPort).second)
      wPort = FreePort();
    return wPort;
  };
  for (_Node& node : m_nodes) {
    node.wClient = NextPort();
    node.wRoute = NextPort();
    node.wMqtt = NextPort();
  }
  for (size_t u = 0; u < kNodes; ++u)
    Spawn(u);
}

CNatsCluster::~CNatsCluster() {
  for (size_t u = 0; u < kNodes; ++u)
    Kill(u);
}

std::string CNatsCluster::ConfigOf(size_t uNode) const {
  const _Node& node = m_nodes[uNode];
  const std::string strName = "node" + std::to_string(uNode);
  std::string strRoutes;
  for (const _Node& other : m_nodes)
    strRoutes += "\"nats://127.0.0.1:" + std::to_string(other.wRoute) + "\", ";
  return "server_name: " + strName + "\nlisten: 127.0.0.1:" + std::to_string(node.wClient) +
         "\njetstream { store_dir: \"" + m_strDir + strName +
         "\" }\ncluster { name: fleet, listen: 127.0.0.1:" + std::to_string(node.wRoute) + ", routes: [ " +
         strRoutes + "] }\nmqtt { listen: 127.0.0.1:" + std::to_string(node.wMqtt) +
         ", stream_replicas: 3 }\n";
}

void CNatsCluster::Spawn(size_t uNode) {
  const std::string strConfig = m_strDir + "node" + std::to_string(uNode) + ".conf";
  const std::string strLog = m_strDir + "node" + std::to_string(uNode) + ".log";
  std::ofstream(strConfig) << ConfigOf(uNode);
  const char* pszProgram = Program();
  const pid_t iParent = getpid();
  const pid_t iPid = fork();
  if (iPid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != iParent || pszProgram == nullptr)
      _exit(126);
    const int fd = open(strLog.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    dup2(fd, STDERR_FILENO);
    execl(pszProgram, "nats-server", "-c", strConfig.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  m_nodes[uNode].iPid = iPid;
}

void CNatsCluster::Kill(size_t uNode) {
  pid_t& iPid = m_nodes[uNode].iPid;
  if (iPid <= 0)
    return;
  kill(iPid, SIGKILL);
  waitpid(iPid, nullptr, 0);
  iPid = -1;
}

void CNatsCluster::Restart(size_t uNode) {
  Kill(uNode);
  Spawn(uNode);
}

CDurableSubscriber::CDurableSubscriber(std::array<uint16_t, CNatsCluster::kNodes> ports,
                                       const std::string& strTopic)
    : m_ports(ports), m_strTopic(strTopic) {
  mosquitto_lib_init();
  m_thread = std::thread([this] { Loop(); });
}

CDurableSubscriber::~CDurableSubscriber() {
  m_bStop.store(true);
  m_thread.join();
}

void CDurableSubscriber::Loop() {
  for (size_t u = 0; !m_bStop.load(); ++u) {
    if (!Session(m_ports[u % m_ports.size()]))
      std::this_thread::yield();
  }
}

// One connection until it ends. False: it never came up.
bool CDurableSubscriber::Session(uint16_t wPort) {
  const std::unique_ptr<mosquitto, void (*)(mosquitto*)> pMosq(mosquitto_new("oracle", false, this),
                                                               mosquitto_destroy);
  mosquitto_subscribe_callback_set(pMosq.get(), [](mosquitto*, void* pThis, int, int, const int*) {
    auto& self = *static_cast<CDurableSubscriber*>(pThis);
    const std::lock_guard lock(self.m_mutex);
    self.m_bSubscribed = true;
    self.m_cond.notify_all();
  });
  mosquitto_message_callback_set(pMosq.get(), [](mosquitto*, void* pThis, const mosquitto_message* p) {
    auto& self = *static_cast<CDurableSubscriber*>(pThis);
    const std::lock_guard lock(self.m_mutex);
    self.m_setPayloads.emplace(static_cast<const char*>(p->payload), static_cast<size_t>(p->payloadlen));
    self.m_cond.notify_all();
  });
  if (mosquitto_connect(pMosq.get(), "127.0.0.1", wPort, 60) != MOSQ_ERR_SUCCESS)
    return false;
  mosquitto_subscribe(pMosq.get(), nullptr, m_strTopic.c_str(), 1);
  // A node without a quorum stays silent or ends the connection.
  const auto start = std::chrono::steady_clock::now();
  while (!m_bStop.load() && mosquitto_loop(pMosq.get(), 50, 1) == MOSQ_ERR_SUCCESS) {
    const std::lock_guard lock(m_mutex);
    if (!m_bSubscribed && std::chrono::steady_clock::now() - start > std::chrono::seconds(5))
      break;
  }
  return true;
}

bool CDurableSubscriber::WaitSubscribed(uint32_t dwMs) {
  std::unique_lock lock(m_mutex);
  return m_cond.wait_for(lock, std::chrono::milliseconds(dwMs), [this] { return m_bSubscribed; });
}

bool CDurableSubscriber::Wait(const std::function<bool(const std::multiset<std::string>&)>& fnEnough,
                              uint32_t dwMs) {
  std::unique_lock lock(m_mutex);
  return m_cond.wait_for(lock, std::chrono::milliseconds(dwMs), [&] { return fnEnough(m_setPayloads); });
}
