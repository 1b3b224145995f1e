// A self-made certificate for 127.0.0.1 and "localhost", for the fleet's own server and for brokers that are
// measured with it. Files cert.pem, which also is the CA file, and key.pem.
#pragma once

#include <string>

namespace zxfleet {

struct _FleetCert {
  std::string strCert;
  std::string strKey;
};

// strDir ends in "/" and exists; files that are there already are taken. False with strError set.
bool MakeFleetCert(const std::string& strDir, _FleetCert& cert, std::string& strError);

}  // namespace zxfleet
