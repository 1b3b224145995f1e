// Names and messages of the forwarder's benchmark on the bare bus.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>

inline constexpr char kBareRelayName[] = "com.zxagent.bus1.benchrelay";
inline constexpr char kBareForwarderName[] = "com.zxagent.bus1.benchforwarder";
inline constexpr char kBarePath[] = "/com/zxagent/bench";
inline constexpr char kBareInterface[] = "com.zxagent.bus1.Component";

// As long as the agent's own record of an upload's result.
struct _BareResult {
  uint32_t uiNumber = 0;
  uint32_t uiStatus = 0;
  uint8_t reserved[24] = {};
};

// A connection that owns the name; null: not there (yet).
inline sd_bus* OpenBareBus(const char* pszAddress, const char* pszName) {
  sd_bus* pBus = nullptr;
  if (sd_bus_new(&pBus) < 0)
    return nullptr;
  if (sd_bus_set_address(pBus, pszAddress) >= 0 && sd_bus_set_bus_client(pBus, 1) >= 0 &&
      sd_bus_start(pBus) >= 0 && sd_bus_request_name(pBus, pszName, 0) >= 0)
    return pBus;
  sd_bus_close_unref(pBus);
  return nullptr;
}

// A call with bytes; its reply goes to the handler.
inline bool SendBare(sd_bus* pBus, const char* pszName, const char* pszMember, const void* pData,
                     size_t uBytes, sd_bus_message_handler_t pfnReply, void* pContext) {
  sd_bus_message* pCall = nullptr;
  const bool bSent =
      sd_bus_message_new_method_call(pBus, &pCall, pszName, kBarePath, kBareInterface, pszMember) >= 0 &&
      sd_bus_message_append_array(pCall, 'y', pData, uBytes) >= 0 &&
      sd_bus_call_async(pBus, nullptr, pCall, pfnReply, pContext, 60000000) >= 0;
  sd_bus_message_unref(pCall);
  return bSent;
}
