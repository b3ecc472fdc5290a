#include "platform/named_memory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

// Every holder keeps a shared lock on the object. The kernel drops a crashed holder's lock, so the
// one that can turn its own into an exclusive lock is the last holder and removes the name.
//
// The block is written through the descriptor, not through a mapping: any process may shrink the
// object, and touching a mapped page that is gone would end this process. A write makes the object
// as long as it has to be; what lies before it and was lost reads as zero from then on. The kernel
// copies aligned fields in one piece, save for the last 4 bytes of a range on processors whose
// `rep movsb` is slow for a few bytes: there a byte at a time may be seen.

namespace tavistro::platform {
namespace {

constexpr mode_t everyone_read_write = 0666;
constexpr int open_tries = 16;
constexpr int lock_tries = 10;  // a millisecond apart

// Opening an existing object without O_CREAT first: the kernel may refuse O_CREAT on another
// user's object in a shared folder.
int open_or_create(const char* name) noexcept {
    for (int i = 0; i < open_tries; ++i) {
        int fd = shm_open(name, O_RDWR | O_CLOEXEC, 0);
        if (fd >= 0 || errno != ENOENT) return fd;
        fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, everyone_read_write);
        if (fd >= 0) {
            fchmod(fd, everyone_read_write);  // whatever the umask took away
            return fd;
        }
        if (errno != EEXIST) return fd;
    }
    return -1;
}

// The exclusive lock is held only while the name is removed. A process that holds it longer makes
// open() fail, but does not block it.
bool lock(int fd, int operation, int tries) noexcept {
    constexpr timespec pause{0, 1'000'000};
    for (int i = 0; i < tries; ++i) {
        if (i != 0) nanosleep(&pause, nullptr);
        if (flock(fd, operation | LOCK_NB) == 0) return true;
    }
    return false;
}

// A holder that was the last may have removed the name between our open and our lock.
bool still_named(int fd, const char* name) noexcept {
    struct stat ours {};
    struct stat named {};
    const int other = shm_open(name, O_RDONLY | O_CLOEXEC, 0);
    if (other < 0) return false;
    const bool same = fstat(fd, &ours) == 0 && fstat(other, &named) == 0 &&
                      ours.st_ino == named.st_ino && ours.st_dev == named.st_dev;
    ::close(other);
    return same;
}

int open_locked(const char* name) noexcept {
    for (int i = 0; i < open_tries; ++i) {
        const int fd = open_or_create(name);
        if (fd < 0) return -1;
        if (lock(fd, LOCK_SH, lock_tries) && still_named(fd, name)) return fd;
        ::close(fd);
    }
    return -1;
}

bool has_size(int fd, std::size_t bytes) noexcept {
    struct stat info {};
    if (fstat(fd, &info) != 0) return false;
    return info.st_size >= static_cast<off_t>(bytes) ||
           ftruncate(fd, static_cast<off_t>(bytes)) == 0;
}

bool write_at(int fd, std::size_t offset, std::span<const std::byte> bytes) noexcept {
    ssize_t written = 0;
    do {
        written = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    } while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(bytes.size());
}

}  // namespace

bool NamedMemory::open(const std::string& name, std::size_t bytes) {
    system_name_ = "/" + name;
    handle_ = open_locked(system_name_.c_str());
    if (handle_ < 0) return false;
    if (has_size(static_cast<int>(handle_), bytes)) return true;
    close();
    return false;
}

bool NamedMemory::store(std::size_t offset, std::span<const std::uint32_t> fields) noexcept {
    return write_at(static_cast<int>(handle_), offset, std::as_bytes(fields));
}

bool NamedMemory::store(std::size_t offset, std::span<const std::uint64_t> fields) noexcept {
    return write_at(static_cast<int>(handle_), offset, std::as_bytes(fields));
}

void NamedMemory::close() noexcept {
    if (handle_ < 0) return;
    const int fd = static_cast<int>(handle_);
    if (lock(fd, LOCK_EX, 1) && still_named(fd, system_name_.c_str())) {
        shm_unlink(system_name_.c_str());
    }
    ::close(fd);
    handle_ = -1;
}

}  // namespace tavistro::platform
