// What programs read: one JSON object, without the end of the line. What an engine reports has the
// names of tools/readings/fields.h.
#pragma once

#include <cstdint>
#include <string>

#include "tools/host/driver_survey.h"
#include "tools/host/server_survey.h"

namespace tavistro::host {

/// Of a driver by its number and name, which need not be UTF-8.
std::string json_line(std::int32_t number, const std::string& name, const DriverSurvey& survey);
std::string json_line(const AnsweringServer& server);

}  // namespace tavistro::host
