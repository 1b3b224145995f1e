#include "Tables.h"

namespace zxcloudd {

bool CAgentTable::Seen(CSqlite& db, std::string_view svMid, int64_t i64Now, int iMaxAgents, bool& bFull) {
  bFull = false;
  if (!db.Query("UPDATE agents SET last_seen=? WHERE mid=?").Bind(i64Now).Bind(svMid).Run())
    return false;
  if (db.Changes() > 0)
    return true;
  bool bOk = false;
  if (db.Query("SELECT COUNT(*) FROM agents").Number(0, bOk) >= iMaxAgents) {
    bFull = true;
    return bOk;
  }
  return bOk && db.Query("INSERT INTO agents(mid, first_seen, last_seen) VALUES(?,?,?)")
                    .Bind(svMid)
                    .Bind(i64Now)
                    .Bind(i64Now)
                    .Run();
}

bool CAgentTable::SetTconf(CSqlite& db, const _TconfIds& ids, int64_t i64Now) {
  return db.Query("UPDATE agents SET m2=?, channel=?, local_ip=?, platform=?, last_tconf=? WHERE mid=?")
      .Bind(ids.strMid2)
      .Bind(ids.strChannel)
      .Bind(ids.strLocalIp)
      .Bind(ids.i64Platform)
      .Bind(i64Now)
      .Bind(ids.strMid)
      .Run();
}

bool CAgentTable::SetPolled(CSqlite& db, std::string_view svMid, int64_t i64Now) {
  return db.Query("UPDATE agents SET last_poll=? WHERE mid=?").Bind(i64Now).Bind(svMid).Run();
}

bool CAgentTable::SetOnline(CSqlite& db, std::string_view svMid, bool bOnline, int64_t i64Now) {
  // The retained state arrives again with every reconnect to the broker; since when stays.
  return db
      .Query(
          "UPDATE agents SET online_since = CASE WHEN ?1 = 0 THEN 0 WHEN online_since = 0 THEN ?2 "
          "ELSE online_since END, online=?1 WHERE mid=?3")
      .Bind(static_cast<int64_t>(bOnline ? 1 : 0))
      .Bind(i64Now)
      .Bind(svMid)
      .Run();
}

bool CAgentTable::SetAllOffline(CSqlite& db) {
  return db.Query("UPDATE agents SET online=0 WHERE online=1").Run();
}

bool CAgentTable::List(CSqlite& db, std::vector<_AgentRow>& listAgents) {
  CStatement query = db.Query(
      "SELECT mid, m2, channel, local_ip, version, first_seen, last_seen, last_tconf, last_poll, "
      "online_since, online, uploads, repeats, (SELECT COUNT(*) FROM commands c WHERE c.mid = a.mid AND "
      "c.state IN ('queued','publishing','pushed','offered')) FROM agents a ORDER BY mid");
  EStep eStep = EStep::Done;
  while ((eStep = query.Step()) == EStep::Row) {
    _AgentRow row;
    row.strMid = query.Text(0);
    row.strMid2 = query.Text(1);
    row.strChannel = query.Text(2);
    row.strLocalIp = query.Text(3);
    row.strVersion = query.Text(4);
    row.i64FirstSeen = query.Int(5);
    row.i64LastSeen = query.Int(6);
    row.i64LastTconf = query.Int(7);
    row.i64LastPoll = query.Int(8);
    row.bOnline = query.Int(10) != 0;
    row.i64OnlineSince = row.bOnline ? query.Int(9) : 0;
    row.i64Uploads = query.Int(11);
    row.i64Repeats = query.Int(12);
    row.i64Pending = query.Int(13);
    listAgents.push_back(std::move(row));
  }
  return eStep == EStep::Done;
}

bool CAgentTable::Count(CSqlite& db, int64_t& i64Known, int64_t& i64Online) {
  bool bKnown = false, bOnline = false;
  i64Known = db.Query("SELECT COUNT(*) FROM agents").Number(0, bKnown);
  i64Online = db.Query("SELECT COUNT(*) FROM agents WHERE online = 1").Number(0, bOnline);
  return bKnown && bOnline;
}

}  // namespace zxcloudd
