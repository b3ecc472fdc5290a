#include "tools/host/driver_survey.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>
#include <string_view>

#include "asio/sample_format.h"
#include "platform/driver_registry.h"

namespace tavistro::host {

namespace {

constexpr double usual_rates[] = {44100, 48000, 88200, 96000, 176400, 192000};
/// A driver that claims more is asked about these alone.
constexpr std::int32_t most_channels_asked = 1024;

struct CodeText {
    std::int32_t code;
    std::string_view text;
};

constexpr CodeText driver_codes[] = {
    {kAsioNotPresent, "not present or not supported"},
    {kAsioHardwareFault, "the hardware does not work"},
    {kAsioInvalidParameter, "invalid parameter"},
    {kAsioInvalidMode, "not possible in this state"},
    {kAsioNotAdvancing, "not running"},
    {kAsioNoClock, "no clock, or the rate is not supported"},
    {kAsioNoMemory, "out of memory"},
};

constexpr CodeText creation_codes[] = {
    {static_cast<std::int32_t>(0x80040154), "its class is not registered"},
    {static_cast<std::int32_t>(0x80004005), "it made no object"},
    {static_cast<std::int32_t>(0x80004002), "it is no ASIO driver"},
    {static_cast<std::int32_t>(0x8007007E), "its file, or one that it needs, is missing"},
    {static_cast<std::int32_t>(0x800700C1), "its file is not for 64-bit programs"},
    {static_cast<std::int32_t>(0x8007000E), "out of memory"},
};

std::string text_of(std::span<const CodeText> table, std::int32_t code) {
    const auto found = std::ranges::find(table, code, &CodeText::code);
    return found == table.end() ? "unknown reason" : std::string(found->text);
}

std::string own_words(AsioDriver& driver) {
    std::array<char, 256> text{};  // twice of what a driver may write
    driver.getErrorMessage(text.data());
    text.back() = '\0';
    return text.data();
}

class Survey {
  public:
    explicit Survey(AsioDriver& driver) : driver_(driver) {}

    DriverSurvey take() {
        if (driver_.init(platform::driver_parent_window()) == 0) {
            const std::string words = own_words(driver_);
            result_.faults.push_back("init failed: " + (words.empty() ? "no reason given" : words));
            return std::move(result_);
        }
        ask_channels();
        ask_buffer_sizes();
        ask_rates();
        return std::move(result_);
    }

  private:
    /// Notes what a call came to; true when it succeeded.
    bool succeeded(std::string_view call, std::int32_t code) {
        if (code == kAsioOk) return true;
        result_.faults.push_back(std::string(call) + " failed: " + text_of(driver_codes, code) +
                                 " (" + std::to_string(code) + ")");
        return false;
    }

    void ask_channels() {
        ChannelCounts counts;
        if (!succeeded("getChannels", driver_.getChannels(&counts.inputs, &counts.outputs))) return;
        result_.channels = counts;
        ask_types(1, counts.inputs, result_.input_types);
        ask_types(0, counts.outputs, result_.output_types);
    }

    /// Up to the first channel that the driver does not tell of.
    void ask_types(std::int32_t is_input, std::int32_t count, SampleTypes& types) {
        for (std::int32_t i = 0; i < std::min(count, most_channels_asked); ++i) {
            AsioChannelInfo info{};
            info.channel = i;
            info.isInput = is_input;
            const std::string call = std::string("getChannelInfo of ") +
                                     (is_input != 0 ? "input " : "output ") + std::to_string(i);
            if (!succeeded(call, driver_.getChannelInfo(&info))) return;
            ++types[sample_type_name(static_cast<std::uint32_t>(info.type))];
        }
    }

    void ask_buffer_sizes() {
        BufferSizeRange sizes;
        if (succeeded("getBufferSize",
                      driver_.getBufferSize(&sizes.minimum, &sizes.maximum, &sizes.preferred,
                                            &sizes.granularity))) {
            result_.buffer_sizes = sizes;
        }
    }

    void ask_rates() {
        double rate = 0;
        if (succeeded("getSampleRate", driver_.getSampleRate(&rate))) result_.current_rate = rate;
        // A refusal is an answer here, whatever its code.
        std::ranges::copy_if(usual_rates, std::back_inserter(result_.accepted_rates),
                             [&](double asked) { return driver_.canSampleRate(asked) == kAsioOk; });
    }

    AsioDriver& driver_;
    DriverSurvey result_;
};

}  // namespace

DriverSurvey survey_driver(AsioDriver& driver) {
    return Survey(driver).take();
}

std::string creation_fault(std::int32_t code) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "0x%08X", static_cast<unsigned>(code));
    return "could not be loaded: " + text_of(creation_codes, code) + " (" + digits + ")";
}

}  // namespace tavistro::host
