#include "platform/configproxy/ConfigProxy.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

class ConfigProxy : public testing::Test {
 protected:
  ConfigProxy() {
    char szTemplate[] = "/tmp/zxcfg.XXXXXX";
    m_home = mkdtemp(szTemplate);
  }
  ~ConfigProxy() override {
    std::error_code ec;
    fs::remove_all(m_home, ec);
  }

  void Manifest(const std::string& strDirectory, const std::string& strText) {
    const fs::path dir = m_home / "etc/coms/client" / strDirectory;
    fs::create_directories(dir);
    std::ofstream(dir / "config.json", std::ios::binary) << strText;
  }
  static std::string Plugin(const std::string& strId) {
    return R"({"id":")" + strId + R"(","uuid":"u","product":"P","combo":"C-)" + strId +
           R"(","version":"1","name":"n"})";
  }
  static std::string Entry(const std::string& strId) {
    return R"({"id":")" + strId + R"(","product":"P","combo":"C-)" + strId + R"(","status":1})";
  }
  std::string List(IConfigProxy& proxy) {
    CConfigValue out, in;
    const int iResult = proxy.GetConfig(kCfgItemPlugins, &out, &in, 0);
    EXPECT_EQ(iResult, kCfgOk);
    if (iResult != kCfgOk)
      return {};
    EXPECT_EQ(out.iTag, kCfgTagText);
    const std::string str = static_cast<const char*>(out.pData);
    free(out.pData);
    return str;
  }
  std::string List() {
    CConfigProxy proxy(m_home.string());
    return List(proxy);
  }

  fs::path m_home;
};

TEST_F(ConfigProxy, List_IsEmpty_WithoutAnyComponent) {
  EXPECT_EQ(List(), R"({"list":[]})");
  fs::create_directories(m_home / "etc/coms/client");
  EXPECT_EQ(List(), R"({"list":[]})");
}

TEST_F(ConfigProxy, List_IsInDirectoryOrder_ThenDocumentOrder) {
  Manifest("zeta", R"({"plugins":[)" + Plugin("Z") + "]}");
  Manifest("alpha", R"({"plugins":[)" + Plugin("A2") + "," + Plugin("A1") + "]}");
  EXPECT_EQ(List(), R"({"list":[)" + Entry("A2") + "," + Entry("A1") + "," + Entry("Z") + "]}");
}

TEST_F(ConfigProxy, List_SkipsBrokenManifests) {
  Manifest("a", "");
  Manifest("b", "{not json");
  Manifest("c", R"({"plugins":7})");
  Manifest("d", R"([1,2])");
  Manifest("e", R"({"Plugins":[)" + Plugin("wrong key") + "]}");
  Manifest("f", std::string((1u << 20) + 1, ' '));
  Manifest("g", R"({"plugins":[)" + std::string(5000, '['));
  fs::create_directories(m_home / "etc/coms/client/h/config.json");  // a directory
  fs::create_directories(m_home / "etc/coms/client/i");              // nothing in it
  fs::create_symlink("/nonexistent", m_home / "etc/coms/client/j");
  std::ofstream(m_home / "etc/coms/client/file") << "not a directory";
  Manifest("z", R"({"plugins":[)" + Plugin("ok") + "]}");
  EXPECT_EQ(List(), R"({"list":[)" + Entry("ok") + "]}");
}

TEST_F(ConfigProxy, List_SkipsEntriesThatNameNoComponent) {
  Manifest("a", R"({"plugins":[7,null,"x",{},{"id":"I","product":"P"},{"id":"","product":"P","combo":"C"},)"
                R"({"id":1,"product":"P","combo":"C"},)" +
                    Plugin("ok") + "]}");
  EXPECT_EQ(List(), R"({"list":[)" + Entry("ok") + "]}");
}

TEST_F(ConfigProxy, List_EscapesWhatItCopies) {
  Manifest("a", R"({"plugins":[{"id":"I","product":"a\"b\\c\u0001","combo":"C"}]})");
  EXPECT_EQ(List(), R"({"list":[{"id":"I","product":"a\"b\\c\u0001","combo":"C","status":1}]})");
}

TEST_F(ConfigProxy, GetConfig_RefusesOtherItemsAndNoOutput) {
  CConfigProxy proxy(m_home.string());
  CConfigValue out, in;
  for (const int iItem : {0, 1, 4, 6, -1}) {
    EXPECT_NE(proxy.GetConfig(iItem, &out, &in, 0), kCfgOk);
    EXPECT_EQ(out.pData, nullptr);
  }
  EXPECT_NE(proxy.GetConfig(kCfgItemPlugins, nullptr, &in, 0), kCfgOk);
  EXPECT_EQ(proxy.GetConfig(kCfgItemPlugins, &out, nullptr, 0), kCfgOk);
  free(out.pData);
  EXPECT_NE(proxy.SetConfigEx("key", &in, &out, 0), kCfgOk);
}

// The library as the registry loads it: its home is two directories above its own.
TEST_F(ConfigProxy, Library_FindsItsHome_AndChecksTheVersion) {
  const fs::path module = m_home / "lib/modules/libconfigproxy.so";
  fs::create_directories(module.parent_path());
  fs::copy_file(ZX_CONFIGPROXY_SO, module);
  Manifest("a", R"({"plugins":[)" + Plugin("ok") + "]}");

  void* hLib = dlopen(module.c_str(), RTLD_LAZY);
  ASSERT_NE(hLib, nullptr) << dlerror();
  const auto pfnCreate = reinterpret_cast<PFNCFGCreateInstance>(dlsym(hLib, "CFGCreateInstance"));
  const auto pfnRelease = reinterpret_cast<PFNCFGRelease>(dlsym(hLib, "CFGRelease"));
  ASSERT_NE(pfnCreate, nullptr);
  ASSERT_NE(pfnRelease, nullptr);
  EXPECT_EQ(pfnCreate("2.0.0"), nullptr);
  EXPECT_EQ(pfnCreate(nullptr), nullptr);
  IConfigProxy* pProxy = pfnCreate("1.0.0");
  ASSERT_NE(pProxy, nullptr);
  EXPECT_EQ(List(*pProxy), R"({"list":[)" + Entry("ok") + "]}");
  pfnRelease(pProxy);
  pfnRelease(nullptr);
  dlclose(hLib);
}

}  // namespace
