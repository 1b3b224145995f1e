// The host's own log channel "zxhost", and its echo on standard error.
#pragma once

#include "RecentLines.h"
#include "platform/log/Log.h"
#include "platform/text/PString.h"

extern HLog g_hHostLog;  // null until OpenHostLog; set before any thread starts

// Opens the channel below the home, also as the default logger's. bEcho copies its lines to standard error.
void OpenHostLog(const CPString& strHome, bool bEcho);
// What the channels of this process warned about last.
CRecentLines& RecentLines();
// Ends the process at once with what was logged so far on disk, or without it when that takes too long. For
// the cases in which some thread may never come back.
[[noreturn]] void ExitNow(int iCode);
// SIGALRM kills the process in so many seconds, whatever its threads wait for. A later call replaces it.
void ArmAlarm(unsigned uSeconds);
