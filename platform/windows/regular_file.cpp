#include "platform/regular_file.h"

#include <windows.h>

namespace tavistro::platform {

bool is_regular_file(const char* path) noexcept {
    constexpr DWORD anybody = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    // Without the flag for directories, those are not opened at all.
    const HANDLE file = CreateFileA(path, FILE_READ_ATTRIBUTES, anybody, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    const bool regular = GetFileType(file) == FILE_TYPE_DISK;
    CloseHandle(file);
    return regular;
}

}  // namespace tavistro::platform
