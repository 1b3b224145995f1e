#include "FleetLinks.h"

#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>
#include <utility>

namespace zxfleet {

namespace {

constexpr size_t kStoppers = 16;  // threads that stop links at the same time

std::atomic<uint32_t> g_uConnected{0};
std::atomic<uint64_t> g_u64Warnings{0};

int OnConnect(const char*, unsigned short) {
  ++g_uConnected;
  return 0;
}

int OnDisconnect() {
  --g_uConnected;
  return 0;
}

void OnLog(int, int iLevel, const char*) {
  if (iLevel >= 2)
    ++g_u64Warnings;
}

}  // namespace

CFleetLinks::CFleetLinks(_FleetLinkSettings settings) : m_settings(std::move(settings)) {}

CFleetLinks::~CFleetLinks() {
  Stop();
}

bool CFleetLinks::WriteConfig(uint32_t uLink, std::string& strFile) const {
  const std::string strName = m_settings.strDir + std::to_string(uLink);
  strFile = strName + ".json";
  std::ofstream file(strFile);
  file << "{\"tconf\":{\"tconf_url\":\"" << m_settings.strTconf << "\"},\"zxcloudconf\":{\"ca_file\":\""
       << m_settings.strCaFile << "\",\"db_path\":\"" << strName << ".db\"}}";
  return file.good();
}

bool CFleetLinks::Start(uint32_t dwOverMs, std::string& strError) {
  const timespec pause{0, static_cast<long>(uint64_t{dwOverMs} * 1000000 / m_settings.uLinks % 1000000000)};
  for (uint32_t i = 0; i < m_settings.uLinks; ++i) {
    std::string strFile;
    zxcloud::_CloudConfig config;
    if (!WriteConfig(i, strFile)) {
      strError = strFile + ": " + strerrordesc_np(errno);
      return false;
    }
    if (!zxcloud::LoadCloudConfig(strFile, "", config, strError))
      return false;
    zxcloud::_CloudOptions options;
    options.Merge("mid=" + m_settings.strMidPrefix + std::to_string(i) + ":allow_debug=0");
    zxcloud_record record{};
    record.config_path = strFile.c_str();
    record.channel_id = "fleet";
    record.connect = OnConnect;
    record.disconnect = OnDisconnect;
    record.log = OnLog;
    m_list.push_back(
        std::make_unique<zxcloud::CCloudLink>(record, std::move(config), options, m_settings.times));
    if (m_list.back()->Start() != 0) {
      strError = "link " + std::to_string(i) + " does not start: out of threads, descriptors or memory";
      return false;
    }
    nanosleep(&pause, nullptr);
  }
  return true;
}

void CFleetLinks::Stop() {
  std::vector<std::thread> threads;
  for (size_t uFirst = 0; uFirst < kStoppers; ++uFirst) {
    threads.emplace_back([this, uFirst] {
      for (size_t i = uFirst; i < m_list.size(); i += kStoppers)
        m_list[i]->Stop();
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  m_list.clear();
  g_uConnected.store(0);
}

uint32_t CFleetLinks::SendEach(size_t uBytes) {
  const std::string strData(uBytes, 'x');
  uint32_t uAccepted = 0;
  for (const auto& pLink : m_list)
    uAccepted += pLink->Send(strData, 2) == 0 ? 1 : 0;
  return uAccepted;
}

uint32_t CFleetLinks::Connected() {
  return g_uConnected.load();
}

uint64_t CFleetLinks::WarningLines() {
  return g_u64Warnings.load();
}

}  // namespace zxfleet
