// Records that several folders share. Plain values.
#pragma once

#include <cstdint>

#include "platform/text/PString.h"

struct _GuidProductCombo {
  CPString strGuid;  // text as written in the source
  CPString strProduct;
  CPString strCombo;
};

struct _ProductCombo {
  CPString strProduct;
  CPString strCombo;
};

// What maps by product and combo are keyed with: "product/combo" in lower case.
inline CPString ProductComboKey(const CPString& strProduct, const CPString& strCombo) {
  CPString strKey = strProduct;
  strKey += '/';
  strKey += strCombo;
  strKey.ToLower();
  return strKey;
}

// Cloud addresses and connect status, mirrored in etc/zxagent/zxcloud.json.
struct _ZxCloudData {
  CPString strLbAddr;
  CPString strTconfAddr;
  CPString strShortAddrLocal;
  CPString strShortAddrRemote;
  CPString strLongAddrLocal;
  CPString strLongAddrRemote;
  int bConnectStatus = 0;
};

// Machine id and the hardware facts behind it; first = when the id was made, last = at the latest refresh.
struct _MidInfoData {
  CPString strMid1;
  CPString strMid2;
  CPString strMidFirstSn;
  CPString strMidFirstDisk;
  CPString strMidFirstMac;
  CPString strFirstAllMac;
  CPString strMidLastSn;
  CPString strMidLastDisk;
  CPString strMidLastMac;
  CPString strLastAllMac;
};

// etc/version.xml; each member is the element of the same name.
struct _VersionXml {
  CPString strCurrentVer;
  CPString strSystemName;
  CPString strAppId;
  CPString strArch;
  CPString strPkgType;
  CPString strPkgEnv;
  CPString strCloudProduct;
  CPString strCloudCombo;
  CPString strUpdateRootDir;
  CPString strUpdateTempDir;
  CPString strUpdateUrl;
  unsigned int dwUpdateIniTimeout = 0;
  unsigned int dwUpdateOtherTimeout = 0;
};

// One entry of a per-client component file.
struct _ComboConfig {
  CPString strPluginId;
  CPString strUuid;
  CPString strProduct;
  CPString strCombo;
  CPString strName;
  CPString strVersion;
  CPString strStatus;
};

// A command handed to a component whose answer is still to come. Owned by the bus callback once sent.
struct _SendTaskMgrData {
  int iResult = -1;  // the component's result; 0 = success
  unsigned long long ui64ACT = 0;
  unsigned long long u64DataId = 0;
  CPString strProduct;
  CPString strCombo;
  CPString strID;
  CPString strCommand;
};
