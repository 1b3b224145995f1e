// The spool's file as it comes and goes: opened, found damaged and mended, given up for a while.
#include <algorithm>
#include <utility>

#include "platform/cloud/Spool.h"
#include "platform/cloud/zxcloud.h"

namespace zxcloud {

void CSpool::EnsureOpen() {
  if (m_file.IsOpen())
    return;
  const uint64_t u64Now = m_ports.clock.NowMs();
  const bool bAsked = !m_listBatch.empty() && u64Now - m_u64LastOpen >= m_times.dwReopenFirst;
  if (u64Now < m_due.u64Open && !bAsked)
    return;
  m_u64LastOpen = u64Now;
  m_due.u64Open = 0;
  const ESpoolResult eResult = OpenOrSalvage();
  if (eResult != ESpoolResult::Ok)
    Unusable(eResult);
}

ESpoolResult CSpool::OpenOrSalvage() {
  FinishSalvage(m_settings.strFile, m_ports.wall.NowSec());
  CSpoolFile::TFound listFound;
  ESpoolResult eResult = m_file.Open(m_settings.bFull, listFound);
  if (eResult == ESpoolResult::Damaged) {
    eResult = Salvage();
    if (eResult == ESpoolResult::Ok)
      eResult = m_file.Open(m_settings.bFull, listFound);
  }
  if (eResult == ESpoolResult::Ok)
    Opened(listFound);
  return eResult;
}

// The file is closed. Afterwards it is to be opened again.
ESpoolResult CSpool::Salvage() {
  const std::string strWhy = m_file.Reason();
  const auto Report = [&](const _Salvage& salvage) {
    m_ports.outbox.RowsUpTo(salvage.u64NewestRow);
    return _SalvageReport{
        m_ports.outbox.NextRow(), kDamageReportPriority, static_cast<uint32_t>(NowSec()), m_ports.fnId(),
        "{\"zxcloud\":\"spool_damaged\",\"time\":" + std::to_string(m_ports.wall.NowSec()) + ",\"file\":\"" +
            salvage.strAside + "\",\"saved\":" + std::to_string(salvage.u64Saved) +
            ",\"lost\":" + std::to_string(salvage.u64Lost) + "}"};
  };
  _Salvage salvage;
  std::string strReason;
  if (!SalvageSpool(m_settings.strFile, m_ports.wall.NowSec(), Report, salvage, strReason)) {
    if (m_quietDamage.Due(m_ports.clock.NowMs()))
      m_ports.log.LogError("**zxcloud spool damaged and not set aside file[%s] why[%s] reason[%s]",
                           m_settings.strFile, strWhy, strReason);
    return ESpoolResult::Failed;
  }
  m_u64Damaged.fetch_add(salvage.u64Lost);
  m_ports.log.LogError("**zxcloud spool damaged, set aside file[%s] as[%s] why[%s] saved[%llu] lost[%llu]",
                       m_settings.strFile, salvage.strAside, strWhy, salvage.u64Saved, salvage.u64Lost);
  return ESpoolResult::Ok;
}

void CSpool::Opened(const CSpoolFile::TFound& listFound) {
  uint32_t uNewestCreated = 0;
  for (const auto& [iQueue, entry] : listFound)
    uNewestCreated = std::max(uNewestCreated, entry.uCreatedSec);
  Advance(uNewestCreated);
  m_ports.outbox.RowsUpTo(m_file.NewestRow());
  // What the index held of this file without a body comes from the file again.
  m_uBytes.fetch_sub(m_ports.outbox.DropUnloaded().uCost);
  const _SpoolCount count = m_ports.outbox.Recover(listFound);
  m_uBytes.fetch_add(count.uCost);
  const bool bNews = m_eMode.exchange(EMode::Ready) == EMode::Unavailable;
  if (bNews || count.uRecords != 0)
    m_ports.log.LogInfo("zxcloud spool open file[%s] records[%u] bytes[%llu]", m_settings.strFile,
                        static_cast<uint32_t>(count.uRecords), static_cast<uint64_t>(count.uCost));
  m_quietOpen.Reset();
  m_dwReopen = m_times.dwReopenFirst;
  m_bDiskFull = false;
  m_bLoad = true;
  m_due.u64Sweep = m_ports.clock.NowMs();
  m_due.u64Delete = m_due.u64Sweep;
}

void CSpool::Unusable(ESpoolResult eResult) {
  m_file.Close();
  m_uBytes.fetch_sub(m_ports.outbox.DropUnloaded().uCost);
  m_bDiskFull = eResult == ESpoolResult::Full;
  m_eMode.store(EMode::Unavailable);
  const uint64_t u64Now = m_ports.clock.NowMs();
  m_due = {};
  m_due.u64Open = u64Now + m_dwReopen;
  if (m_quietOpen.Due(u64Now))
    m_ports.log.LogError("**zxcloud spool not usable, non-blocking sends are refused file[%s] reason[%s]",
                         m_settings.strFile, m_file.Reason());
  m_dwReopen = std::min(m_dwReopen * 2, m_times.dwReopenLast);
}

uint32_t CSpool::RefusalCode() const {
  return m_bDiskFull ? kZxcloudErrFull : kZxcloudErrSpool;
}

}  // namespace zxcloud
