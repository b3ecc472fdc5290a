// What the loader does not say about a configuration file: it ignores names that it does not know
// and takes quotes and byte-order marks for text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavistro::host {

/// One line of text for each thing in the file that probably is not what its author meant, in the
/// order of the file, with the line number where there is one. Empty for a file without any.
/// `bytes` is the file as it lies on the disk; of a file in UTF-16 only that is said.
std::vector<std::string> config_warnings(std::string_view bytes);

}  // namespace tavistro::host
