// Reads what an agent uploads: the header tags, the body, and what the body is.
// Pure parsers of hostile bytes: any thread, no logging, nothing read past the given length.
#pragma once

#include <string>
#include <string_view>

namespace zxcloudd {

enum class EUploadType { ServerData, PluginData, Tags };

// The texts point into the parsed upload.
struct _UploadHeader {
  EUploadType eType = EUploadType::PluginData;
  std::string_view svMid;
  std::string_view svMid2;
  std::string_view svProduct;
  std::string_view svCombo;
  std::string_view svPartner;
  std::string_view svChannel;
  std::string_view svSysVer;
  std::string_view svVersion;
  std::string_view svBody;  // the wrapped body, or the tag text of an upload of tags
};

// "<mid=..><m2=..><v=2><product=..><combo=..><ipartner=..><pa=linux><pid=..><sysver=..><version=..>", then
// either "<PCServerJasonData=body>" or "<PCPluginJasonData=body>" and "<PCPluginVersion=..>", or
// "<PCPluginVersion=..>" and tags. The body is unescaped and may hold anything; it ends at the last
// "><PCPluginVersion=". False when the text is not of this form.
bool ParseUpload(std::string_view svUpload, _UploadHeader& header);

struct _Ack {
  std::string strID;
  int iMsgType = 0;
};

// An acknowledgement is a JSON object of exactly the members "ID" and "msg_type" (a number, or one written as
// text).
bool ParseAck(std::string_view svBody, _Ack& ack);

const char* TypeName(EUploadType eType);

// What an upload is to an operator: an acknowledgement of a command, the result of a maintenance script, the
// agent's tags, or data of a component.
enum class EUploadKind { Ack, Maint, Tags, Data };

struct _UploadNature {
  EUploadKind eKind = EUploadKind::Data;
  std::string strAbout;    // the command's id, for acknowledgements and results
  std::string strOutcome;  // "3": msg_type; "done 0": state and exit code of a script
};

_UploadNature NatureOf(const _UploadHeader& header);
const char* KindName(EUploadKind eKind);

}  // namespace zxcloudd
