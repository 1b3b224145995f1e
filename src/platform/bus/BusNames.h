// The bus's words: how GUIDs and types are written as D-Bus names and object paths.
#pragma once

#include <cstdint>
#include <string>

#include "platform/text/Guid.h"

inline constexpr char kBusInterface[] = "com.zxagent.bus1.Component";
inline constexpr char kBusNameSpace[] = "com.zxagent.bus1.c";
inline constexpr char kBusNamePrefix[] = "com.zxagent.bus1.c.g";  // an element must not begin with a digit
inline constexpr char kBusTypeRoot[] = "/com/zxagent/bus1/type";
inline constexpr char kBusHostName[] = "com.zxagent.bus1.host";
inline constexpr char kBusHostPath[] = "/com/zxagent/bus1/host";
inline constexpr char kBusHostInterface[] = "com.zxagent.bus1.Host";

inline constexpr char kDaemonName[] = "org.freedesktop.DBus";
inline constexpr char kDaemonPath[] = "/org/freedesktop/DBus";
inline constexpr char kDaemonInterface[] = "org.freedesktop.DBus";

std::string BusNameOf(const GUID& guid);
// False: not the name of a component. Only the one spelling that BusNameOf gives is accepted.
bool GuidOfBusName(const char* pszName, GUID& guid);
std::string BusPathOf(uint32_t uiType);
bool TypeOfBusPath(const char* pszPath, uint32_t& uiType);
