// The installed components as their manifests name them: etc/coms/client/<directory>/config.json below the
// home. Stateless; any thread. Blocks on file reads. A manifest that cannot be read or parsed is skipped: one
// broken component must not hide the others.
#pragma once

#include <string>

// {"list":[{"id","product","combo","status":1}]}, directories in name order, entries in document order.
// Entries without an id, product and combo (texts, not empty) are left out.
std::string ListInstalledPlugins(const std::string& strHome);
