#include "tools/readings/stats_reader.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

// Reads with pread() instead of a mapping: any process may truncate the object, and an access to a
// mapped page that no longer exists would end this process.

namespace tavistro::readings {

bool StatsReader::open(std::uint32_t client_id) {
    if (handle_ != -1) return true;
    const std::string name = "/TavistroEngineStats_" + std::to_string(client_id) + "_v6";
    handle_ = ::shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
    Words words;
    if (handle_ != -1 && !copy_to(words)) close();
    return handle_ != -1;
}

void StatsReader::close() noexcept {
    if (handle_ != -1) ::close(static_cast<int>(handle_));
    handle_ = -1;
}

// An engine holds a shared lock while it lives. One that starts during this check retries its lock.
bool StatsReader::is_held() const noexcept {
    if (handle_ == -1) return false;
    const int fd = static_cast<int>(handle_);
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) return true;
    flock(fd, LOCK_UN);
    return false;
}

bool StatsReader::copy_to(Words& words) const {
    return ::pread(static_cast<int>(handle_), words.data(), sizeof words, 0) ==
           static_cast<ssize_t>(sizeof words);
}

}  // namespace tavistro::readings
