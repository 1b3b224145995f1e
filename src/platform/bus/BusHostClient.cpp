// The client of the host object: one connection for one call.
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/bus/BusClock.h"
#include "platform/bus/BusErrors.h"
#include "platform/bus/BusNames.h"
#include "platform/bus/BusWire.h"
#include "platform/bus/zxbus.h"

namespace {

struct CBusUnref {
  void operator()(sd_bus* p) const { sd_bus_close_unref(p); }
};

void SetText(char** ppszAnswer, const char* psz) {
  *ppszAnswer = strdup(psz);
}

uint32_t Failed(int iResult, char** ppszAnswer) {
  SetText(ppszAnswer, std::strerror(-iResult));
  return BusResultOfErrno(iResult);
}

// From an error of the call.
uint32_t ResultOf(const sd_bus_error& error, int iResult, char** ppszAnswer) {
  if (!sd_bus_error_is_set(&error))
    return Failed(iResult, ppszAnswer);
  SetText(ppszAnswer, error.message != nullptr ? error.message : error.name);
  if (iResult == -ETIMEDOUT)
    return kBusErrTimeout;
  return BusResultOfError(error.name);
}

}  // namespace

uint32_t ZxBusCallHost(const char* pszAddress, const char* pszMethod, const char* pszJson, char** ppszAnswer,
                       uint32_t uiTimeoutMs) {
  if (ppszAnswer == nullptr)
    return kBusErrInvalid;
  *ppszAnswer = nullptr;
  if (pszAddress == nullptr || pszMethod == nullptr || pszJson == nullptr)
    return kBusErrInvalid;
  const uint64_t u64TimeoutUs =
      uint64_t{uiTimeoutMs == 0 ? kBusMaxTimeoutMs : std::min(uiTimeoutMs, kBusMaxTimeoutMs)} * 1000;
  sd_bus* pRaw = nullptr;
  int iResult = sd_bus_new(&pRaw);
  const std::unique_ptr<sd_bus, CBusUnref> bus(pRaw);
  if (iResult < 0 || (iResult = sd_bus_set_address(pRaw, pszAddress)) < 0 ||
      (iResult = sd_bus_set_bus_client(pRaw, 1)) < 0 ||
      (iResult = sd_bus_set_method_call_timeout(pRaw, u64TimeoutUs)) < 0 ||
      (iResult = sd_bus_start(pRaw)) < 0)
    return Failed(iResult, ppszAnswer);
  sd_bus_message* pRawCall = nullptr;
  iResult =
      sd_bus_message_new_method_call(pRaw, &pRawCall, kBusHostName, kBusHostPath, kBusHostInterface, "Call");
  const TBusMessage call(pRawCall);
  if (iResult < 0 || (iResult = sd_bus_message_append(pRawCall, "ss", pszMethod, pszJson)) < 0 ||
      (iResult = sd_bus_message_set_auto_start(pRawCall, 0)) < 0)
    return Failed(iResult, ppszAnswer);
  sd_bus_error error{};
  sd_bus_message* pRawReply = nullptr;
  iResult = sd_bus_call(pRaw, pRawCall, u64TimeoutUs, &error, &pRawReply);
  const TBusMessage reply(pRawReply);
  uint32_t uiResult = 0;
  const char* pszAnswer = nullptr;
  if (iResult < 0)
    uiResult = ResultOf(error, iResult, ppszAnswer);
  else if ((iResult = sd_bus_message_read(pRawReply, "s", &pszAnswer)) < 0)
    uiResult = Failed(iResult, ppszAnswer);
  else
    SetText(ppszAnswer, pszAnswer);
  sd_bus_error_free(&error);
  return uiResult;
}
