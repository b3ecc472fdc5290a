#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "asio/buffer_size.h"
#include "asio/driver_list.h"
#include "asio/sample_format.h"
#include "platform/driver_registry.h"
#include "tools/host/commands.h"
#include "tools/readings/fields_json.h"
#include "tools/readings/texts.h"

namespace tavistro::host {

namespace {

using readings::CodeText;
using readings::Json;

constexpr double usual_rates[] = {44100, 48000, 88200, 96000, 176400, 192000};
/// A driver that claims more is asked about these alone.
constexpr std::int32_t most_channels_asked = 1024;

constexpr CodeText driver_codes[] = {
    {kAsioNotPresent, "not present or not supported"},
    {kAsioHardwareFault, "hardware fault"},
    {kAsioInvalidParameter, "invalid parameter"},
    {kAsioInvalidMode, "not possible in this state"},
    {kAsioNotAdvancing, "not running"},
    {kAsioNoClock, "no clock, or the rate is not supported"},
    {kAsioNoMemory, "out of memory"},
};

/// Why the system made no object of a driver.
constexpr CodeText creation_codes[] = {
    {0x80040154, "its class is not registered"},
    {0x80004005, "it created no object"},
    {0x80004002, "it is not an ASIO driver"},
    {0x8007007E, "its file, or one that it needs, is missing"},
    {0x800700C1, "its file is not for 64-bit programs"},
    {0x8007000E, "out of memory"},
};

constexpr const char* unknown = "unknown reason";

struct Channels {
    std::optional<std::int32_t> count;
    std::map<std::string, std::int32_t> types;  ///< how many have which sample type, by its name
};

/// The answers of a driver; nothing where it gave none, and then `faults` says why.
struct DriverSurvey {
    Channels inputs;
    Channels outputs;
    std::optional<BufferSizeRange> buffer_sizes;
    std::optional<double> current_rate;  ///< Hz
    std::vector<double> accepted_rates;  ///< of the usual ones
    std::vector<std::string> faults;     ///< one line each, with the driver's own words for init
};

std::string own_words(AsioDriver& driver) {
    std::array<char, 256> text{};  // twice of what a driver may write
    driver.getErrorMessage(text.data());
    text.back() = '\0';
    return text.data();
}

/// Notes what a call came to; true when it succeeded.
bool succeeded(std::string_view call, std::int32_t code, DriverSurvey& result) {
    if (code == kAsioOk) return true;
    result.faults.push_back(fmt::format("{} failed: {} ({})", call,
                                        readings::text_of(driver_codes, code, unknown), code));
    return false;
}

/// Up to the first channel that the driver does not tell of.
void ask_types(AsioDriver& driver, bool is_input, Channels& channels, DriverSurvey& result) {
    for (std::int32_t i = 0; i < std::min(*channels.count, most_channels_asked); ++i) {
        AsioChannelInfo info{};
        info.channel = i;
        info.isInput = is_input ? 1 : 0;
        const auto call = fmt::format("getChannelInfo of {} {}", is_input ? "input" : "output", i);
        if (!succeeded(call, driver.getChannelInfo(&info), result)) return;
        ++channels.types[sample_type_name(static_cast<std::uint32_t>(info.type))];
    }
}

/// Initialises a driver just made and asks it. Makes no buffers and starts nothing; the driver is
/// good for nothing but its release afterwards.
void ask(AsioDriver& driver, DriverSurvey& result) {
    if (driver.init(platform::driver_parent_window()) == 0) {
        const std::string words = own_words(driver);
        result.faults.push_back("init failed: " + (words.empty() ? "no reason given" : words));
        return;
    }
    std::int32_t inputs = 0, outputs = 0;
    if (succeeded("getChannels", driver.getChannels(&inputs, &outputs), result)) {
        result.inputs.count = inputs;
        result.outputs.count = outputs;
        ask_types(driver, true, result.inputs, result);
        ask_types(driver, false, result.outputs, result);
    }
    BufferSizeRange sizes;
    if (succeeded("getBufferSize",
                  driver.getBufferSize(&sizes.minimum, &sizes.maximum, &sizes.preferred,
                                       &sizes.granularity),
                  result))
        result.buffer_sizes = sizes;
    double rate = 0;
    if (succeeded("getSampleRate", driver.getSampleRate(&rate), result)) result.current_rate = rate;
    // A refusal is an answer here, whatever its code.
    std::ranges::copy_if(usual_rates, std::back_inserter(result.accepted_rates),
                         [&](double asked) { return driver.canSampleRate(asked) == kAsioOk; });
}

DriverSurvey survey(AsioDrivers& drivers, std::int32_t id) {
    DriverSurvey result;
    AsioDriver* driver = nullptr;
    const std::int32_t code = drivers.openDriverAt(id, &driver);
    if (code == kAsioListOk) {
        ask(*driver, result);
        drivers.closeDriverAt(id);
    } else {
        const auto bits = static_cast<std::uint32_t>(code);
        result.faults.push_back(fmt::format("could not be loaded: {} (0x{:08X})",
                                            readings::text_of(creation_codes, bits, unknown),
                                            bits));
    }
    return result;
}

/// A driver's name as a configuration must give it.
std::string name_of(const AsioDrivers& drivers, std::int32_t id) {
    std::array<char, driver_name_bytes> name{};
    drivers.driverNameAt(id, name);
    return name.data();
}

/// "8 (ASIOSTInt32LSB)", or how many of each type.
std::string channels_text(const Channels& channels) {
    std::vector<std::string> list;
    for (const auto& [type, count] : channels.types)
        list.push_back(channels.types.size() > 1 ? fmt::format("{} x {}", count, type) : type);
    return list.empty() ? fmt::to_string(*channels.count)
                        : fmt::format("{} ({})", *channels.count, fmt::join(list, ", "));
}

std::string granularity_text(std::int32_t granularity) {
    if (granularity > 0) return fmt::format("steps of {}", granularity);
    return granularity == 0 ? "no steps" : "doubling";
}

void show(const DriverSurvey& survey, std::ostream& out) {
    const auto row = [&out](std::string_view name, std::string_view text) {
        out << fmt::format("    {:<14}{}\n", name, text);
    };
    if (survey.inputs.count) row("inputs", channels_text(survey.inputs));
    if (survey.outputs.count) row("outputs", channels_text(survey.outputs));
    if (const auto& sizes = survey.buffer_sizes) row("buffer size", buffer_size_text(*sizes));
    if (survey.current_rate) row("sample rate", fmt::format("{} Hz", *survey.current_rate));
    if (survey.inputs.count || survey.current_rate)
        row("accepts", survey.accepted_rates.empty()
                           ? "none of the usual rates"
                           : fmt::format("{} Hz", fmt::join(survey.accepted_rates, " ")));
    for (const std::string& fault : survey.faults)
        row("fault", fault);
}

/// Names need not be UTF-8.
std::string text_of(const Json& line) {
    return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string json_line(std::int32_t id, const std::string& name, const DriverSurvey& survey) {
    const auto or_null = [](const auto& answer) { return answer ? Json(*answer) : Json(); };
    Json line{{"type", "device"},
              {"number", id},
              {"name", name},
              {"inputs", or_null(survey.inputs.count)},
              {"outputs", or_null(survey.outputs.count)},
              {"input_types", survey.inputs.types},
              {"output_types", survey.outputs.types},
              {"buffer_frames", nullptr},
              {"sample_rate", or_null(survey.current_rate)},
              {"accepted_sample_rates", survey.accepted_rates},
              {"faults", survey.faults}};
    if (const auto& sizes = survey.buffer_sizes)
        line["buffer_frames"] = {{"minimum", sizes->minimum},
                                 {"maximum", sizes->maximum},
                                 {"preferred", sizes->preferred},
                                 {"granularity", sizes->granularity}};
    return text_of(line);
}

}  // namespace

std::string buffer_size_text(const BufferSizeRange& sizes) {
    return fmt::format("{}..{} frames, preferred {}, {}", sizes.minimum, sizes.maximum,
                       sizes.preferred, granularity_text(sizes.granularity));
}

int list_devices(bool json, std::ostream& out, std::ostream& errors) {
    AsioDrivers drivers;
    for (std::int32_t id = 0; id < drivers.driverCount(); ++id) {
        const std::string name = name_of(drivers, id);
        if (!json) out << id << "  " << name << std::endl;
        const DriverSurvey found = survey(drivers, id);
        if (json) {
            out << json_line(id, name, found) << '\n';
        } else {
            show(found, out);
        }
        out.flush();
    }
    for (const auto& [name, reason] : platform::unlisted_drivers()) {
        if (json) {
            const Json line{{"type", "unlisted"}, {"name", name}, {"reason", reason}};
            out << text_of(line) << '\n';
        } else {
            out << fmt::format("-  {}\n    {:<14}{}\n", name, "not listed", reason);
        }
    }
    if (drivers.driverCount() > 0) return 0;
    errors << "no ASIO drivers are registered in " << platform::driver_place() << '\n';
    return 1;
}

}  // namespace tavistro::host
