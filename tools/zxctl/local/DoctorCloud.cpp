// What stands between this machine and its cloud: settings, certificates, names, the service itself. Judged
// by the link's own code, so that the doctor and the link cannot differ.
#include <openssl/asn1.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "platform/cloud/CloudConfig.h"
#include "platform/cloud/HttpClient.h"
#include "zxctl/Answers.h"
#include "zxctl/Table.h"
#include "zxctl/local/Doctor.h"
#include "zxctl/local/Home.h"
#include "zxctl/local/HostView.h"

namespace zxctl {

namespace {

using namespace zxcloud;

constexpr size_t kPemMax = 4u << 20;
constexpr int64_t kSoonSec = 30 * 86400;
constexpr uint32_t kAskMs = 10000;

struct CX509Free {
  void operator()(X509* p) const { X509_free(p); }
};
struct CBioFree {
  void operator()(BIO* p) const { BIO_free(p); }
};

// Seconds from i64Now to an ASN.1 time; 0 when it cannot be read.
int64_t SecondsTo(const ASN1_TIME* pTime, int64_t i64Now) {
  time_t tNow = static_cast<time_t>(i64Now);
  const std::unique_ptr<ASN1_TIME, void (*)(ASN1_TIME*)> now(ASN1_TIME_set(nullptr, tNow), &ASN1_TIME_free);
  int iDays = 0, iSeconds = 0;
  if (now == nullptr || ASN1_TIME_diff(&iDays, &iSeconds, now.get(), pTime) == 0)
    return 0;
  return int64_t{iDays} * 86400 + iSeconds;
}

std::string SubjectOf(X509* pCert) {
  char szName[256] = {};
  X509_NAME_oneline(X509_get_subject_name(pCert), szName, sizeof(szName));
  return szName;
}

void JudgeValidity(const std::string& strFile, X509* pCert, int64_t i64Now, TFindings& findings) {
  const std::string strWho = strFile + ": " + SubjectOf(pCert);
  const int64_t i64Left = SecondsTo(X509_get0_notAfter(pCert), i64Now);
  const int64_t i64Begin = SecondsTo(X509_get0_notBefore(pCert), i64Now);
  if (i64Begin > 0)
    findings.push_back({EFinding::Problem, "certificates",
                        strWho + " is not valid before " + SpanText(i64Begin) + " from now",
                        "look at the clock first"});
  else if (i64Left <= 0)
    findings.push_back({EFinding::Problem, "certificates", strWho + " expired " + SpanText(-i64Left) + " ago",
                        "renew it; a renewed file counts without a restart"});
  else if (i64Left < kSoonSec)
    findings.push_back(
        {EFinding::Note, "certificates", strWho + " expires in " + SpanText(i64Left), "renew it in time"});
  else
    findings.push_back({EFinding::Good, "certificates", strWho + ", " + SpanText(i64Left) + " left", {}});
}

void CheckCertificates(const std::string& strFile, int64_t i64Now, TFindings& findings) {
  std::string strData;
  if (strFile.empty())
    return;
  if (!ReadFileBounded(strFile, kPemMax, false, strData)) {
    findings.push_back({EFinding::Problem, "certificates", strFile + ": " + ErrnoText(errno),
                        "put the file there or correct zxcloudconf in etc/zxagent/zxagent.json"});
    return;
  }
  const std::unique_ptr<BIO, CBioFree> bio(BIO_new_mem_buf(strData.data(), static_cast<int>(strData.size())));
  size_t uCount = 0;
  for (;;) {
    const std::unique_ptr<X509, CX509Free> cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (cert == nullptr)
      break;
    ++uCount;
    JudgeValidity(strFile, cert.get(), i64Now, findings);
  }
  if (uCount == 0)
    findings.push_back(
        {EFinding::Problem, "certificates", strFile + " holds no PEM certificate", "put one there"});
}

void AskAddress(CHttpClient& http, const zxcloud::_CloudAddress& address, TFindings& findings) {
  _HttpRequest request;
  request.address = address;
  request.strTarget = "/v1/health";
  request.dwTotalMs = kAskMs;
  const _HttpAnswer answer = http.Do(request);
  if (answer.Ok())
    findings.push_back({EFinding::Good, "cloud", address.Text() + " answers", {}});
  else
    findings.push_back({EFinding::Problem, "cloud", address.Text() + ": " + answer.Why(),
                        answer.eError == ENetError::Tls
                            ? "see certificates and clock"
                            : "check name, route, proxy and firewall for this address"});
}

}  // namespace

void CheckCloud(const std::string& strHome, bool bOffline, int64_t i64NowSec, TFindings& findings) {
  _CloudConfig config;
  std::string strError;
  // The agent merges the installed file into one of its own, which is what the link reads.
  const std::string strMerged = "etc/zxagent/inner/zxagent.json";
  const std::string strName =
      access((strHome + strMerged).c_str(), F_OK) == 0 ? strMerged : "etc/zxagent/zxagent.json";
  if (!LoadCloudConfig(strHome + strName, "", config, strError)) {
    findings.push_back({EFinding::Problem, "cloud", strName + ": " + strError,
                        "name the cloud's address in tconf.tconf_url and mend zxcloudconf"});
    return;
  }
  CheckCertificates(config.tls.strCaFile, i64NowSec, findings);
  CheckCertificates(config.tls.strCertFile, i64NowSec, findings);
  _TlsVerdict verdict;
  if (TlsNewContext(config.tls, config.listTconf.front().strHost, verdict, strError) == nullptr)
    findings.push_back(
        {EFinding::Problem, "certificates", strError, "mend what it names; nothing connects until then"});
  else if (!config.tls.strKeyFile.empty())
    findings.push_back({EFinding::Good, "certificates", "key and certificate belong together", {}});
  if (bOffline)
    return;
  CHttpClient http({config.tls, config.bPlainLoopback, config.strProxy});
  for (const zxcloud::_CloudAddress& address : config.listTconf)
    AskAddress(http, address, findings);
}

}  // namespace zxctl
