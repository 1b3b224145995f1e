#include "platform/configproxy/ComsConfig.h"

#include <cjson/cJSON.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr uintmax_t kManifestMaxBytes = 1u << 20;

struct CJsonDelete {
  void operator()(cJSON* pJson) const { cJSON_Delete(pJson); }
};
using TJson = std::unique_ptr<cJSON, CJsonDelete>;

std::vector<fs::path> ComponentDirectories(const fs::path& client) {
  std::vector<fs::path> dirs;
  std::error_code ec;
  for (fs::directory_iterator it(client, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code ecEntry;
    if (it->is_directory(ecEntry))
      dirs.push_back(it->path());
  }
  std::sort(dirs.begin(), dirs.end());
  return dirs;
}

TJson LoadManifest(const fs::path& file) {
  std::error_code ec;
  if (!fs::is_regular_file(file, ec) || fs::file_size(file, ec) > kManifestMaxBytes || ec)
    return nullptr;
  std::ifstream stream(file, std::ios::binary);
  std::string str(kManifestMaxBytes, '\0');
  stream.read(str.data(), static_cast<std::streamsize>(str.size()));
  if (stream.bad())
    return nullptr;
  return TJson(cJSON_ParseWithLength(str.data(), static_cast<size_t>(stream.gcount())));
}

const char* TextOf(const cJSON* pObject, const char* pszName) {
  const char* psz = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(pObject, pszName));
  return psz != nullptr && *psz != '\0' ? psz : nullptr;
}

bool AddPlugin(cJSON* pList, const cJSON* pPlugin) {
  const char* pszId = TextOf(pPlugin, "id");
  const char* pszProduct = TextOf(pPlugin, "product");
  const char* pszCombo = TextOf(pPlugin, "combo");
  if (pszId == nullptr || pszProduct == nullptr || pszCombo == nullptr)
    return true;
  TJson entry(cJSON_CreateObject());
  if (entry == nullptr || cJSON_AddStringToObject(entry.get(), "id", pszId) == nullptr ||
      cJSON_AddStringToObject(entry.get(), "product", pszProduct) == nullptr ||
      cJSON_AddStringToObject(entry.get(), "combo", pszCombo) == nullptr ||
      cJSON_AddNumberToObject(entry.get(), "status", 1) == nullptr ||
      cJSON_AddItemToArray(pList, entry.get()) == 0)
    return false;
  (void)entry.release();  // the array owns it now
  return true;
}

}  // namespace

std::string ListInstalledPlugins(const std::string& strHome) {
  const TJson root(cJSON_CreateObject());
  cJSON* pList = cJSON_AddArrayToObject(root.get(), "list");
  if (pList == nullptr)
    return {};
  for (const fs::path& dir : ComponentDirectories(fs::path(strHome) / "etc/coms/client")) {
    const TJson manifest = LoadManifest(dir / "config.json");
    const cJSON* pPlugin = nullptr;
    cJSON_ArrayForEach(pPlugin, cJSON_GetObjectItemCaseSensitive(manifest.get(), "plugins")) {
      if (!AddPlugin(pList, pPlugin))
        return {};
    }
  }
  const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(root.get()), &cJSON_free);
  return text != nullptr ? std::string(text.get()) : std::string();
}
