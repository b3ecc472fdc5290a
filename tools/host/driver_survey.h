// What one ASIO driver offers, asked without starting it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "asio/buffer_size.h"
#include "asio/driver_abi.h"

namespace tavistro::host {

/// How many channels have which sample type, by the type's name.
using SampleTypes = std::map<std::string, std::int32_t>;

struct ChannelCounts {
    std::int32_t inputs = 0;
    std::int32_t outputs = 0;
};

/// The answers of a driver; nothing where it gave none, and then `faults` says why.
struct DriverSurvey {
    std::optional<ChannelCounts> channels;
    std::optional<BufferSizeRange> buffer_sizes;
    std::optional<double> current_rate;  ///< Hz
    std::vector<double> accepted_rates;  ///< of the usual ones, 44100 to 192000 Hz
    SampleTypes input_types;
    SampleTypes output_types;
    std::vector<std::string> faults;  ///< one line each, with the driver's own words for init
};

/// Initialises a driver just made and asks it. Makes no buffers and starts nothing; the driver is
/// good for nothing but its release afterwards. On the thread that made it.
DriverSurvey survey_driver(AsioDriver& driver);

/// In words what it means that a driver's object could not be made: `code` is the system's.
std::string creation_fault(std::int32_t code);

}  // namespace tavistro::host
