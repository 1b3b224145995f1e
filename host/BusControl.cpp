#include "BusControl.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <memory>

namespace {

struct CBusClose {
  void operator()(sd_bus* pBus) const { sd_bus_close_unref(pBus); }
};
using TBus = std::unique_ptr<sd_bus, CBusClose>;

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

}  // namespace

bool ReloadBusConfig(const CPString& strAddress, uint32_t uiTimeoutMs, CPString& strError) {
  const TBus bus = Connect(strAddress, strError);
  if (bus == nullptr)
    return false;
  sd_bus_message* pCall = nullptr;
  int iResult =
      sd_bus_message_new_method_call(bus.get(), &pCall, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus", "ReloadConfig");
  sd_bus_error error{};
  if (iResult >= 0)
    iResult = sd_bus_call(bus.get(), pCall, uint64_t{uiTimeoutMs} * 1000, &error, nullptr);
  if (iResult < 0)
    strError = "ReloadConfig: " + (error.message != nullptr ? CPString(error.message) : ErrorText(iResult));
  sd_bus_error_free(&error);
  sd_bus_message_unref(pCall);
  return iResult >= 0;
}
