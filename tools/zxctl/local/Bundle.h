// One archive that support needs: logs, settings without their secrets, status, versions, facts of the
// machine. Written beside the caller, 0600. Secrets are masked by name, keys and certificates' keys never
// enter it.
#pragma once

#include <string>
#include <string_view>

namespace zxctl {

// Masks what may be secret in a text file of settings or a log: values behind names such as password, token,
// secret, key (not key_file), passwd, pin; credentials in URLs; PEM private keys; "Authorization" lines. Line
// breaks stay where they are.
std::string Redact(std::string_view svText);

// Files of the bundle are bounded, the newest part of a log counts. strOut: the archive (.tar.gz); empty: a
// name with host and time in the current directory. kExitOk and the name printed, or why not.
int Bundle(const std::string& strHome, const std::string& strOut, bool bJson);

}  // namespace zxctl
