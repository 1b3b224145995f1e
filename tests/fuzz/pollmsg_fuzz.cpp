// The poll envelope: XML, base64 and the commands inside it.
#include <string>

#include "fuzz/CommandTarget.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const std::string strXml(reinterpret_cast<const char*>(pData), uSize);
  CCommandTarget::Mgr().ZxcloudPollmsg(0, strXml.c_str());
  return 0;
}
