#include "tools/readings/stats_reader.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <string>
#include <string_view>

// Reads with pread() instead of a mapping: any process may truncate the object, and an access to a
// mapped page that no longer exists would end this process.

namespace tavistro::readings {

namespace {

constexpr std::string_view name_start = "TavistroEngineStats_";
constexpr std::string_view name_end = "_v6";

}  // namespace

bool StatsReader::open(std::uint32_t client_id) {
    if (handle_ != -1) return true;
    const std::string name =
        "/" + std::string(name_start) + std::to_string(client_id) + std::string(name_end);
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

std::vector<std::uint32_t> possible_client_ids() {
    std::vector<std::uint32_t> ids;
    std::error_code error;
    // The C library keeps shared memory objects here. Without the folder no engine has a block.
    std::filesystem::directory_iterator entry("/dev/shm", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (!name.starts_with(name_start) || !name.ends_with(name_end)) continue;
        std::uint32_t id = 0;
        const char* const end = name.data() + name.size() - name_end.size();
        const auto parsed = std::from_chars(name.data() + name_start.size(), end, id);
        if (parsed.ec == std::errc() && parsed.ptr == end) ids.push_back(id);
    }
    return ids;
}

bool StatsReader::copy_to(Words& words) const {
    return ::pread(static_cast<int>(handle_), words.data(), sizeof words, 0) ==
           static_cast<ssize_t>(sizeof words);
}

}  // namespace tavistro::readings
