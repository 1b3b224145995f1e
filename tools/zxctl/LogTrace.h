// Finds one command's way through an agent's logs: the records that name its id, and those of the same
// process that carry the data id it was given. Pure apart from reading the files; nothing here logs.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zxctl {

// One log line with the lines that continue it.
struct _LogRecord {
  int64_t i64AtMs = 0;
  int iLevel = 0, iPid = 0, iTid = 0;
  std::string strChannel, strText;
};

// "YYYY-MM-DD HH:MM:SS.mmm +ZZZZ [level] [pid:tid] text"; false when the line does not begin so.
bool ParseLogLine(std::string_view svLine, _LogRecord& record);
// Splits a log into records; text before the first head is dropped.
std::vector<_LogRecord> SplitLog(const std::string& strChannel, std::string_view svLog);
// svID stands in svText and is not a part of a longer id.
bool NamesId(std::string_view svText, std::string_view svID);
// The value of "name[value]" in a record's text, empty without.
std::string FieldOf(std::string_view svText, std::string_view svName);

// The records about one command, oldest first.
std::vector<_LogRecord> SelectCommand(const std::vector<_LogRecord>& listRecords, const std::string& strID);
// The logs of a home: the last 16 MiB of every *.log in its folders (HomeLogs.h). False: strError says what
// cannot be read.
bool ReadHomeLogs(const std::string& strHome, std::vector<_LogRecord>& listRecords, std::string& strError);

struct _Hop {
  int64_t i64AtMs = 0;
  int iRank = 0;  // where the step stands on a command's way; orders steps of one millisecond
  std::string strWhere, strWhat, strText;
};
inline constexpr int kRankCloudOut = 0;
inline constexpr int kRankAgentIn = 10;
inline constexpr int kRankComponent = 20;
inline constexpr int kRankAgentOut = 30;
inline constexpr int kRankCloudIn = 40;

// What a record means for a reader; false for records that are no step of their own.
bool HopOf(const _LogRecord& record, _Hop& hop);
// By time, within a millisecond by rank, otherwise as they came.
void SortHops(std::vector<_Hop>& listHops);

}  // namespace zxctl
