#include "HostProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "support/Waiter.h"

extern char** environ;

namespace {

std::string ReadAll(const CTempHome& home, const char* pszFile) {
  return home.Exists(pszFile) ? home.ReadFile(pszFile).Str() : std::string();
}

}  // namespace

CHostProcess::CHostProcess() {
  m_home.MakeDir("lib/plugins");
}

CHostProcess::~CHostProcess() {
  if (!IsRunning())
    return;
  kill(m_iPid, SIGKILL);
  waitpid(m_iPid, nullptr, 0);
}

void CHostProcess::AddPlugin(const std::string& strName, const std::string& strBehaviour) {
  std::filesystem::copy_file(ZX_FAKE_PLUGIN, m_home.Path("lib/plugins/" + strName + ".so").Str());
  AddEntry(R"({"name":")" + strName + R"(","path":"lib/plugins/)" + strName + R"(.so","guid":")" +
           strBehaviour + "\"}");
}

void CHostProcess::WriteConfig() {
  std::string strText = "{";
  if (m_iStopTimeoutSec != 0)
    strText += "\"stop_timeout_sec\":" + std::to_string(m_iStopTimeoutSec) + ",";
  if (!m_strBus.empty())
    strText += "\"bus\":" + m_strBus + ",";
  strText += "\"plugins\":[";
  for (size_t i = 0; i < m_entries.size(); ++i)
    strText += (i == 0 ? "" : ",") + m_entries[i];
  m_home.WriteFile("etc/zxhost.json", strText + "]}");
}

void CHostProcess::Start(std::vector<std::string> arguments) {
  if (!m_home.Exists("etc/zxhost.json"))
    WriteConfig();
  arguments.insert(arguments.begin(), {ZX_HOST_PROGRAM, "--home", m_home.Root().Str()});
  std::vector<char*> argv;
  for (std::string& str : arguments)
    argv.push_back(str.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (char** ppsz = environ; *ppsz != nullptr; ++ppsz) {
    const std::string str(*ppsz);
    if (!str.starts_with("ZX_LOG_") && !str.starts_with("NOTIFY_SOCKET=") && !str.starts_with("WATCHDOG_"))
      envp.push_back(*ppsz);
  }
  for (std::string& str : m_environment)
    envp.push_back(str.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 2, m_home.Path("stderr.txt").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  ASSERT_EQ(posix_spawn(&m_iPid, ZX_HOST_PROGRAM, &actions, nullptr, argv.data(), envp.data()), 0);
  posix_spawn_file_actions_destroy(&actions);
}

void CHostProcess::Restart() {
  ASSERT_FALSE(IsRunning());
  m_iExit = -1;
  Start();
}

bool CHostProcess::WaitRunning() {
  return EventuallyTrue([this] {
           return HostLog().find("zxhost running plugins[") != std::string::npos || !IsRunning();
         }) &&
         IsRunning();
}

void CHostProcess::Signal(int iSignal) const {
  ASSERT_GT(m_iPid, 0);
  kill(m_iPid, iSignal);
}

bool CHostProcess::IsRunning() {
  if (m_iPid <= 0 || m_iExit >= 0)
    return false;
  int iStatus = 0;
  if (waitpid(m_iPid, &iStatus, WNOHANG) == m_iPid)
    m_iExit = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 1000 + WTERMSIG(iStatus);
  return m_iExit < 0;
}

int CHostProcess::WaitExit() {
  EventuallyTrue([this] { return !IsRunning(); });
  return m_iExit;
}

std::vector<std::string> CHostProcess::Calls() const {
  std::vector<std::string> lines;
  std::istringstream stream(ReadAll(m_home, "calls.log"));
  for (std::string strLine; std::getline(stream, strLine);)
    lines.push_back(strLine);
  return lines;
}

bool CHostProcess::WaitCall(const std::string& strLine) const {
  return EventuallyTrue([&] {
    const auto calls = Calls();
    return std::find(calls.begin(), calls.end(), strLine) != calls.end();
  });
}

std::string CHostProcess::HostLog() const {
  return ReadAll(m_home, "log/zxhost.log");
}

std::string CHostProcess::Stderr() const {
  return ReadAll(m_home, "stderr.txt");
}
