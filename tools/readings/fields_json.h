// Converts records to and from JSON. Callers that create or read objects include
// <nlohmann/json.hpp>.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>

#include "tools/readings/fields.h"

namespace tavistro::readings {

using Json = nlohmann::ordered_json;

/// Adds every field to an object under its name. A code is followed by its text under NAME_text.
void add_fields(Json& object, const void* record, std::span<const Field> fields);

/// Sets every field from an object, without loss. Throws nlohmann::json::exception when a field is
/// missing or not a number.
void take_fields(const Json& object, void* record, std::span<const Field> fields);

}  // namespace tavistro::readings
