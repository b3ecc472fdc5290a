#include "tools/host/driver_survey.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "asio/sample_format.h"
#include "platform/driver_registry.h"
#include "tools/readings/texts.h"

namespace tavistro::host {

namespace {

constexpr double usual_rates[] = {44100, 48000, 88200, 96000, 176400, 192000};
/// A driver that claims more is asked about these alone.
constexpr std::int32_t most_channels_asked = 1024;

constexpr readings::CodeText driver_codes[] = {
    {kAsioNotPresent, "not present or not supported"},
    {kAsioHardwareFault, "the hardware does not work"},
    {kAsioInvalidParameter, "invalid parameter"},
    {kAsioInvalidMode, "not possible in this state"},
    {kAsioNotAdvancing, "not running"},
    {kAsioNoClock, "no clock, or the rate is not supported"},
    {kAsioNoMemory, "out of memory"},
};

constexpr readings::CodeText creation_codes[] = {
    {0x80040154, "its class is not registered"},
    {0x80004005, "it made no object"},
    {0x80004002, "it is no ASIO driver"},
    {0x8007007E, "its file, or one that it needs, is missing"},
    {0x800700C1, "its file is not for 64-bit programs"},
    {0x8007000E, "out of memory"},
};

constexpr const char* unknown = "unknown reason";

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
void ask_types(AsioDriver& driver, std::int32_t is_input, std::int32_t count, SampleTypes& types,
               DriverSurvey& result) {
    for (std::int32_t i = 0; i < std::min(count, most_channels_asked); ++i) {
        AsioChannelInfo info{};
        info.channel = i;
        info.isInput = is_input;
        const std::string call =
            fmt::format("getChannelInfo of {} {}", is_input != 0 ? "input" : "output", i);
        if (!succeeded(call, driver.getChannelInfo(&info), result)) return;
        ++types[sample_type_name(static_cast<std::uint32_t>(info.type))];
    }
}

}  // namespace

DriverSurvey survey_driver(AsioDriver& driver) {
    DriverSurvey result;
    if (driver.init(platform::driver_parent_window()) == 0) {
        const std::string words = own_words(driver);
        result.faults.push_back("init failed: " + (words.empty() ? "no reason given" : words));
        return result;
    }
    ChannelCounts counts;
    if (succeeded("getChannels", driver.getChannels(&counts.inputs, &counts.outputs), result)) {
        result.channels = counts;
        ask_types(driver, 1, counts.inputs, result.input_types, result);
        ask_types(driver, 0, counts.outputs, result.output_types, result);
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
    return result;
}

std::string creation_fault(std::int32_t code) {
    const auto bits = static_cast<std::uint32_t>(code);
    return fmt::format("could not be loaded: {} (0x{:08X})",
                       readings::text_of(creation_codes, bits, unknown), bits);
}

}  // namespace tavistro::host
