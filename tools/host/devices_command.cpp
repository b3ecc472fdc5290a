#include "tools/host/devices_command.h"

#include <array>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <string_view>

#include "asio/driver_list.h"
#include "tools/host/driver_survey.h"

namespace tavistro::host {

namespace {

using Json = nlohmann::ordered_json;

/// A driver's name as a configuration must give it.
std::string name_of(const AsioDrivers& drivers, std::int32_t id) {
    std::array<char, driver_name_bytes> name{};
    drivers.driverNameAt(id, name);
    return name.data();
}

DriverSurvey survey(AsioDrivers& drivers, std::int32_t id) {
    AsioDriver* driver = nullptr;
    DriverSurvey result;
    if (const std::int32_t code = drivers.openDriverAt(id, &driver); code != kAsioListOk) {
        result.faults.push_back(creation_fault(code));
        return result;
    }
    result = survey_driver(*driver);
    drivers.closeDriverAt(id);
    return result;
}

std::string rate_text(double rate) {
    Json number = rate;  // as short as it is exact
    if (rate == static_cast<double>(static_cast<std::int64_t>(rate))) {
        number = static_cast<std::int64_t>(rate);
    }
    return number.dump();
}

/// "8 (ASIOSTInt32LSB)", or how many of each type.
std::string channels_text(std::int32_t count, const SampleTypes& types) {
    std::string list;
    for (const auto& [type, channels] : types) {
        if (!list.empty()) list += ", ";
        if (types.size() > 1) list += std::to_string(channels) + " x ";
        list += type;
    }
    std::string text = std::to_string(count);
    if (!list.empty()) text.append(" (").append(list).append(")");
    return text;
}

std::string granularity_text(std::int32_t granularity) {
    if (granularity > 0) return "steps of " + std::to_string(granularity);
    return granularity == 0 ? "no steps" : "doubling";
}

void show(const DriverSurvey& survey, std::ostream& out) {
    const auto row = [&out](std::string_view name) -> std::ostream& {
        return out << "    " << name << std::string(14 - name.size(), ' ');
    };
    if (survey.channels) {
        row("inputs") << channels_text(survey.channels->inputs, survey.input_types) << '\n';
        row("outputs") << channels_text(survey.channels->outputs, survey.output_types) << '\n';
    }
    if (const auto& sizes = survey.buffer_sizes) {
        row("buffer size") << sizes->minimum << ".." << sizes->maximum << " frames, preferred "
                           << sizes->preferred << ", " << granularity_text(sizes->granularity)
                           << '\n';
    }
    if (survey.current_rate) {
        row("sample rate") << rate_text(*survey.current_rate) << " Hz\n";
    }
    if (survey.channels || survey.current_rate) {
        std::string accepted;
        for (const double rate : survey.accepted_rates)
            accepted.append(rate_text(rate)).append(" ");
        row("accepts") << (accepted.empty() ? "none of the usual rates" : accepted + "Hz") << '\n';
    }
    for (const std::string& fault : survey.faults)
        row("fault") << fault << '\n';
}

Json json_of(std::int32_t id, const std::string& name, const DriverSurvey& survey) {
    Json line = {{"type", "device"},
                 {"number", id},
                 {"name", name},
                 {"inputs", nullptr},
                 {"outputs", nullptr},
                 {"input_types", survey.input_types},
                 {"output_types", survey.output_types},
                 {"buffer_frames", nullptr},
                 {"sample_rate", nullptr},
                 {"accepted_sample_rates", survey.accepted_rates},
                 {"faults", survey.faults}};
    if (survey.channels) {
        line["inputs"] = survey.channels->inputs;
        line["outputs"] = survey.channels->outputs;
    }
    if (const auto& sizes = survey.buffer_sizes) {
        line["buffer_frames"] = {{"minimum", sizes->minimum},
                                 {"maximum", sizes->maximum},
                                 {"preferred", sizes->preferred},
                                 {"granularity", sizes->granularity}};
    }
    if (survey.current_rate) line["sample_rate"] = *survey.current_rate;
    return line;
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
            // A name need not be UTF-8.
            out << json_of(id, name, found).dump(-1, ' ', false, Json::error_handler_t::replace)
                << '\n';
        } else {
            show(found, out);
        }
        out.flush();
    }
    return 0;
}

}  // namespace tavistro::host
