#include "asio/driver_list.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace tavistro {

namespace {

using NameBuffer = std::array<char, driver_name_bytes>;

constexpr std::size_t longest_name = 127;
constexpr std::int32_t no_driver = -1;

AsioDriverEntry make_entry(const platform::RegisteredDriver& registered) {
    AsioDriverEntry entry;
    entry.clsid = platform::parse_class_id(registered.class_id_text).value_or(platform::ClassId{});
    entry.name = registered.description.value_or(registered.key_name).substr(0, longest_name);
    return entry;
}

}  // namespace

AsioDrivers::AsioDrivers() {
    for (const platform::RegisteredDriver& registered : platform::registered_drivers()) {
        if (platform::class_server_path(registered.class_id_text))
            entries_.push_back(make_entry(registered));
    }
    if (!entries_.empty()) platform::enter_driver_apartment();
}

AsioDrivers::~AsioDrivers() {
    if (entries_.empty()) return;
    unloadCurrentDriver();
    for (std::int32_t id = 0; id < driverCount(); ++id)
        closeDriverAt(id);
    platform::leave_driver_apartment();
}

std::int32_t AsioDrivers::driverNameAt(std::int32_t id, std::span<char> buffer) const noexcept {
    constexpr std::string_view cut_mark = "...";
    if (buffer.data() == nullptr || buffer.size() <= cut_mark.size()) return kAsioListBadArgument;
    const AsioDriverEntry* entry = find(id);
    if (entry == nullptr) return kAsioListNoSuchDriver;

    const bool fits = entry->name.size() < buffer.size();
    const std::size_t kept = fits ? entry->name.size() : buffer.size() - cut_mark.size() - 1;
    auto end = std::copy_n(entry->name.begin(), kept, buffer.begin());
    if (!fits) end = std::copy(cut_mark.begin(), cut_mark.end(), end);
    *end = '\0';
    return kAsioListOk;
}

std::int32_t AsioDrivers::openDriverAt(std::int32_t id, AsioDriver** driver) noexcept {
    if (driver == nullptr) return kAsioListBadArgument;
    AsioDriverEntry* entry = find(id);
    if (entry == nullptr) return kAsioListNoSuchDriver;
    if (entry->driver != nullptr) return kAsioListAlreadyOpen;

    void* object = nullptr;
    const std::int32_t result = platform::create_driver_object(entry->clsid, &object);
    if (result != 0) return result;
    entry->driver = *driver = static_cast<AsioDriver*>(object);
    return kAsioListOk;
}

std::int32_t AsioDrivers::closeDriverAt(std::int32_t id) noexcept {
    AsioDriverEntry* entry = find(id);
    if (entry != nullptr && entry->driver != nullptr)
        platform::release_driver_object(std::exchange(entry->driver, nullptr));
    return kAsioListOk;
}

bool AsioDrivers::currentDriverName(std::span<char, driver_name_bytes> buffer) const noexcept {
    buffer[0] = '\0';
    return currentIndex_ != no_driver && driverNameAt(currentIndex_, buffer) == kAsioListOk;
}

bool AsioDrivers::loadDriver(const char* name) noexcept {
    const std::int32_t chosen = find_named(name);
    if (chosen == no_driver) return false;

    NameBuffer previous;
    currentDriverName(previous);
    unloadCurrentDriver();
    if (openDriverAt(chosen, &theAsioDriver) == kAsioListOk) {
        currentIndex_ = chosen;
        return true;
    }
    theAsioDriver = nullptr;
    if (previous[0] != '\0' && std::strcmp(previous.data(), name) != 0) loadDriver(previous.data());
    return false;
}

void AsioDrivers::unloadCurrentDriver() noexcept {
    if (currentIndex_ == no_driver) return;
    theAsioDriver = nullptr;
    closeDriverAt(std::exchange(currentIndex_, no_driver));
}

AsioDriverEntry* AsioDrivers::find(std::int32_t id) noexcept {
    return const_cast<AsioDriverEntry*>(std::as_const(*this).find(id));
}

const AsioDriverEntry* AsioDrivers::find(std::int32_t id) const noexcept {
    return id >= 0 && id < driverCount() ? &entries_[static_cast<std::size_t>(id)] : nullptr;
}

std::int32_t AsioDrivers::find_named(std::string_view name) const noexcept {
    NameBuffer listed;
    for (std::int32_t id = 0; id < driverCount(); ++id) {
        if (driverNameAt(id, listed) == kAsioListOk && name == listed.data()) return id;
    }
    return no_driver;
}

}  // namespace tavistro
