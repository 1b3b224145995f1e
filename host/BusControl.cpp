#include "BusControl.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <memory>

#include "platform/os/ZxTime.h"

namespace {

constexpr const char* kDaemon = "org.freedesktop.DBus";
constexpr const char* kDaemonPath = "/org/freedesktop/DBus";
constexpr std::string_view kComponentPrefix = "com.zxagent.bus1.c.g";

struct CBusClose {
  void operator()(sd_bus* pBus) const { sd_bus_close_unref(pBus); }
};
using TBus = std::unique_ptr<sd_bus, CBusClose>;

struct CMessageUnref {
  void operator()(sd_bus_message* pMessage) const { sd_bus_message_unref(pMessage); }
};
using TMessage = std::unique_ptr<sd_bus_message, CMessageUnref>;

CPString ErrorText(int iError) {
  return std::strerror(-iError);  // NOLINT(concurrency-mt-unsafe)
}

TBus Connect(const CPString& strAddress, CPString& strError) {
  sd_bus* pBus = nullptr;
  int iResult = sd_bus_new(&pBus);
  TBus bus(pBus);
  if (iResult >= 0)
    iResult = sd_bus_set_address(pBus, strAddress.c_str());
  if (iResult >= 0)
    iResult = sd_bus_set_bus_client(pBus, 1);
  if (iResult >= 0)
    iResult = sd_bus_start(pBus);
  if (iResult >= 0)
    return bus;
  strError = ErrorText(iResult);
  return nullptr;
}

// A call of the daemon's own interface; pszArgument may be null. Null with strError.
TMessage Call(sd_bus* pBus, const char* pszMethod, const char* pszArgument, uint64_t u64DeadlineMs,
              CPString& strError) {
  sd_bus_message* pCall = nullptr;
  int iResult = sd_bus_message_new_method_call(pBus, &pCall, kDaemon, kDaemonPath, kDaemon, pszMethod);
  const TMessage call(pCall);
  if (iResult >= 0 && pszArgument != nullptr)
    iResult = sd_bus_message_append(pCall, "s", pszArgument);
  const uint64_t u64NowMs = ZxGetTickCount();
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* pReply = nullptr;
  if (iResult >= 0 && u64NowMs >= u64DeadlineMs)
    iResult = -ETIMEDOUT;
  if (iResult >= 0)
    iResult = sd_bus_call(pBus, pCall, (u64DeadlineMs - u64NowMs) * 1000, &error, &pReply);
  if (iResult < 0)
    strError = CPString(pszMethod) + ": " +
               (error.message != nullptr ? CPString(error.message) : ErrorText(iResult));
  sd_bus_error_free(&error);
  return TMessage(iResult < 0 ? nullptr : pReply);
}

void ReadCredentials(sd_bus_message* pReply, _BusOwner& owner) {
  const char* pszKey = nullptr;
  if (sd_bus_message_enter_container(pReply, 'a', "{sv}") < 0)
    return;
  while (sd_bus_message_enter_container(pReply, 'e', "sv") > 0 &&
         sd_bus_message_read(pReply, "s", &pszKey) > 0) {
    uint32_t uiValue = 0;
    const bool bPid = std::strcmp(pszKey, "ProcessID") == 0;
    if (bPid || std::strcmp(pszKey, "UnixUserID") == 0) {
      if (sd_bus_message_read(pReply, "v", "u", &uiValue) > 0) {
        if (bPid)
          owner.iPid = static_cast<pid_t>(uiValue);
        else
          owner.uid = uiValue;
      }
    } else {
      sd_bus_message_skip(pReply, "v");
    }
    sd_bus_message_exit_container(pReply);
  }
}

}  // namespace

bool ReloadBusConfig(const CPString& strAddress, uint32_t uiTimeoutMs, CPString& strError) {
  const TBus bus = Connect(strAddress, strError);
  return bus != nullptr &&
         Call(bus.get(), "ReloadConfig", nullptr, ZxGetTickCount() + uiTimeoutMs, strError) != nullptr;
}

bool ListBusOwners(const CPString& strAddress, uint32_t uiTimeoutMs, std::vector<_BusOwner>& owners,
                   CPString& strError) {
  const uint64_t u64DeadlineMs = ZxGetTickCount() + uiTimeoutMs;
  const TBus bus = Connect(strAddress, strError);
  const TMessage names =
      bus != nullptr ? Call(bus.get(), "ListNames", nullptr, u64DeadlineMs, strError) : nullptr;
  if (names == nullptr || sd_bus_message_enter_container(names.get(), 'a', "s") < 0)
    return false;
  const char* pszName = nullptr;
  while (sd_bus_message_read(names.get(), "s", &pszName) > 0) {
    if (std::string_view(pszName).starts_with(kComponentPrefix))
      owners.push_back({pszName, 0, 0});
  }
  for (_BusOwner& owner : owners) {
    // One that left meanwhile stays in the list without its numbers.
    const TMessage reply =
        Call(bus.get(), "GetConnectionCredentials", owner.strName.c_str(), u64DeadlineMs, strError);
    if (reply != nullptr)
      ReadCredentials(reply.get(), owner);
    else if (ZxGetTickCount() >= u64DeadlineMs)
      return false;
  }
  return true;
}
