// The maintenance spool below a home: command files in, one result file per command out. Formats:
// docs/maintenance.md.
#pragma once

#include <string>
#include <vector>

#include "zxpmaint/ScriptRunner.h"

struct CMaintCommand {
  std::string strId;
  CScript script;
};

// False with the reason in strError when the text is no command; command.strId is set as soon as it is known.
bool ParseCommand(const std::string& strText, CMaintCommand& command, std::string& strError);
// The result document; output that is not UTF-8 has its bad bytes replaced.
std::string FormatResult(const std::string& strId, const CScriptResult& result, const std::string& strError);

class CSpool {
 public:
  explicit CSpool(std::string strHome);  // ends in "/"

  // Names of waiting commands ("<id>.json"), oldest first. Only the kind that nobody starts the tool for.
  std::vector<std::string> Waiting() const;
  // Claims the command of that name (of either kind), runs it and leaves its result. False: there is no such
  // command, or the result could not be written (reason on stderr); a claimed command is never run twice.
  bool Run(const std::string& strName) const;

 private:
  bool Claim(const std::string& strName, const std::string& strClaimed) const;
  bool WriteResult(const std::string& strDir, const std::string& strName, const std::string& strResult) const;

  std::string m_strBase;  // <home>data/zxpmaint/
};
