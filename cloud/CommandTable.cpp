#include "Tables.h"

namespace zxcloudd {

namespace {

constexpr int64_t kEventsMax = 64;  // per command; a machine may acknowledge as often as it likes
constexpr size_t kPollBytesMax = 4u << 20;

bool AddEvent(CSqlite& db, int64_t i64Seq, const char* pszKind, const std::string& strDetail,
              int64_t i64Now) {
  if (!db.Query("UPDATE commands SET events = events + 1 WHERE seq=? AND events < ?")
           .Bind(i64Seq)
           .Bind(kEventsMax)
           .Run())
    return false;
  return db.Changes() == 0 || db.Query("INSERT INTO events(command, at, kind, detail) VALUES(?,?,?,?)")
                                  .Bind(i64Seq)
                                  .Bind(i64Now)
                                  .Bind(pszKind)
                                  .Bind(strDetail)
                                  .Run();
}

bool Expire(CSqlite& db, std::string_view svMid, const _PollConfig& poll, int64_t i64Now) {
  std::vector<int64_t> listSeq;
  {
    CStatement query =
        db.Query("SELECT seq FROM commands WHERE mid=? AND state='offered' AND offers>=? AND next_offer<=?");
    query.Bind(svMid).Bind(static_cast<int64_t>(poll.iMaxOffers)).Bind(i64Now);
    EStep eStep = EStep::Done;
    while ((eStep = query.Step()) == EStep::Row)
      listSeq.push_back(query.Int(0));
    if (eStep == EStep::Error)
      return false;
  }
  for (const int64_t i64Seq : listSeq) {
    if (!db.Query("UPDATE commands SET state='expired', finished=? WHERE seq=?")
             .Bind(i64Now)
             .Bind(i64Seq)
             .Run() ||
        !AddEvent(db, i64Seq, "expired", "", i64Now))
      return false;
  }
  return true;
}

bool ReadEvents(CSqlite& db, _CommandRow& row) {
  CStatement query = db.Query("SELECT at, kind, detail FROM events WHERE command=? ORDER BY rowid");
  query.Bind(row.i64Seq);
  EStep eStep = EStep::Done;
  while ((eStep = query.Step()) == EStep::Row)
    row.listEvents.push_back({query.Int(0), query.Text(1), query.Text(2)});
  return eStep == EStep::Done;
}

}  // namespace

bool CCommandTable::Insert(CSqlite& db, const _NewCommand& command, const _LimitConfig& limits,
                           int64_t i64Now, EInsert& eResult) {
  bool bAgent = false, bSame = false, bPending = false;
  const int64_t i64Agent =
      db.Query("SELECT 1 FROM agents WHERE mid=?").Bind(command.strMid).Number(0, bAgent);
  const int64_t i64Same = db.Query("SELECT 1 FROM commands WHERE mid=? AND id=?")
                              .Bind(command.strMid)
                              .Bind(command.strID)
                              .Number(0, bSame);
  const int64_t i64Pending = db.Query(
                                   "SELECT COUNT(*) FROM commands WHERE mid=? AND "
                                   "state IN ('queued','publishing','pushed','offered')")
                                 .Bind(command.strMid)
                                 .Number(0, bPending);
  if (!bAgent || !bSame || !bPending)
    return false;
  eResult = i64Agent == 0                           ? EInsert::UnknownAgent
            : i64Same != 0                          ? EInsert::Duplicate
            : i64Pending >= limits.iPendingPerAgent ? EInsert::Full
                                                    : EInsert::Ok;
  if (eResult != EInsert::Ok)
    return true;
  return db.Query(
               "INSERT INTO commands(id, mid, pcid, command, body, via, state, created) "
               "VALUES(?,?,?,?,?,?,'queued',?)")
             .Bind(command.strID)
             .Bind(command.strMid)
             .Bind(static_cast<int64_t>(command.iPcid))
             .Bind(command.strCommand)
             .Bind(command.strText)
             .Bind(command.strVia)
             .Bind(i64Now)
             .Run() &&
         AddEvent(db, db.LastRowId(), "created", "via " + command.strVia, i64Now);
}

bool CCommandTable::TakePushes(CSqlite& db, int iMax, size_t uMaxBytes, int64_t i64Now,
                               std::vector<_PushItem>& listItems) {
  {
    CStatement query = db.Query(
        "SELECT c.seq, c.mid, c.body, c.pcid FROM agents a CROSS JOIN commands c ON c.mid = a.mid "
        "WHERE a.online = 1 AND c.state = 'queued' AND c.via <> 'poll' ORDER BY c.seq LIMIT ?");
    query.Bind(static_cast<int64_t>(iMax));
    EStep eStep = EStep::Done;
    for (size_t uBytes = 0; uBytes < uMaxBytes && (eStep = query.Step()) == EStep::Row;) {
      listItems.push_back({query.Int(0), query.Text(1), query.Text(2), static_cast<int>(query.Int(3))});
      uBytes += listItems.back().strText.size();
    }
    if (eStep == EStep::Error)
      return false;
  }
  for (const _PushItem& item : listItems) {
    if (!db.Query("UPDATE commands SET state='publishing' WHERE seq=?").Bind(item.i64Seq).Run() ||
        !AddEvent(db, item.i64Seq, "published", "to the broker", i64Now))
      return false;
  }
  return true;
}

bool CCommandTable::SetPushed(CSqlite& db, const std::vector<int64_t>& listSeq, int64_t i64Now) {
  for (const int64_t i64Seq : listSeq) {
    // The agent's acknowledgement can be faster than the broker's.
    if (!db.Query("UPDATE commands SET state='pushed' WHERE seq=? AND state='publishing'")
             .Bind(i64Seq)
             .Run() ||
        !AddEvent(db, i64Seq, "pushed", "broker has it", i64Now))
      return false;
  }
  return true;
}

bool CCommandTable::RequeuePublishing(CSqlite& db) {
  return db.Query("UPDATE commands SET state='queued' WHERE state='publishing'").Run();
}

bool CCommandTable::TakePoll(CSqlite& db, std::string_view svMid, const _PollConfig& poll, int64_t i64Now,
                             std::vector<_PollItem>& listItems) {
  if (!Expire(db, svMid, poll, i64Now))
    return false;
  {
    CStatement query = db.Query(
        "SELECT seq, pcid, body FROM commands WHERE mid=? AND state IN ('queued','offered') AND "
        "via <> 'push' AND next_offer <= ? ORDER BY seq LIMIT ?");
    query.Bind(svMid).Bind(i64Now).Bind(static_cast<int64_t>(poll.iMaxCommands));
    EStep eStep = EStep::Done;
    for (size_t uBytes = 0; uBytes < kPollBytesMax && (eStep = query.Step()) == EStep::Row;) {
      listItems.push_back({static_cast<int>(query.Int(1)), query.Int(0), query.Text(2)});
      uBytes += listItems.back().strText.size();
    }
    if (eStep == EStep::Error)
      return false;
  }
  for (const _PollItem& item : listItems) {
    if (!db.Query("UPDATE commands SET state='offered', offers = offers + 1, next_offer=? WHERE seq=?")
             .Bind(i64Now + poll.iReofferSec * 1000ll)
             .Bind(item.i64Seq)
             .Run() ||
        !AddEvent(db, item.i64Seq, "offered", "in a poll answer", i64Now))
      return false;
  }
  return true;
}

bool CCommandTable::SetAcked(CSqlite& db, std::string_view svMid, const _Ack& ack, const _LimitConfig& limits,
                             int64_t i64Now, bool& bKnown) {
  bool bOk = false;
  const int64_t i64Seq =
      db.Query("SELECT seq FROM commands WHERE mid=? AND id=?").Bind(svMid).Bind(ack.strID).Number(0, bOk);
  bKnown = i64Seq != 0;
  if (!bOk || !bKnown)
    return bOk;
  // A command with two components is acknowledged twice; a success is not undone by what follows.
  const char* pszState = ack.iMsgType == kMsgTypeNotDone ? "refused" : "acked";
  if (!db.Query("UPDATE commands SET state=?, msg_type=?, finished=? WHERE seq=? AND state <> 'acked'")
           .Bind(pszState)
           .Bind(static_cast<int64_t>(ack.iMsgType))
           .Bind(i64Now)
           .Bind(i64Seq)
           .Run() ||
      !AddEvent(db, i64Seq, "acked", "msg_type " + std::to_string(ack.iMsgType), i64Now))
    return false;
  return db
      .Query(
          "DELETE FROM commands WHERE seq IN (SELECT seq FROM commands WHERE mid=?1 AND seq <> ?2 AND "
          "state IN ('acked','refused','expired') ORDER BY seq DESC LIMIT -1 OFFSET ?3)")
      .Bind(svMid)
      .Bind(i64Seq)
      .Bind(static_cast<int64_t>(limits.iFinishedPerAgent))
      .Run();
}

namespace {

bool ReadRows(CStatement& query, bool bText, std::vector<_CommandRow>& listCommands) {
  EStep eStep = EStep::Done;
  while ((eStep = query.Step()) == EStep::Row) {
    _CommandRow row;
    row.i64Seq = query.Int(0);
    row.i64Created = query.Int(1);
    row.i64Finished = query.Int(2);
    row.i64Offers = query.Int(3);
    row.strID = query.Text(4);
    row.strMid = query.Text(5);
    row.strCommand = query.Text(6);
    row.strVia = query.Text(7);
    row.strState = query.Text(8);
    row.iPcid = static_cast<int>(query.Int(9));
    row.iMsgType = static_cast<int>(query.Int(10));
    if (bText)
      row.strText = query.Text(11);
    listCommands.push_back(std::move(row));
  }
  return eStep == EStep::Done;
}

}  // namespace

bool CCommandTable::Find(CSqlite& db, std::string_view svID, int iMax,
                         std::vector<_CommandRow>& listCommands) {
  {
    CStatement query = db.Query(
        "SELECT seq, created, finished, offers, id, mid, command, via, state, pcid, msg_type, body FROM commands "
        "WHERE id = ? ORDER BY seq DESC LIMIT ?");
    query.Bind(svID).Bind(static_cast<int64_t>(iMax));
    if (!ReadRows(query, true, listCommands))
      return false;
  }
  for (_CommandRow& row : listCommands) {
    if (!ReadEvents(db, row))
      return false;
  }
  return true;
}

bool CCommandTable::List(CSqlite& db, std::string_view svMid, std::string_view svState, int iMax,
                         std::vector<_CommandRow>& listCommands) {
  CStatement query = db.Query(
      "SELECT seq, created, finished, offers, id, mid, command, via, state, pcid, msg_type FROM commands "
      "WHERE (?1 = '' OR mid = ?1) AND (?2 = '' OR state = ?2) ORDER BY seq DESC LIMIT ?3");
  query.Bind(svMid).Bind(svState).Bind(static_cast<int64_t>(iMax));
  return ReadRows(query, false, listCommands);
}

bool CCommandTable::CountStates(CSqlite& db, std::vector<std::pair<std::string, int64_t>>& listStates) {
  CStatement query = db.Query("SELECT state, COUNT(*) FROM commands GROUP BY state ORDER BY state");
  EStep eStep = EStep::Done;
  while ((eStep = query.Step()) == EStep::Row)
    listStates.emplace_back(query.Text(0), query.Int(1));
  return eStep == EStep::Done;
}

}  // namespace zxcloudd
