#include <fmt/format.h>

#include <array>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "asio/driver_list.h"
#include "tools/host/commands.h"
#include "tools/host/driver_survey.h"
#include "tools/host/json_lines.h"

namespace tavistro::host {

namespace {

/// A driver's name as a configuration must give it.
std::string name_of(const AsioDrivers& drivers, std::int32_t id) {
    std::array<char, driver_name_bytes> name{};
    drivers.driverNameAt(id, name);
    return name.data();
}

DriverSurvey survey(AsioDrivers& drivers, std::int32_t id) {
    AsioDriver* driver = nullptr;
    if (const std::int32_t code = drivers.openDriverAt(id, &driver); code != kAsioListOk) {
        DriverSurvey nothing;
        nothing.faults.push_back(creation_fault(code));
        return nothing;
    }
    DriverSurvey result = survey_driver(*driver);
    drivers.closeDriverAt(id);
    return result;
}

/// "8 (ASIOSTInt32LSB)", or how many of each type.
std::string channels_text(std::int32_t count, const SampleTypes& types) {
    std::vector<std::string> list;
    for (const auto& [type, channels] : types)
        list.push_back(types.size() > 1 ? fmt::format("{} x {}", channels, type) : type);
    return list.empty() ? fmt::to_string(count)
                        : fmt::format("{} ({})", count, fmt::join(list, ", "));
}

std::string granularity_text(std::int32_t granularity) {
    if (granularity > 0) return fmt::format("steps of {}", granularity);
    return granularity == 0 ? "no steps" : "doubling";
}

void show(const DriverSurvey& survey, std::ostream& out) {
    const auto row = [&out](std::string_view name, std::string_view text) {
        out << fmt::format("    {:<14}{}\n", name, text);
    };
    if (survey.channels) {
        row("inputs", channels_text(survey.channels->inputs, survey.input_types));
        row("outputs", channels_text(survey.channels->outputs, survey.output_types));
    }
    if (const auto& sizes = survey.buffer_sizes)
        row("buffer size",
            fmt::format("{}..{} frames, preferred {}, {}", sizes->minimum, sizes->maximum,
                        sizes->preferred, granularity_text(sizes->granularity)));
    if (survey.current_rate) row("sample rate", fmt::format("{} Hz", *survey.current_rate));
    if (survey.channels || survey.current_rate)
        row("accepts", survey.accepted_rates.empty()
                           ? "none of the usual rates"
                           : fmt::format("{} Hz", fmt::join(survey.accepted_rates, " ")));
    for (const std::string& fault : survey.faults)
        row("fault", fault);
}

}  // namespace

int list_devices(bool json, std::ostream& out, std::ostream& errors) {
    AsioDrivers drivers;
    if (drivers.driverCount() == 0) {
        errors << "no ASIO drivers are registered\n";
        return 1;
    }
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
    return 0;
}

}  // namespace tavistro::host
