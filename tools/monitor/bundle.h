// One file with what a support person needs.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "tools/monitor/sample.h"

namespace tavistro::monitor {

struct BundleContents {
    std::vector<std::string> recordings;      ///< paths
    std::vector<std::string> configurations;  ///< paths
    std::span<const Sample> seen_now{};       ///< recorded into the bundle too, if there are any
    bool with_addresses = false;
};

/// Writes a compressed tar archive, which must not exist, and returns the names in it. Throws
/// std::runtime_error that names a file that cannot be read or written; nothing is written then
/// unless the archive itself fails.
std::vector<std::string> pack_bundle(const std::string& path, const BundleContents& contents);

/// "tavistro-bundle-20261126-130501.tar.gz", in UTC.
std::string bundle_name();

/// The text with x in place of IP addresses but those of this computer itself (127...), of MAC
/// addresses, and of a value of server_ip that is not "auto".
std::string without_addresses(const std::string& text);

}  // namespace tavistro::monitor
