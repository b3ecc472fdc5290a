#include "platform/regular_file.h"

#include <sys/stat.h>

namespace tavistro::platform {

bool is_regular_file(const char* path) noexcept {
    struct stat info {};
    return ::stat(path, &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace tavistro::platform
