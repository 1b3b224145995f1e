// Talks to the operator interface of a cloud (docs/zxcloudd.md). Blocking; one thread.
#pragma once

#include <string>

namespace zxctl {

struct _CloudAddress {
  std::string strUrl;  // http://127.0.0.1:port
  std::string strToken;
};

// From <strRunDir>/zxcloudd.json, which a running zxcloudd keeps there. On failure strError says why.
bool AddressFromRunDir(const std::string& strRunDir, _CloudAddress& address, std::string& strError);
bool TokenFromFile(const std::string& strFile, std::string& strToken, std::string& strError);

struct _Answer {
  int iStatus = 0;  // HTTP status; 0: the cloud could not be reached
  std::string strBody;
  std::string strError;  // why it could not be reached
};

class CCloudClient {
 public:
  explicit CCloudClient(_CloudAddress address);
  ~CCloudClient();
  CCloudClient(const CCloudClient&) = delete;
  CCloudClient& operator=(const CCloudClient&) = delete;

  _Answer Get(const std::string& strPath);
  _Answer Post(const std::string& strPath, const std::string& strJson);
  static std::string Escape(const std::string& str);  // one path segment

 private:
  _Answer Perform(const std::string& strPath, const std::string* pstrJson);

  const _CloudAddress m_address;
  void* m_pCurl;
};

}  // namespace zxctl
