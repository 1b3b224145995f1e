// What the log-cache forwarder is told: etc/zxlogcache.json. Plain values; read once at the start.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zxlogcache {

enum class EBody { Json, Lines, Record };  // how records become the body of a log cache
enum class EFraming { Lines, Octets };     // how a byte stream is cut into records
enum class EWhenFull { DropOldest, Refuse };

struct _SocketSettings {
  std::string strPath;  // absolute
  mode_t mode = 0660;
  bool bStream = false;
  EFraming eFraming = EFraming::Lines;
  bool bAck = false;        // stream only: "ok <records>" after each commit
  std::vector<uid_t> uids;  // who may send; empty: whoever the mode lets in
};

struct _FileSettings {
  std::string strPath;  // absolute
  bool bFromEnd = false;
};

struct _SourceSettings {
  std::string strName;
  std::string strGuid;  // of the plug-in that the log caches speak for
  std::string strProduct;
  std::string strCombo;
  int iPriv = 1;
  int iMsgType = 2;
  EBody eBody = EBody::Json;
  std::vector<_SocketSettings> sockets;
  std::vector<_FileSettings> files;
};

struct _Settings {
  std::vector<_SourceSettings> sources;
  uint64_t u64MaxBytes = 256u << 20;
  int64_t i64MaxAgeMs = 7ll * 24 * 3600 * 1000;
  EWhenFull eWhenFull = EWhenFull::DropOldest;
  uint32_t uiBatchBytes = 256u << 10;
  uint32_t uiLingerMs = 1000;
  uint32_t uiWindow = 32;
  uint32_t uiRetryMinMs = 1000;
  uint32_t uiRetryMaxMs = 60000;
  uint32_t uiResultTimeoutMs = 180000;
  uint32_t uiMaxRecordBytes = 64u << 10;
  uint32_t uiMaxClients = 64;
};

// The text of the configuration file. Relative paths are taken below strFolder, those of sockets below
// strSocketFolder (both end in "/"). An empty text gives one source "local" without inputs. False: strError
// says what is wrong; settings is unspecified.
bool ParseSettings(std::string_view text, const std::string& strFolder, const std::string& strSocketFolder,
                   _Settings& settings, std::string& strError);

}  // namespace zxlogcache
