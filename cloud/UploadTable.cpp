#include "Tables.h"

namespace zxcloudd {

namespace {

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
      return db.Query("DELETE FROM uploads WHERE mid=? AND n<=? AND body IS NULL")
          .Bind(svMid)
          .Bind(i64N - limits.iUploadIdsPerAgent)
          .Run();
    }
    int64_t i64Oldest = 0, i64Size = 0;
    {
      CStatement query =
          db.Query("SELECT seq, size FROM uploads WHERE mid=? AND body IS NOT NULL ORDER BY n LIMIT 1");
      if (query.Bind(svMid).Step() != EStep::Row)
        return false;
      i64Oldest = query.Int(0);
      i64Size = query.Int(1);
    }
    if (!db.Query("UPDATE uploads SET body=NULL WHERE seq=?").Bind(i64Oldest).Run() ||
        !db.Query("UPDATE agents SET kept = kept - 1, kept_bytes = kept_bytes - ? WHERE mid=?")
             .Bind(i64Size)
             .Bind(svMid)
             .Run())
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
  if (!db.Query(
             "INSERT INTO uploads(mid, n, message_id, priority, via, kind, product, combo, received, size, body) "
             "VALUES(?1,(SELECT uploads FROM agents WHERE mid=?1),?,?,?,?,?,?,?,?,?)")
           .Bind(upload.svMid)
           .Bind(upload.svMessageId)
           .Bind(static_cast<int64_t>(upload.iPriority))
           .Bind(upload.pszVia)
           .Bind(KindName(header.eKind))
           .Bind(header.svProduct)
           .Bind(header.svCombo)
           .Bind(i64Now)
           .Bind(i64Size)
           .BindBlob(upload.svUpload)
           .Run())
    return false;
  return Prune(db, upload.svMid, limits);
}

bool CUploadTable::List(CSqlite& db, std::string_view svMid, int64_t i64After, int iMax,
                        std::vector<_UploadRow>& listUploads) {
  CStatement query = db.Query(
      "SELECT seq, received, size, priority, mid, message_id, via, kind, product, combo, substr(body,1,65536) "
      "FROM uploads WHERE seq > ?1 AND (?2 = '' OR mid = ?2) ORDER BY seq LIMIT ?3");
  query.Bind(i64After).Bind(svMid).Bind(static_cast<int64_t>(iMax));
  EStep eStep = EStep::Done;
  while ((eStep = query.Step()) == EStep::Row) {
    _UploadRow row;
    row.i64Seq = query.Int(0);
    row.i64Received = query.Int(1);
    row.i64Size = query.Int(2);
    row.iPriority = static_cast<int>(query.Int(3));
    row.strMid = query.Text(4);
    row.strMessageId = query.Text(5);
    row.strVia = query.Text(6);
    row.strKind = query.Text(7);
    row.strProduct = query.Text(8);
    row.strCombo = query.Text(9);
    row.strBody = query.Text(10);
    listUploads.push_back(std::move(row));
  }
  return eStep == EStep::Done;
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
