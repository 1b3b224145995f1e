// Runs one script in a process group of its own, with a time limit and capped output.
// Threads: one call at a time per process (the process becomes the reaper of the script's orphans). Blocks
// until the script and everything it started is gone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct CScript {
  std::string strInterpreter = "/bin/sh";  // reads the script from a file, which need not be executable
  std::vector<std::string> args;           // behind the script file
  std::string strText;
  uint32_t uTimeoutMs = 60000;
  size_t uMaxOutputBytes = 65536;  // kept of each stream; the rest is read and dropped
};

struct CScriptResult {
  enum class EState { Done, Timeout, Failed };
  EState eState = EState::Failed;
  int iExitCode = -1;  // of a script that ended by itself
  int iSignal = 0;     // that ended it
  int iError = 0;      // errno, when it could not be started
  uint64_t u64DurationMs = 0;
  std::string strStdout;
  std::string strStderr;
  bool bTruncated = false;
};

// strWorkDir: an existing private directory; the script's current directory and the place of its file. The
// environment is PATH, HOME (the working directory) and LANG only.
CScriptResult RunScript(const CScript& script, const std::string& strWorkDir);
