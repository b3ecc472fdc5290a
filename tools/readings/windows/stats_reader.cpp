#include "tools/readings/stats_reader.h"

#include <windows.h>

#include <algorithm>
#include <numeric>
#include <string>

namespace tavistro::readings {

// handle_ is the address of the mapped view; the view keeps the block alive.

bool StatsReader::open(std::uint32_t client_id) {
    if (handle_ != -1) return true;
    const std::wstring name = L"Local\\TavistroEngineStats_" + std::to_wstring(client_id) + L"_v6";
    const HANDLE mapping = OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str());
    if (mapping == nullptr) return false;
    const void* view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, TAVISTRO_STATS_BLOCK_BYTES);
    CloseHandle(mapping);
    if (view != nullptr) handle_ = reinterpret_cast<std::intptr_t>(view);
    return view != nullptr;
}

void StatsReader::close() noexcept {
    if (handle_ != -1) UnmapViewOfFile(reinterpret_cast<const void*>(handle_));
    handle_ = -1;
}

bool StatsReader::is_held() const noexcept {
    return handle_ != -1;
}

std::vector<std::uint32_t> possible_client_ids() {
    constexpr std::size_t most = 64;
    std::vector<std::uint32_t> ids(most);
    std::iota(ids.begin(), ids.end(), 1U);
    return ids;
}

bool StatsReader::copy_to(Words& words) const {
    if (handle_ == -1) return false;
    // The engine writes concurrently; volatile makes each word a single load.
    const auto* source = reinterpret_cast<const volatile std::uint64_t*>(handle_);
    std::copy_n(source, words.size(), words.begin());
    return true;
}

}  // namespace tavistro::readings
