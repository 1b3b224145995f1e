// A store in a temporary directory with one known machine, and texts as agents write them.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "cloud/Store.h"
#include "cloud/Tables.h"
#include "support/TempHome.h"

namespace zxcloudd {

inline constexpr const char* kMid = "0123456789abcdef0123456789abcdef";

inline std::string UploadText(const std::string& strBody, const std::string& strMid = kMid,
                              const std::string& strKey = "PCPluginJasonData") {
  return "<mid=" + strMid +
         "><m2=second><v=2><product=veltcwpp><combo=zxsample><ipartner=demo><pa=linux><pid=h_home>"
         "<sysver=debian 12><version=1.2.3><" +
         strKey + "=" + strBody + "><PCPluginVersion=1.0.0.2005>";
}

class CStoreTest : public testing::Test {
 protected:
  void SetUp() override {
    Reopen();
    bool bFull = true;
    ASSERT_TRUE(m_pStore->Run([&](CSqlite& db) { return CAgentTable::Seen(db, kMid, 1000, 10, bFull); }));
    ASSERT_FALSE(bFull);
  }
  void Reopen() {
    m_pStore.reset();
    m_pStore = std::make_unique<CStore>();
    std::string strError;
    ASSERT_TRUE(m_pStore->Open(StateDir(), strError)) << strError;
  }
  std::string StateDir() const { return m_home.Path("state").Str(); }
  bool Run(const CStore::TJob& job) { return m_pStore->Run(job); }

  CTempHome m_home;
  std::unique_ptr<CStore> m_pStore;
};

}  // namespace zxcloudd
