#include "platform/bus/BusErrors.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstring>

#include "platform/bus/zxbus.h"

namespace {

struct _ErrorRow {
  const char* pszName;
  uint32_t uiResult;
};

constexpr _ErrorRow kErrors[] = {
    {SD_BUS_ERROR_SERVICE_UNKNOWN, kBusErrNoTarget},
    {SD_BUS_ERROR_NAME_HAS_NO_OWNER, kBusErrNoTarget},
    {SD_BUS_ERROR_UNKNOWN_OBJECT, kBusErrNoReceiver},
    {SD_BUS_ERROR_UNKNOWN_METHOD, kBusErrNoReceiver},
    {SD_BUS_ERROR_UNKNOWN_INTERFACE, kBusErrNoReceiver},
    {SD_BUS_ERROR_ACCESS_DENIED, kBusErrDenied},
    {SD_BUS_ERROR_LIMITS_EXCEEDED, kBusErrBusy},
    {SD_BUS_ERROR_NO_MEMORY, kBusErrBusy},
    {SD_BUS_ERROR_INVALID_ARGS, kBusErrInvalid},
    {SD_BUS_ERROR_INVALID_SIGNATURE, kBusErrInvalid},
    {SD_BUS_ERROR_TIMEOUT, kBusErrTimeout},
    {kErrorNoReply, kBusErrNoReply},
    {kErrorGone, kBusErrGone},
    // The daemon's word for a connection that closed with calls unanswered. Its own time limit lies behind
    // the longest of ours, so a call that is too late has ended already when that one says the same.
    {SD_BUS_ERROR_NO_REPLY, kBusErrGone},
    {SD_BUS_ERROR_DISCONNECTED, kBusErrGone},
};

}  // namespace

uint32_t BusResultOfError(const char* pszName) {
  for (const _ErrorRow& row : kErrors) {
    if (std::strcmp(row.pszName, pszName) == 0)
      return row.uiResult;
  }
  return kBusErrNoReply;  // an exception in a component of another language, for instance
}

uint32_t BusResultOfErrno(int iErrno) {
  switch (iErrno < 0 ? -iErrno : iErrno) {
    case ENOBUFS:
    case ENOMEM:
    case EAGAIN:
      return kBusErrBusy;
    case EMSGSIZE:
      return kBusErrTooLong;
    case EACCES:
    case EPERM:
      return kBusErrDenied;
    case EEXIST:
      return kBusErrTaken;
    case ETIMEDOUT:
      return kBusErrTimeout;
    case EINVAL:
    case EBADMSG:
      return kBusErrInvalid;
    default:
      return kBusErrGone;
  }
}

const char* ErrorOfBusResult(uint32_t uiResult) {
  switch (uiResult) {
    case kBusErrNoReceiver:
      return SD_BUS_ERROR_UNKNOWN_OBJECT;
    case kBusErrBusy:
    case kBusErrTooLong:
      return SD_BUS_ERROR_LIMITS_EXCEEDED;
    case kBusErrDenied:
      return SD_BUS_ERROR_ACCESS_DENIED;
    case kBusErrInvalid:
      return SD_BUS_ERROR_INVALID_ARGS;
    case kBusErrNoReply:
    case kBusErrTimeout:
      return kErrorNoReply;
    default:
      return kErrorGone;
  }
}

const char* TextOfBusResult(uint32_t uiResult) {
  switch (uiResult) {
    case 0:
      return "ok";
    case kBusErrNotInitialized:
      return "not on the bus";
    case kBusErrNoTarget:
      return "nobody on the bus has this GUID";
    case kBusErrNoReceiver:
      return "the component has no receiver for this type";
    case kBusErrTimeout:
      return "no reply within the time given";
    case kBusErrGone:
      return "the component or the bus is gone";
    case kBusErrBusy:
      return "the component is busy, try later";
    case kBusErrTooLong:
      return "too long";
    case kBusErrTaken:
      return "the GUID belongs to another component";
    case kBusErrDenied:
      return "the policy does not allow it";
    case kBusErrInvalid:
      return "not a valid message";
    case kBusErrAborted:
      return "the sender left the bus";
    case kBusErrNoReply:
      return "the component gave no answer";
    default:
      return "unknown result";
  }
}
