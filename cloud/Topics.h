// Topics and payload frame of the long connection. Pure parsers of hostile bytes.
#pragma once

#include <string>
#include <string_view>

namespace zxcloudd {

enum class ETopic { Upload, Status };

struct _Topic {
  ETopic eKind = ETopic::Upload;
  std::string strMid;
  int iPriority = 0;  // uploads only
};

inline constexpr const char* kTopicUploads = "zx/v1/+/up/+";
inline constexpr const char* kTopicStatus = "zx/v1/+/status";

// "zx/v1/<mid>/up/<priority>" or "zx/v1/<mid>/status".
bool ParseTopic(std::string_view svTopic, _Topic& topic);
// "zx1 <message id>" LF body. The parts point into the payload.
bool ParseUploadPayload(std::string_view svPayload, std::string_view& svMessageId, std::string_view& svBody);
// {"online":1} or {"online":0}.
bool ParseStatusPayload(std::string_view svPayload, bool& bOnline);
std::string PushTopic(const std::string& strMid, int iPcid);

// Where a machine hears that its uploads are on disk.
std::string ConfirmTopic(const std::string& strMid);

}  // namespace zxcloudd
