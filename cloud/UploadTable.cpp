#include <limits>

#include "Tables.h"

namespace zxcloudd {

namespace {

constexpr int64_t kDayMs = 86400000;
constexpr int64_t kIdsPerTurn = 5000;
constexpr int64_t kIdsAtOnce = 500;
constexpr int kBodiesAtOnce = 64;
constexpr int kTurns = 200;            // bounds how long one housekeeping takes
constexpr int64_t kReserveShare = 10;  // a tenth of the database's bound is kept free

// Drops the machine's oldest body; without one bDropped is false.
bool DropBody(CSqlite& db, std::string_view svMid, bool& bDropped) {
  int64_t i64Oldest = 0, i64Size = 0;
  {
    CStatement query = db.Query("SELECT seq, size FROM uploads WHERE mid=? AND kept=1 ORDER BY n LIMIT 1");
    const EStep eStep = query.Bind(svMid).Step();
    bDropped = eStep == EStep::Row;
    if (!bDropped)
      return eStep == EStep::Done;
    i64Oldest = query.Int(0);
    i64Size = query.Int(1);
  }
  return db.Query("UPDATE uploads SET kept=0 WHERE seq=?").Bind(i64Oldest).Run() &&
         db.Query("DELETE FROM bodies WHERE seq=?").Bind(i64Oldest).Run() &&
         db.Query("UPDATE agents SET kept = kept - 1, kept_bytes = kept_bytes - ? WHERE mid=?")
             .Bind(i64Size)
             .Bind(svMid)
             .Run();
}

bool UsedBytes(CSqlite& db, int64_t& i64Used) {
  bool bPages = false, bFree = false, bSize = false;
  const int64_t i64Pages = db.Query("PRAGMA page_count").Number(0, bPages);
  const int64_t i64Free = db.Query("PRAGMA freelist_count").Number(0, bFree);
  i64Used = (i64Pages - i64Free) * db.Query("PRAGMA page_size").Number(0, bSize);
  return bPages && bFree && bSize;
}

// Drops some of the oldest bodies of the machine that has the most; when nobody has any, some of the oldest
// ids.
bool MakeRoom(CSqlite& db) {
  std::string strMid;
  {
    CStatement query = db.Query("SELECT mid FROM agents WHERE kept > 0 ORDER BY kept_bytes DESC LIMIT 1");
    const EStep eStep = query.Step();
    if (eStep == EStep::Error)
      return false;
    if (eStep == EStep::Row)
      strMid = query.Text(0);
  }
  if (strMid.empty()) {
    return db
        .Query(
            "DELETE FROM uploads WHERE seq IN (SELECT seq FROM uploads WHERE kept = 0 ORDER BY received LIMIT ?)")
        .Bind(kIdsAtOnce)
        .Run();
  }
  bool bDropped = true;
  for (int i = 0; bDropped && i < kBodiesAtOnce; ++i) {
    if (!DropBody(db, strMid, bDropped))
      return false;
  }
  return true;
}

// Drops the oldest bodies until both bounds hold, then the ids that are too far back.
bool Prune(CSqlite& db, std::string_view svMid, const _LimitConfig& limits) {
  for (;;) {
    int64_t i64Kept = 0, i64Bytes = 0, i64N = 0;
    {
      CStatement query = db.Query("SELECT kept, kept_bytes, uploads FROM agents WHERE mid=?");
      if (query.Bind(svMid).Step() != EStep::Row)
        return false;
      i64Kept = query.Int(0);
      i64Bytes = query.Int(1);
      i64N = query.Int(2);
    }
    if (i64Kept <= limits.iUploadsPerAgent && i64Bytes <= limits.i64UploadBytesPerAgent) {
      return db.Query("DELETE FROM uploads WHERE mid=? AND n<=? AND kept=0")
          .Bind(svMid)
          .Bind(i64N - limits.iUploadIdsPerAgent)
          .Run();
    }
    bool bDropped = false;
    if (!DropBody(db, svMid, bDropped) || !bDropped)
      return false;
  }
}

}  // namespace

bool CUploadTable::Insert(CSqlite& db, const _NewUpload& upload, const _UploadHeader& header,
                          const _LimitConfig& limits, int64_t i64Now, bool& bRepeat) {
  bool bOk = false;
  bRepeat = db.Query("SELECT 1 FROM uploads WHERE mid=? AND message_id=?")
                .Bind(upload.svMid)
                .Bind(upload.svMessageId)
                .Number(0, bOk) != 0;
  if (!bOk)
    return false;
  if (bRepeat)
    return db.Query("UPDATE agents SET repeats = repeats + 1 WHERE mid=?").Bind(upload.svMid).Run();
  const auto i64Size = static_cast<int64_t>(upload.svUpload.size());
  if (!db.Query("UPDATE agents SET uploads = uploads + 1, kept = kept + 1, kept_bytes = kept_bytes + ?, "
                "version=? WHERE mid=?")
           .Bind(i64Size)
           .Bind(header.svVersion)
           .Bind(upload.svMid)
           .Run())
    return false;
  const _UploadNature nature = NatureOf(header);
  if (!db.Query(
             "INSERT INTO uploads(mid, n, message_id, priority, via, type, kind, about, outcome, product, combo, "
             "received, size, kept) VALUES(?1,(SELECT uploads FROM agents WHERE mid=?1),?,?,?,?,?,?,?,?,?,?,?,1)")
           .Bind(upload.svMid)
           .Bind(upload.svMessageId)
           .Bind(static_cast<int64_t>(upload.iPriority))
           .Bind(upload.pszVia)
           .Bind(TypeName(header.eType))
           .Bind(KindName(nature.eKind))
           .Bind(nature.strAbout)
           .Bind(nature.strOutcome)
           .Bind(header.svProduct)
           .Bind(header.svCombo)
           .Bind(i64Now)
           .Bind(i64Size)
           .Run() ||
      !db.Query("INSERT INTO bodies(seq, body) VALUES(?,?)")
           .Bind(db.LastRowId())
           .BindBlob(upload.svUpload)
           .Run())
    return false;
  return Prune(db, upload.svMid, limits);
}

bool CUploadTable::Housekeep(CSqlite& db, const _LimitConfig& limits, int64_t i64Now) {
  if (!db.Query(
             "DELETE FROM uploads WHERE seq IN (SELECT u.seq FROM uploads u JOIN agents a ON a.mid = u.mid "
             "WHERE u.kept = 0 AND u.received < ? AND u.n <= a.uploads - ? LIMIT ?)")
           .Bind(i64Now - limits.iUploadIdDays * kDayMs)
           .Bind(static_cast<int64_t>(kUploadIdsAlways))
           .Bind(kIdsPerTurn)
           .Run())
    return false;
  const int64_t i64Target = limits.i64StoreBytes - limits.i64StoreBytes / kReserveShare;
  for (int i = 0; i < kTurns; ++i) {
    int64_t i64Used = 0;
    if (!UsedBytes(db, i64Used))
      return false;
    if (i64Used <= i64Target)
      return true;
    if (!MakeRoom(db))
      return false;
  }
  return true;
}

namespace {

constexpr const char* kColumns =
    "SELECT u.seq, u.received, u.size, u.priority, u.mid, u.message_id, u.via, u.type, u.kind, u.about, u.outcome, "
    "u.product, u.combo, u.kept FROM uploads u ";

_UploadRow ReadRow(const CStatement& query) {
  _UploadRow row;
  row.i64Seq = query.Int(0);
  row.i64Received = query.Int(1);
  row.i64Size = query.Int(2);
  row.iPriority = static_cast<int>(query.Int(3));
  row.strMid = query.Text(4);
  row.strMessageId = query.Text(5);
  row.strVia = query.Text(6);
  row.strType = query.Text(7);
  row.strKind = query.Text(8);
  row.strAbout = query.Text(9);
  row.strOutcome = query.Text(10);
  row.strProduct = query.Text(11);
  row.strCombo = query.Text(12);
  row.bKept = query.Int(13) != 0;
  return row;
}

bool ReadBody(CSqlite& db, int64_t i64Max, _UploadRow& row) {
  CStatement query = db.Query("SELECT substr(body, 1, ?) FROM bodies WHERE seq=?");
  const EStep eStep = query.Bind(i64Max).Bind(row.i64Seq).Step();
  if (eStep == EStep::Row)
    row.strBody = query.Text(0);
  return eStep != EStep::Error;
}

}  // namespace

bool CUploadTable::List(CSqlite& db, const _UploadFilter& filter, std::vector<_UploadRow>& listUploads) {
  // Two orders of one query; with a kind or without decides which index serves it.
  const std::string strSql =
      std::string(kColumns) + "WHERE " + (filter.strKind.empty() ? "?1 = ''" : "u.kind = ?1") +
      " AND (?2 = '' OR u.mid = ?2) AND (?3 = '' OR u.about = ?3 OR u.message_id = ?3) AND " +
      (filter.bNewestFirst ? "(?4 = 0 OR u.seq < ?4) ORDER BY u.seq DESC" : "u.seq > ?4 ORDER BY u.seq") +
      " LIMIT ?5";
  {
    CStatement query = db.Query(strSql.c_str());
    query.Bind(filter.strKind).Bind(filter.strMid).Bind(filter.strAbout).Bind(filter.i64From);
    query.Bind(static_cast<int64_t>(filter.iMax));
    EStep eStep = EStep::Done;
    while ((eStep = query.Step()) == EStep::Row)
      listUploads.push_back(ReadRow(query));
    if (eStep == EStep::Error)
      return false;
  }
  for (_UploadRow& row : listUploads) {
    if (filter.i64BodyMax > 0 && row.bKept && !ReadBody(db, filter.i64BodyMax, row))
      return false;
  }
  return true;
}

bool CUploadTable::Get(CSqlite& db, int64_t i64Seq, _UploadRow& row, bool& bFound) {
  {
    CStatement query = db.Query((std::string(kColumns) + "WHERE u.seq=?").c_str());
    const EStep eStep = query.Bind(i64Seq).Step();
    bFound = eStep == EStep::Row;
    if (!bFound)
      return eStep == EStep::Done;
    row = ReadRow(query);
  }
  return !row.bKept || ReadBody(db, std::numeric_limits<int32_t>::max(), row);
}

bool CUploadTable::Count(CSqlite& db, int64_t& i64Received, int64_t& i64Repeats) {
  CStatement query = db.Query("SELECT COALESCE(SUM(uploads),0), COALESCE(SUM(repeats),0) FROM agents");
  if (query.Step() != EStep::Row)
    return false;
  i64Received = query.Int(0);
  i64Repeats = query.Int(1);
  return true;
}

}  // namespace zxcloudd
