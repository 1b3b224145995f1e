// What the database holds, as operations inside a store job. Every function answers false only when the
// database failed; what was decided comes back in the out arguments. Times are wall-clock milliseconds.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "CloudConfig.h"
#include "PollText.h"
#include "UploadText.h"
#include "platform/db/Sqlite.h"

namespace zxcloudd {

using zxdb::CSqlite;
using zxdb::CStatement;
using zxdb::EStep;

// Machines that were ever heard of.
struct _AgentRow {
  std::string strMid, strMid2, strChannel, strLocalIp, strVersion;
  int64_t i64FirstSeen = 0, i64LastSeen = 0, i64LastTconf = 0, i64LastPoll = 0, i64OnlineSince = 0;
  bool bOnline = false;
  int64_t i64Uploads = 0, i64Repeats = 0, i64Pending = 0;
};

struct _TconfIds {
  std::string strMid, strMid2, strChannel, strLocalIp;
  int64_t i64Platform = 0;
};

class CAgentTable {
 public:
  // Notes that the machine was heard; a new one is added unless the table is full (bFull).
  static bool Seen(CSqlite& db, std::string_view svMid, int64_t i64Now, int iMaxAgents, bool& bFull);
  static bool SetTconf(CSqlite& db, const _TconfIds& ids, int64_t i64Now);
  static bool SetPolled(CSqlite& db, std::string_view svMid, int64_t i64Now);
  static bool SetOnline(CSqlite& db, std::string_view svMid, bool bOnline, int64_t i64Now);
  static bool SetAllOffline(CSqlite& db);
  static bool List(CSqlite& db, std::vector<_AgentRow>& listAgents);
  static bool Count(CSqlite& db, int64_t& i64Known, int64_t& i64Online);
};

// Commands and their way. States:
//   queued      waits for the long connection (via auto, push) or the next poll (via auto, poll)
//   publishing  given to the broker, its acknowledgement is outstanding; queued again after a restart
//   pushed      the broker has it
//   offered     was in a poll answer; offered again until acknowledged
//   acked       the agent acknowledged it        refused   acknowledged with msg_type 4
//   expired     offered too often without acknowledgement
struct _NewCommand {
  std::string strID, strMid, strCommand, strText;
  std::string strVia = "auto";  // auto, push, poll
  int iPcid = 0;
};

struct _PushItem {
  int64_t i64Seq = 0;
  std::string strMid, strText;
  int iPcid = 0;
};

struct _CommandEvent {
  int64_t i64At = 0;
  std::string strKind, strDetail;
};

struct _CommandRow {
  int64_t i64Seq = 0, i64Created = 0, i64Finished = 0, i64Offers = 0;
  std::string strID, strMid, strCommand, strVia, strState, strText;
  int iPcid = 0, iMsgType = -1;
  std::vector<_CommandEvent> listEvents;
};

inline constexpr int kMsgTypeNotDone = 4;

class CCommandTable {
 public:
  enum class EInsert { Ok, UnknownAgent, Duplicate, Full };
  static bool Insert(CSqlite& db, const _NewCommand& command, const _LimitConfig& limits, int64_t i64Now,
                     EInsert& eResult);
  // Queued commands for machines that are online, oldest first; they become "publishing".
  static bool TakePushes(CSqlite& db, int iMax, size_t uMaxBytes, int64_t i64Now,
                         std::vector<_PushItem>& listItems);
  static bool SetPushed(CSqlite& db, const std::vector<int64_t>& listSeq, int64_t i64Now);
  static bool RequeuePublishing(CSqlite& db);
  // What one poll answer carries: due commands, oldest first; those offered too often expire.
  static bool TakePoll(CSqlite& db, std::string_view svMid, const _PollConfig& poll, int64_t i64Now,
                       std::vector<_PollItem>& listItems);
  static bool SetAcked(CSqlite& db, std::string_view svMid, const _Ack& ack, const _LimitConfig& limits,
                       int64_t i64Now, bool& bKnown);
  // Every command with this id, with text and events.
  static bool Find(CSqlite& db, std::string_view svID, int iMax, std::vector<_CommandRow>& listCommands);
  // The newest commands of a machine and in a state (empty: any), without text and events.
  static bool List(CSqlite& db, std::string_view svMid, std::string_view svState, int iMax,
                   std::vector<_CommandRow>& listCommands);
  static bool CountStates(CSqlite& db, std::vector<std::pair<std::string, int64_t>>& listStates);
};

struct _NewUpload {
  std::string_view svMid, svMessageId, svUpload;
  const char* pszVia = "mqtt";  // mqtt, https
  int iPriority = 0;
};

struct _UploadRow {
  int64_t i64Seq = 0, i64Received = 0, i64Size = 0;
  int iPriority = 0;
  bool bKept = false;  // the body is still there
  std::string strMid, strMessageId, strVia, strType, strKind, strAbout, strOutcome, strProduct, strCombo,
      strBody;
};

struct _UploadFilter {
  std::string strMid, strKind, strAbout;  // empty: any; about also takes a message id
  // Oldest first: above this sequence number. Newest first: below it, 0 for the newest.
  int64_t i64From = 0;
  bool bNewestFirst = false;
  int iMax = 100;
  int64_t i64BodyMax = 0;  // bytes of each body; 0: none
};

class CUploadTable {
 public:
  // Stores one upload of a known machine, unless its id was stored before (bRepeat).
  static bool Insert(CSqlite& db, const _NewUpload& upload, const _UploadHeader& header,
                     const _LimitConfig& limits, int64_t i64Now, bool& bRepeat);
  // Forgets ids that are too old, and when nine tenths of the database's bound are used, bodies, then ids.
  // Bounded work; due after every (bound / 32) bytes and every few hundred uploads.
  static bool Housekeep(CSqlite& db, const _LimitConfig& limits, int64_t i64Now);
  static bool List(CSqlite& db, const _UploadFilter& filter, std::vector<_UploadRow>& listUploads);
  // One upload with its whole body.
  static bool Get(CSqlite& db, int64_t i64Seq, _UploadRow& row, bool& bFound);
  static bool Count(CSqlite& db, int64_t& i64Received, int64_t& i64Repeats);
};

}  // namespace zxcloudd
