// The machine's user table. Blocking: whatever it is kept in. Any thread.
#pragma once

#include <sys/types.h>

#include "platform/text/PString.h"

// False: there is no such user, or the table cannot be read.
bool FindSystemUser(const CPString& strUser, uid_t& uid, gid_t& gid);
