#include "LogTrace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>
#include <set>

#include "HomeLogs.h"
#include "Table.h"

namespace zxctl {

namespace {

constexpr int64_t kTailBytes = 16 << 20;
constexpr size_t kHeadLength = sizeof("2026-01-01 00:00:00.000 +0000 ") - 1;

bool Digits(std::string_view sv, size_t uAt, size_t uCount, int& iValue) {
  if (uAt + uCount > sv.size())
    return false;
  const auto result = std::from_chars(sv.data() + uAt, sv.data() + uAt + uCount, iValue);
  return result.ec == std::errc() && result.ptr == sv.data() + uAt + uCount;
}

// "[12]" or "[12:34]" at uAt; uAt moves behind it and the blank that follows.
bool Bracket(std::string_view sv, size_t& uAt, int& iFirst, int* piSecond) {
  const size_t uEnd = uAt < sv.size() && sv[uAt] == '[' ? sv.find("] ", uAt) : std::string_view::npos;
  if (uEnd == std::string_view::npos)
    return false;
  const std::string_view svInner = sv.substr(uAt + 1, uEnd - uAt - 1);
  const size_t uColon = svInner.find(':');
  uAt = uEnd + 2;
  if (piSecond == nullptr)
    return Digits(svInner, 0, svInner.size(), iFirst);
  return uColon != std::string_view::npos && Digits(svInner, 0, uColon, iFirst) &&
         Digits(svInner, uColon + 1, svInner.size() - uColon - 1, *piSecond);
}

bool IsIdChar(char ch) {
  return (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || ch == '_' ||
         ch == '-' || ch == '.';
}

bool Contains(std::string_view sv, std::string_view svPart) {
  return sv.find(svPart) != std::string_view::npos;
}

struct _Phrase {
  const char* pszPart;   // stands in the record
  const char* pszWhat;   // what it means
  const char* pszField;  // appended: the value of this field, when there is one
  int iRank;
};

// The steps of a command inside the agent, by the texts that mark them.
constexpr _Phrase kPhrases[] = {
    {"ZxcloudPushmsgCallback recv", "received over the long connection", nullptr, kRankAgentIn},
    {"CAgentMgr::ZxcloudPollmsg recv message", "received by polling", nullptr, kRankAgentIn},
    {"pushmsg Begin recvnew", "numbered, data id", "u64DataId", kRankAgentIn + 1},
    {"pushmsg send taskmgr Begin", "handed over for component", "strGuid", kRankAgentIn + 3},
    {"pushmsg send taskmgr End OK", "the bus has taken it", nullptr, kRankAgentIn + 4},
    {"pushmsg InnerCommand OK", "done by the agent itself", nullptr, kRankAgentIn + 3},
    {"pushmsg MaintCommand OK", "given to the maintenance tool", nullptr, kRankAgentIn + 3},
    {"SendPushMsgData Error GetCommandGuid", "no route for command", "strCommand", kRankAgentIn + 3},
    {"CAgentMgr::SendResponseMsg OK", "acknowledgement given to the link", nullptr, kRankAgentOut},
    {"pushmsg callback OK", "the component's success is noted", nullptr, kRankAgentOut + 1},
};

}  // namespace

bool ParseLogLine(std::string_view svLine, _LogRecord& record) {
  struct tm tmLine {};
  int iMs = 0, iZoneHours = 0, iZoneMinutes = 0;
  const bool bHead =
      svLine.size() > kHeadLength && Digits(svLine, 0, 4, tmLine.tm_year) && svLine[4] == '-' &&
      Digits(svLine, 5, 2, tmLine.tm_mon) && svLine[7] == '-' && Digits(svLine, 8, 2, tmLine.tm_mday) &&
      svLine[10] == ' ' && Digits(svLine, 11, 2, tmLine.tm_hour) && svLine[13] == ':' &&
      Digits(svLine, 14, 2, tmLine.tm_min) && svLine[16] == ':' && Digits(svLine, 17, 2, tmLine.tm_sec) &&
      svLine[19] == '.' && Digits(svLine, 20, 3, iMs) && svLine[23] == ' ' &&
      (svLine[24] == '+' || svLine[24] == '-') && Digits(svLine, 25, 2, iZoneHours) &&
      Digits(svLine, 27, 2, iZoneMinutes) && svLine[29] == ' ';
  size_t uAt = kHeadLength;
  if (!bHead || !Bracket(svLine, uAt, record.iLevel, nullptr) ||
      !Bracket(svLine, uAt, record.iPid, &record.iTid))
    return false;
  tmLine.tm_year -= 1900;
  tmLine.tm_mon -= 1;
  const int64_t i64Zone = (iZoneHours * 60ll + iZoneMinutes) * 60;
  const int64_t i64Sec = timegm(&tmLine) - (svLine[24] == '-' ? -i64Zone : i64Zone);
  record.i64AtMs = i64Sec * 1000 + iMs;
  record.strText = svLine.substr(uAt);
  return true;
}

std::vector<_LogRecord> SplitLog(const std::string& strChannel, std::string_view svLog) {
  std::vector<_LogRecord> listRecords;
  while (!svLog.empty()) {
    const size_t uEnd = std::min(svLog.find('\n'), svLog.size());
    const std::string_view svLine = svLog.substr(0, uEnd);
    svLog.remove_prefix(std::min(uEnd + 1, svLog.size()));
    _LogRecord record;
    if (ParseLogLine(svLine, record)) {
      record.strChannel = strChannel;
      listRecords.push_back(std::move(record));
    } else if (!listRecords.empty()) {
      listRecords.back().strText.append("\n").append(svLine);
    }
  }
  return listRecords;
}

bool NamesId(std::string_view svText, std::string_view svID) {
  for (size_t uAt = 0; !svID.empty() && (uAt = svText.find(svID, uAt)) != std::string_view::npos; ++uAt) {
    const size_t uEnd = uAt + svID.size();
    if ((uAt == 0 || !IsIdChar(svText[uAt - 1])) && (uEnd == svText.size() || !IsIdChar(svText[uEnd])))
      return true;
  }
  return false;
}

std::string FieldOf(std::string_view svText, std::string_view svName) {
  for (size_t uAt = 0; (uAt = svText.find(svName, uAt)) != std::string_view::npos; ++uAt) {
    const size_t uOpen = uAt + svName.size();
    const bool bStart = uAt == 0 || svText[uAt - 1] == ' ';
    const size_t uClose = svText.find(']', uOpen);
    if (bStart && uOpen < svText.size() && svText[uOpen] == '[' && uClose != std::string_view::npos)
      return std::string(svText.substr(uOpen + 1, uClose - uOpen - 1));
  }
  return {};
}

std::vector<_LogRecord> SelectCommand(const std::vector<_LogRecord>& listRecords, const std::string& strID) {
  // Data ids start again with every process, so they count only together with the process id.
  std::set<std::pair<int, std::string>> setDataIds;
  for (const _LogRecord& record : listRecords) {
    const std::string strDataId = FieldOf(record.strText, "u64DataId");
    if (!strDataId.empty() && NamesId(record.strText, strID))
      setDataIds.emplace(record.iPid, strDataId);
  }
  std::vector<_LogRecord> listSelected;
  for (const _LogRecord& record : listRecords) {
    const std::string strDataId = FieldOf(record.strText, "u64DataId");
    const bool bByData = !strDataId.empty() && setDataIds.count({record.iPid, strDataId}) != 0;
    if (bByData || (strDataId.empty() && NamesId(record.strText, strID)))
      listSelected.push_back(record);
  }
  std::stable_sort(listSelected.begin(), listSelected.end(),
                   [](const _LogRecord& a, const _LogRecord& b) { return a.i64AtMs < b.i64AtMs; });
  return listSelected;
}

namespace {

bool ReadTail(const std::string& strFile, bool bFollow, std::string& strData) {
  const int fd =
      open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (bFollow ? 0 : O_NOFOLLOW));
  if (fd < 0)
    return false;
  const std::unique_ptr<FILE, int (*)(FILE*)> pFile(fdopen(fd, "r"), &std::fclose);
  struct stat st {};
  if (pFile == nullptr || fstat(fd, &st) != 0)
    return false;
  errno = EINVAL;
  const int64_t i64From = std::max<int64_t>(0, st.st_size - kTailBytes);
  if (!S_ISREG(st.st_mode) || fseeko(pFile.get(), i64From, SEEK_SET) != 0)
    return false;
  strData.resize(static_cast<size_t>(st.st_size - i64From));
  strData.resize(std::fread(strData.data(), 1, strData.size(), pFile.get()));
  return true;
}

}  // namespace

bool ReadHomeLogs(const std::string& strHome, std::vector<_LogRecord>& listRecords, std::string& strError) {
  if (LogFolders(strHome).empty()) {
    strError = strHome + "/log/: " + ErrnoText(errno);
    return false;
  }
  for (const std::string& strName : LogFiles(strHome)) {
    std::string strData;
    const bool bOwnFolder = IsOwnLogFolder(strName);
    if (!strName.ends_with(".log"))
      continue;
    if (!ReadTail(strHome + "/" + strName, !bOwnFolder, strData)) {
      if (bOwnFolder)  // what a component puts there does not hide the others
        continue;
      strError = strHome + "/" + strName + ": " + ErrnoText(errno);
      return false;
    }
    for (_LogRecord& record : SplitLog(LogChannel(strName), strData))
      listRecords.push_back(std::move(record));
  }
  return true;
}

bool HopOf(const _LogRecord& record, _Hop& hop) {
  hop.i64AtMs = record.i64AtMs;
  hop.strWhere = record.strChannel;
  hop.strText = record.strText;
  hop.strWhat.clear();
  if (record.strChannel == "zxagentflow") {
    hop.strWhat = "noted in the flow log";
    hop.iRank = kRankAgentIn + 2;
    return true;
  }
  for (const _Phrase& phrase : kPhrases) {
    if (!Contains(record.strText, phrase.pszPart))
      continue;
    hop.strWhat = phrase.pszWhat;
    hop.iRank = phrase.iRank;
    const std::string strField = phrase.pszField != nullptr ? FieldOf(record.strText, phrase.pszField) : "";
    if (!strField.empty())
      hop.strWhat += " " + strField;
    return true;
  }
  // Components speak for themselves; of the agent and its link only failures are steps.
  const bool bAgent =
      record.strChannel == "zxagent" || record.strChannel == "zxcloud" || record.strChannel == "zxlogcache";
  if (bAgent && (record.strText.empty() || record.strText.front() != '*'))
    return false;
  hop.strWhat = record.strText.substr(0, record.strText.find('\n'));
  hop.iRank = bAgent ? kRankAgentOut : kRankComponent;
  return true;
}

void SortHops(std::vector<_Hop>& listHops) {
  std::stable_sort(listHops.begin(), listHops.end(), [](const _Hop& a, const _Hop& b) {
    return a.i64AtMs != b.i64AtMs ? a.i64AtMs < b.i64AtMs : a.iRank < b.iRank;
  });
}

}  // namespace zxctl
