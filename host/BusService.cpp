#include "BusService.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "BusControl.h"
#include "BusPolicy.h"
#include "HostLog.h"
#include "SystemUser.h"
#include "platform/bus/zxbus.h"
#include "platform/os/ZxFile.h"
#include "platform/os/ZxThread.h"
#include "platform/os/ZxTime.h"

namespace {

constexpr uint32_t kFirstBackoffMs = 50;
constexpr uint32_t kMaxBackoffMs = 30000;
constexpr uint64_t kStableMs = 10000;      // a daemon that ran this long is started again at once
constexpr uint32_t kDaemonGraceMs = 2000;  // between asking it to end and ending it
constexpr uint32_t kReloadTimeoutMs = 3000;
constexpr uint32_t kReloadRetryMs = 2000;
constexpr uint32_t kSettleMs = 200;      // an installation is several changes
constexpr uint32_t kMaxSettleMs = 2000;  // but they may not put it off for ever
constexpr uint32_t kJoinTimeoutMs = 2000;
constexpr uint32_t kRescanMs = 10000;  // without a complete watch

std::set<GUID> InProcessGuids(const _HostConfig& config) {
  std::set<GUID> guids;
  for (const _PluginEntry& entry : config.plugins) {
    GUID guid;
    if (ParseGuidText(entry.strGuid.View(), guid))
      guids.insert(guid);
  }
  return guids;
}

// Whoever may write into the directory could put another socket or policy there.
bool CheckRunDirectory(const CPString& strDir, CPString& strError) {
  struct stat st {};
  if ((mkdir(strDir.c_str(), 0755) != 0 && errno != EEXIST) || stat(strDir.c_str(), &st) != 0) {
    strError = strDir + ": " + std::strerror(errno);  // NOLINT(concurrency-mt-unsafe)
    return false;
  }
  if (!S_ISDIR(st.st_mode))
    strError = strDir + " is no directory";
  else if ((st.st_uid != 0 && st.st_uid != geteuid()) || (st.st_mode & S_IWOTH) != 0 ||
           (geteuid() == 0 && (st.st_mode & S_IWGRP) != 0))
    strError = strDir + " can be written by others";
  return strError.IsEmpty();
}

}  // namespace

CBusService::CBusService(const _HostConfig& config, const CPString& strHome)
    : m_config(config),
      m_strHome(strHome),
      m_strAddress(config.bus.strAddress.IsEmpty() ? "unix:path=" + config.bus.strRunDir + "bus"
                                                   : config.bus.strAddress),
      m_watch(strHome) {
  m_rules.uidHost = geteuid();
  m_rules.bTrustedOnly = m_rules.uidHost == 0;
  m_rules.bOneUser = m_rules.uidHost != 0;
  m_rules.inProcess = InProcessGuids(config);
  m_snapshot.pComponents = m_pComponents;
}

CBusService::~CBusService() {
  Stop();
}

bool CBusService::Start() {
  if (!m_config.bus.bEnabled) {
    LogInfoTo(g_hHostLog, "zxhost bus is off by configuration, components run in this process only");
    return true;
  }
  return m_thread.Start([this] { Run(); });
}

void CBusService::Stop() {
  if (!m_thread.IsJoinable())
    return;
  {
    CCritLock lock(m_cs);
    m_bStop = true;
  }
  m_thread.Signal();
  m_thread.Join();
}

_BusSnapshot CBusService::Snapshot() {
  CCritLock lock(m_cs);
  return m_snapshot;
}

void CBusService::Publish() {
  _BusSnapshot snapshot;
  snapshot.strAddress = m_strAddress;
  snapshot.bOwnDaemon = OwnsDaemon();
  snapshot.iDaemonPid = m_pDaemon != nullptr && m_pDaemon->IsRunning() ? m_pDaemon->Pid() : 0;
  snapshot.uiStarts = m_uiStarts;
  snapshot.u64UpSinceMs = m_u64StartedMs;
  snapshot.strTrouble = m_strTrouble;
  snapshot.pComponents = m_pComponents;
  CCritLock lock(m_cs);
  std::swap(m_snapshot, snapshot);
}

// One line per new trouble, one when it is over.
void CBusService::SetTrouble(const CPString& strText) {
  if (strText == m_strTrouble)
    return;
  if (!strText.IsEmpty())
    LogWarnTo(g_hHostLog, "*zxhost bus trouble[%s] components in this process are not affected", strText);
  else
    LogInfoTo(g_hHostLog, "zxhost bus is well again after[%s]", m_strTrouble);
  m_strTrouble = strText;
  Publish();
}

void CBusService::Run() {
  ZxSetThreadName("zxhost.bus");
  if (m_rules.uidHost != 0)
    LogWarnTo(g_hHostLog,
              "*zxhost is not root: every component runs as uid[%u], who is who among them is not proven",
              m_rules.uidHost);
  if (OwnsDaemon())
    LogInfoTo(g_hHostLog, "zxhost bus begin address[%s] daemon[%s]", m_strAddress, m_config.bus.strDaemon);
  else
    LogInfoTo(g_hHostLog, "zxhost bus begin with the bus of the configuration address[%s]", m_strAddress);
  for (;;) {
    Step(ZxGetTickCount());
    pollfd fds[4] = {{m_thread.Fd(), POLLIN, 0}, {m_watch.Fd(), POLLIN, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0}};
    if (m_pDaemon != nullptr) {
      fds[2].fd = m_pDaemon->ExitFd();
      fds[3].fd = m_pDaemon->OutputFd();
    }
    poll(fds, 4, WaitMs(ZxGetTickCount()));
    {
      CCritLock lock(m_cs);
      if (m_bStop)
        break;
    }
    const uint64_t u64NowMs = ZxGetTickCount();
    if (fds[3].revents != 0)
      OnDaemonOutput(u64NowMs);
    if (fds[2].revents != 0)
      OnDaemonEnd(u64NowMs);
    if (fds[1].revents != 0 && m_watch.TakeEvents()) {
      if (m_u64ReadByMs == 0)
        m_u64ReadByMs = u64NowMs + kMaxSettleMs;
      m_u64ReadAtMs = std::min(u64NowMs + kSettleMs, m_u64ReadByMs);
    }
  }
  if (m_bJoined)
    ZxBusDisconnect();
  if (m_pDaemon != nullptr) {
    m_pDaemon->Stop(kDaemonGraceMs);
    OnDaemonOutput(ZxGetTickCount());
    m_pDaemon.reset();
  }
  Publish();
  LogInfoTo(g_hHostLog, "zxhost bus end");
}

int CBusService::WaitMs(uint64_t u64NowMs) const {
  uint64_t u64NextMs = m_u64ReadAtMs;
  if (m_u64ReloadAtMs != 0)
    u64NextMs = std::min(u64NextMs, m_u64ReloadAtMs);
  if (OwnsDaemon() && (m_pDaemon == nullptr || !m_pDaemon->IsRunning()))
    u64NextMs = std::min(u64NextMs, m_u64StartAtMs);
  // Without a descriptor for its end the daemon is looked at.
  if (m_pDaemon != nullptr && m_pDaemon->IsRunning() && m_pDaemon->ExitFd() < 0)
    u64NextMs = std::min<uint64_t>(u64NextMs, u64NowMs + 1000);
  if (u64NextMs == UINT64_MAX)
    return -1;
  return u64NextMs <= u64NowMs ? 0 : static_cast<int>(std::min<uint64_t>(u64NextMs - u64NowMs, INT32_MAX));
}

void CBusService::Step(uint64_t u64NowMs) {
  if (u64NowMs >= m_u64ReadAtMs)
    ReadManifests(u64NowMs);
  if (m_pDaemon != nullptr && m_pDaemon->IsRunning() && m_pDaemon->ExitFd() < 0)
    OnDaemonEnd(u64NowMs);
  if (OwnsDaemon() && (m_pDaemon == nullptr || !m_pDaemon->IsRunning()) && u64NowMs >= m_u64StartAtMs)
    StartDaemon(u64NowMs);
  if (m_u64ReloadAtMs != 0 && u64NowMs >= m_u64ReloadAtMs)
    UpdatePolicy(u64NowMs);
  if (!m_bJoined && (!OwnsDaemon() || (m_pDaemon != nullptr && m_pDaemon->IsRunning())))
    Join();
}

bool CBusService::PrepareDaemon(CPString& strError) {
  if (!CheckRunDirectory(m_config.bus.strRunDir, strError) || !WritePolicy(strError))
    return false;
  if (m_pDaemon == nullptr) {
    _BusDaemonSettings settings{m_config.bus.strDaemon, m_config.bus.strRunDir + "bus.conf",
                                m_config.bus.strRunDir + "bus", ""};
    if (m_rules.uidHost == 0 && !m_config.bus.strUser.IsEmpty()) {
      uid_t uid = 0;
      gid_t gid = 0;
      const bool bFound = FindSystemUser(m_config.bus.strUser, uid, gid);
      settings.strUser = bFound ? m_config.bus.strUser : CPString();
      if (!bFound && !std::exchange(m_bUserMissing, true))
        LogWarnTo(g_hHostLog, "*zxhost bus daemon runs as root, there is no user[%s]", m_config.bus.strUser);
    }
    m_pDaemon = std::make_unique<CBusDaemon>(settings);
  }
  return m_pDaemon->Listen(strError) && m_pDaemon->Start(strError);
}

void CBusService::StartDaemon(uint64_t u64NowMs) {
  CPString strError;
  if (!PrepareDaemon(strError)) {
    m_uiBackoffMs = std::clamp(m_uiBackoffMs * 2, kFirstBackoffMs, kMaxBackoffMs);
    m_u64StartAtMs = u64NowMs + m_uiBackoffMs;
    SetTrouble("the daemon cannot be started: " + strError);
    return;
  }
  ++m_uiStarts;
  m_u64StartedMs = u64NowMs;
  m_bReloadDue = false;  // it reads the file that was just written
  m_u64ReloadAtMs = 0;
  LogInfoTo(g_hHostLog, "zxhost bus daemon started pid[%d] start[%u]", m_pDaemon->Pid(), m_uiStarts);
  SetTrouble("");
  Publish();
}

void CBusService::OnDaemonEnd(uint64_t u64NowMs) {
  CPString strHow;
  const pid_t iPid = m_pDaemon->Pid();
  if (!m_pDaemon->Reap(strHow))
    return;
  OnDaemonOutput(u64NowMs);
  LogOutput(m_output.Finish(u64NowMs), u64NowMs);
  const uint64_t u64UpMs = u64NowMs - m_u64StartedMs;
  m_uiBackoffMs = u64UpMs >= kStableMs ? 0 : std::clamp(m_uiBackoffMs * 2, kFirstBackoffMs, kMaxBackoffMs);
  m_u64StartAtMs = u64NowMs + m_uiBackoffMs;
  LogWarnTo(g_hHostLog, "*zxhost bus daemon ended pid[%d] how[%s] up_ms[%llu] again_in_ms[%u]", iPid, strHow,
            u64UpMs, m_uiBackoffMs);
  Publish();
}

void CBusService::OnDaemonOutput(uint64_t u64NowMs) {
  for (std::string str; !(str = m_pDaemon->ReadOutput()).empty();)
    LogOutput(m_output.Feed(str, u64NowMs), u64NowMs);
}

void CBusService::LogOutput(const std::vector<std::string>& lines, uint64_t u64NowMs) {
  for (const std::string& strLine : lines)
    LogInfoTo(g_hHostLog, "zxhost bus daemon says[%s]", strLine);
  const uint64_t u64Dropped = m_output.TakeDropped(u64NowMs);
  if (u64Dropped != 0)
    LogWarnTo(g_hHostLog, "*zxhost bus daemon said more lines[%llu] which are left out", u64Dropped);
}

void CBusService::ReadManifests(uint64_t u64NowMs) {
  m_watch.Arm();
  auto pList = std::make_shared<_ComponentList>(ReadComponents(m_strHome, m_rules));
  m_u64ReadByMs = 0;
  m_u64ReadAtMs = m_watch.IsComplete() ? UINT64_MAX : u64NowMs + kRescanMs;
  LogManifestChanges(*pList);
  m_pComponents = std::move(pList);
  Publish();
  m_strPolicy = BuildBusPolicy({m_rules.uidHost, m_pComponents.get()});
  if (OwnsDaemon() && m_strPolicy != m_strWrittenPolicy)
    m_u64ReloadAtMs = u64NowMs;
}

// What is new or different since the last reading, a line each.
void CBusService::LogManifestChanges(const _ComponentList& list) {
  std::map<CPString, const _ComponentEntry*> before;
  for (const _ComponentEntry& entry : m_pComponents->entries)
    before[entry.strName] = &entry;
  for (const _ComponentEntry& entry : list.entries) {
    const auto it = before.find(entry.strName);
    const _ComponentEntry* pBefore = it != before.end() ? it->second : nullptr;
    if (it != before.end())
      before.erase(it);
    if (pBefore != nullptr && pBefore->strRefused == entry.strRefused && pBefore->uid == entry.uid)
      continue;
    if (entry.bWarning)
      LogWarnTo(g_hHostLog, "*zxhost component[%s] gets no rights on the bus: %s", entry.strName,
                entry.strRefused);
    else if (entry.strRefused.IsEmpty())
      LogInfoTo(g_hHostLog, "zxhost component[%s] guid[%s] user[%s] uid[%u] may join the bus", entry.strName,
                entry.manifest.guids.front().ToUpper(), entry.manifest.strUser, entry.uid);
  }
  for (const auto& [strName, pEntry] : before) {
    if (pEntry->strRefused.IsEmpty())
      LogInfoTo(g_hHostLog, "zxhost component[%s] is not installed any more", strName);
  }
  if (!list.strError.IsEmpty() && list.strError != m_pComponents->strError)
    LogWarnTo(g_hHostLog, "*zxhost components cannot be read: %s", list.strError);
}

bool CBusService::WritePolicy(CPString& strError) {
  const CPString strFile = m_config.bus.strRunDir + "bus.conf";
  // What an earlier host has left may be right already: then a full disk is no reason to have no bus.
  CPString strThere;
  if (ZxReadFileText(strFile, strThere) && strThere == m_strPolicy) {
    m_bReloadDue = m_bReloadDue || m_strWrittenPolicy != m_strPolicy;
    m_strWrittenPolicy = m_strPolicy;
    return true;
  }
  if (!ZxSaveFileData(strFile + ".tmp", m_strPolicy) || !ZxSyncedRename(strFile + ".tmp", strFile)) {
    strError = strFile + ": " + std::strerror(errno);  // NOLINT(concurrency-mt-unsafe)
    return false;
  }
  m_strWrittenPolicy = m_strPolicy;
  m_bReloadDue = true;
  return true;
}

void CBusService::UpdatePolicy(uint64_t u64NowMs) {
  m_u64ReloadAtMs = 0;
  if (m_pDaemon == nullptr || !m_pDaemon->IsRunning())
    return;  // the next start writes the file and reads it
  CPString strError;
  const bool bDone =
      WritePolicy(strError) && (!m_bReloadDue || ReloadBusConfig(m_strAddress, kReloadTimeoutMs, strError));
  if (!bDone) {
    m_u64ReloadAtMs = u64NowMs + kReloadRetryMs;
    SetTrouble("the policy is not in force: " + strError);
    return;
  }
  if (std::exchange(m_bReloadDue, false))
    LogInfoTo(g_hHostLog, "zxhost bus policy in force bytes[%u] components[%u]",
              static_cast<uint32_t>(m_strPolicy.GetLength()),
              static_cast<uint32_t>(m_pComponents->entries.size()));
  SetTrouble("");
}

void CBusService::Join() {
  m_bJoined = true;
  ZxBusConnectSettings settings;
  settings.pszAddress = m_strAddress.c_str();
  settings.uiTimeoutMs = kJoinTimeoutMs;
  settings.pfnState = &CBusService::OnBusState;
  settings.pContext = this;
  const uint32_t uiResult = ZxBusConnect(&settings);
  if (uiResult != 0)
    LogWarnTo(g_hHostLog, "*zxhost bus not joined yet uiResult[%x] address[%s]", uiResult, m_strAddress);
}

// On the bus's thread for host calls. What it says again and again is logged once.
void CBusService::OnBusState(uint32_t uiState, const char* pszText, void* pContext) {
  CPString& strLast = static_cast<CBusService*>(pContext)->m_strLastState;
  const CPString strText = CPString::Make("%u %s", uiState, pszText != nullptr ? pszText : "");
  if (strText == strLast)
    return;
  strLast = strText;
  if (uiState == kBusStateConnected)
    LogInfoTo(g_hHostLog, "zxhost bus joined state[%s]", strText);
  else
    LogWarnTo(g_hHostLog, "*zxhost bus state[%s]", strText);
}
