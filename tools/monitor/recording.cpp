#include "tools/monitor/recording.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "tools/monitor/formats.h"

namespace tavistro::monitor {

std::ofstream open_for_writing(const std::string& path) {
    std::ofstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot write " + path);
    return file;
}

std::ofstream open_recording(const std::string& path) {
    if (std::filesystem::exists(path))
        throw std::runtime_error(path + " exists already; name another file to record to");
    return open_for_writing(path);
}

std::vector<Sample> recording_at(const std::string& path,
                                 const std::vector<std::uint32_t>& client_ids) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    std::vector<Sample> samples;
    try {
        samples = read_recording(file);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
    std::erase_if(samples, [&](const Sample& sample) {
        return !client_ids.empty() &&
               std::ranges::find(client_ids, sample.client_id) == client_ids.end();
    });
    if (samples.empty()) throw std::runtime_error(path + ": no reading of such an engine");
    return samples;
}

}  // namespace tavistro::monitor
