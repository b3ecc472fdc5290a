// Wide text for the system's functions.
#pragma once

#include <string>
#include <string_view>

namespace tavistro::platform {

/// Text of ASCII characters, such as the names that the engine itself gives.
inline std::wstring widen(std::string_view ascii) {
    return {ascii.begin(), ascii.end()};
}

}  // namespace tavistro::platform
