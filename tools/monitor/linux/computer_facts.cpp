#include "tools/monitor/computer_facts.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/utsname.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string_view>
#include <thread>

namespace tavistro::monitor {

namespace {

namespace fs = std::filesystem;
using readings::Json;

std::string text_at(const fs::path& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();  // a value that cannot be read is empty
    std::string text = content.str();
    while (text.ends_with('\n'))
        text.pop_back();
    return text;
}

/// What follows "KEY" and a separator at the start of a line.
std::string value_in(const std::string& text, std::string_view key) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(key)) continue;
        const std::size_t value = line.find_first_not_of(" \t:=\"", key.size());
        if (value == std::string::npos || value == key.size()) continue;
        return line.substr(value, line.find_last_not_of('"') + 1 - value);
    }
    return {};
}

Json limit_of(__rlimit_resource resource) {
    rlimit limit{};
    if (getrlimit(resource, &limit) != 0) return nullptr;
    return limit.rlim_max == RLIM_INFINITY ? Json("unlimited") : Json(limit.rlim_max);
}

Json network_interfaces() {
    Json interfaces = Json::array();
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/sys/class/net", error)) {
        const fs::path& path = entry.path();
        std::error_code no_driver;
        interfaces.push_back(
            {{"name", path.filename().string()},
             {"state", text_at(path / "operstate")},
             {"speed_mbit", text_at(path / "speed")},
             {"mtu", text_at(path / "mtu")},
             {"driver", fs::read_symlink(path / "device/driver", no_driver).filename().string()},
             {"wireless", fs::exists(path / "wireless")}});
    }
    return interfaces;
}

/// Files of the engine's library that processes of this user use.
Json engine_libraries() {
    std::set<std::string> names;
    std::error_code error;
    for (const auto& process : fs::directory_iterator("/proc", error)) {
        std::ifstream maps(process.path() / "maps");
        for (std::string line; std::getline(maps, line);) {
            const std::size_t name = line.rfind('/');
            if (name != std::string::npos &&
                line.find("libtavistro_engine", name) != std::string::npos)
                names.insert(line.substr(name + 1));
        }
    }
    return names;
}

}  // namespace

readings::Json computer_facts() {
    utsname system{};
    uname(&system);
    const std::string processor = text_at("/proc/cpuinfo");
    const fs::path cpu = "/sys/devices/system/cpu";
    Json facts{{"system", value_in(text_at("/etc/os-release"), "PRETTY_NAME")},
               {"kernel", fmt::format("{} {}", system.release, system.version)},
               {"real_time_kernel", text_at("/sys/kernel/realtime") == "1"},
               {"machine", system.machine},
               {"virtual_machine", processor.find(" hypervisor") != std::string::npos},
               {"processor", value_in(processor, "model name")},
               {"processors", std::thread::hardware_concurrency()},
               {"processors_isolated", text_at(cpu / "isolated")},
               {"frequency_governor", text_at(cpu / "cpu0/cpufreq/scaling_governor")},
               {"memory", value_in(text_at("/proc/meminfo"), "MemTotal")},
               {"load", text_at("/proc/loadavg")},
               {"clock_source",
                text_at("/sys/devices/system/clocksource/clocksource0/current_clocksource")},
               {"limit_real_time_priority", limit_of(RLIMIT_RTPRIO)},
               {"limit_locked_memory_bytes", limit_of(RLIMIT_MEMLOCK)},
               {"largest_receive_buffer_bytes", text_at("/proc/sys/net/core/rmem_max")},
               {"largest_send_buffer_bytes", text_at("/proc/sys/net/core/wmem_max")},
               {"network_interfaces", network_interfaces()},
               {"sound_cards", text_at("/proc/asound/cards")},
               {"engine_libraries", engine_libraries()}};
    for (auto fact = facts.begin(); fact != facts.end();)
        fact = *fact == Json(std::string()) ? facts.erase(fact) : std::next(fact);
    return facts;
}

std::string version_of(const std::string& program) {
    std::error_code error;
    const fs::path path = fs::read_symlink("/proc/self/exe", error).parent_path() / program;
    if (!fs::exists(path, error) || path.string().find('\'') != std::string::npos) return {};
    const std::string command = fmt::format("'{}' --version 2>/dev/null", path.string());
    const std::unique_ptr<FILE, int (*)(FILE*)> output(popen(command.c_str(), "r"), &pclose);
    std::array<char, 200> line{};
    if (!output || std::fgets(line.data(), line.size(), output.get()) == nullptr) return {};
    const std::string text = line.data();
    return text.substr(0, text.find('\n'));
}

}  // namespace tavistro::monitor
