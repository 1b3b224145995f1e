#include "BusPeer.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint64_t kCallUsec = 10000000;
constexpr const char* kInterface = "com.zxagent.bus1.Component";

bool Become(uid_t uid) {
  return uid == kSelf ||
         (setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 && setresuid(uid, uid, uid) == 0);
}

std::string PathOf(uint32_t uiType) {
  return "/com/zxagent/bus1/type/" + std::to_string(uiType);
}

std::string ResultOf(int iResult, sd_bus_error& error) {
  std::string str = iResult >= 0 ? "ok" : error.name != nullptr ? error.name : strerrorname_np(-iResult);
  sd_bus_error_free(&error);
  return str;
}

int Answer(sd_bus_message* pCall, void* pContext, sd_bus_error*) {
  if (sd_bus_message_is_method_call(pCall, kInterface, "Send") <= 0)
    return 0;
  sd_bus_message* pReply = nullptr;
  sd_bus_message_new_method_return(pCall, &pReply);
  sd_bus_message_append(pReply, "iu", *static_cast<int*>(pContext), 0u);
  sd_bus_message_append_array(pReply, 'y', "", 0);
  const int iResult = sd_bus_send(nullptr, pReply, nullptr);
  sd_bus_message_unref(pReply);
  return iResult < 0 ? iResult : 1;
}

int Heard(sd_bus_message* pMessage, void* pContext, sd_bus_error*) {
  if (sd_bus_message_is_signal(pMessage, kInterface, "Broadcast") > 0) {
    const std::string strPath = sd_bus_message_get_path(pMessage);
    (*static_cast<const FnSay*>(pContext))(strPath.substr(strPath.rfind('/') + 1));
  }
  return 0;
}

[[noreturn]] void Process(sd_bus* pBus) {
  for (;;) {
    const int iResult = sd_bus_process(pBus, nullptr);
    if (iResult < 0)
      _exit(1);
    if (iResult == 0)
      sd_bus_wait(pBus, UINT64_MAX);
  }
}

// All that the other end writes until it closes or ends.
std::string ReadAll(int iFd) {
  std::string str;
  char buffer[4096];
  ssize_t iRead = 0;
  while ((iRead = read(iFd, buffer, sizeof(buffer))) > 0)
    str.append(buffer, static_cast<size_t>(iRead));
  return str;
}

}  // namespace

CPeerBus::CPeerBus(const std::string& strAddress) {
  int iResult = sd_bus_new(&m_pBus);
  if (iResult >= 0)
    iResult = sd_bus_set_address(m_pBus, strAddress.c_str());
  if (iResult >= 0)
    iResult = sd_bus_set_bus_client(m_pBus, 1);
  if (iResult >= 0)
    iResult = sd_bus_start(m_pBus);
  const char* pszName = nullptr;  // asking for it waits until the daemon has let us in
  if (iResult >= 0)
    iResult = sd_bus_get_unique_name(m_pBus, &pszName);
  m_strConnected = iResult >= 0 ? "ok" : strerrorname_np(-iResult);
}

CPeerBus::~CPeerBus() {
  sd_bus_close_unref(m_pBus);
}

std::string CPeerBus::CallDaemon(const char* pszInterface, const char* pszMember, const char* pszSignature,
                                 const char* pszArgument) {
  sd_bus_error error{};
  sd_bus_message* pCall = nullptr;
  sd_bus_message* pReply = nullptr;
  sd_bus_message_new_method_call(m_pBus, &pCall, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 pszInterface, pszMember);
  if (pszArgument != nullptr)
    sd_bus_message_append(pCall, "s", pszArgument);
  else if (std::strcmp(pszSignature, "asu") == 0)
    sd_bus_message_append(pCall, "asu", 0, 0u);
  const int iResult = sd_bus_call(m_pBus, pCall, kCallUsec, &error, &pReply);
  sd_bus_message_unref(pReply);
  sd_bus_message_unref(pCall);
  return ResultOf(iResult, error);
}

std::string CPeerBus::Own(const std::string& strName) {
  const int iResult = sd_bus_request_name(m_pBus, strName.c_str(), 0);
  return iResult >= 0 ? "ok" : strerrorname_np(-iResult);
}

std::string CPeerBus::Send(const std::string& strName, uint32_t uiType) {
  sd_bus_error error{};
  sd_bus_message* pCall = nullptr;
  sd_bus_message* pReply = nullptr;
  sd_bus_message_new_method_call(m_pBus, &pCall, strName.c_str(), PathOf(uiType).c_str(), kInterface, "Send");
  sd_bus_message_append_array(pCall, 'y', "", 0);
  const int iResult = sd_bus_call(m_pBus, pCall, kCallUsec, &error, &pReply);
  std::string str = ResultOf(iResult, error);
  int32_t iStatus = 0;
  if (iResult >= 0 && sd_bus_message_read(pReply, "i", &iStatus) >= 0)
    str = "status " + std::to_string(iStatus);
  sd_bus_message_unref(pReply);
  sd_bus_message_unref(pCall);
  return str;
}

std::string CPeerBus::Broadcast(uint32_t uiType) {
  sd_bus_message* pSignal = nullptr;
  sd_bus_message_new_signal(m_pBus, &pSignal, PathOf(uiType).c_str(), kInterface, "Broadcast");
  sd_bus_message_append_array(pSignal, 'y', "", 0);
  const int iResult = sd_bus_send(m_pBus, pSignal, nullptr);
  sd_bus_message_unref(pSignal);
  sd_bus_flush(m_pBus);
  return iResult >= 0 ? "ok" : strerrorname_np(-iResult);
}

void CPeerBus::Serve(int iStatus) {
  sd_bus_add_filter(m_pBus, nullptr, &Answer, &iStatus);
  Process(m_pBus);
}

void CPeerBus::Listen(const FnSay& say) {
  FnSay copy = say;
  sd_bus_add_filter(m_pBus, nullptr, &Heard, &copy);
  sd_bus_match_signal(m_pBus, nullptr, nullptr, nullptr, kInterface, "Broadcast", nullptr, nullptr);
  say("listening");
  Process(m_pBus);
}

std::string RunAs(uid_t uid, const std::function<std::string()>& fn) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  std::fflush(nullptr);  // or the child may write it once more
  const pid_t iPid = fork();
  if (iPid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string str = Become(uid) ? fn() : std::string("cannot become that user");
    (void)!write(fds[1], str.data(), str.size());
    _exit(0);
  }
  close(fds[1]);
  const std::string str = ReadAll(fds[0]);
  close(fds[0]);
  waitpid(iPid, nullptr, 0);
  return str;
}

CPeerProcess::CPeerProcess(uid_t uid, const std::function<void(const FnSay&)>& fn) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  std::fflush(nullptr);
  m_iPid = fork();
  if (m_iPid == 0) {
    close(fds[0]);
    const FnSay say = [&](const std::string& str) {
      (void)!write(fds[1], (str + "\n").data(), str.size() + 1);
    };
    if (!Become(uid))
      say("cannot become that user");
    else
      fn(say);
    _exit(0);
  }
  close(fds[1]);
  m_iFd = fds[0];
  m_strReady = Next();
}

CPeerProcess::~CPeerProcess() {
  kill(m_iPid, SIGKILL);
  waitpid(m_iPid, nullptr, 0);
  close(m_iFd);
}

std::string CPeerProcess::Next() const {
  std::string str;
  char ch = 0;
  while (read(m_iFd, &ch, 1) == 1 && ch != '\n')
    str += ch;
  return str;
}

std::function<void(const FnSay&)> Component(const std::string& strAddress, const std::string& strName,
                                            int iStatus) {
  return [=](const FnSay& say) {
    CPeerBus bus(strAddress);
    say(bus.Connected() == "ok" ? bus.Own(strName) : bus.Connected());
    bus.Serve(iStatus);
  };
}

std::string ComponentName(const std::string& strGuid) {
  std::string str = "com.zxagent.bus1.c.g";
  for (const char ch : strGuid) {
    if (ch != '-')
      str += static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  }
  return str;
}
