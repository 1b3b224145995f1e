// Results of the bus against D-Bus errors. A receiver's own status never travels as one: it is part of an
// ordinary reply.
#pragma once

#include <cstdint>

inline constexpr char kErrorNoReply[] = "com.zxagent.bus1.Error.NoReply";
inline constexpr char kErrorGone[] = "com.zxagent.bus1.Error.Gone";
inline constexpr char kErrorFailed[] = "com.zxagent.bus1.Error.Failed";

uint32_t BusResultOfError(const char* pszName);
uint32_t BusResultOfErrno(int iErrno);
const char* ErrorOfBusResult(uint32_t uiResult);
const char* TextOfBusResult(uint32_t uiResult);
