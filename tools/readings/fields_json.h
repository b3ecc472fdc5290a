// Records as JSON. Include <nlohmann/json.hpp> where an object is made or looked into.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>

#include "tools/readings/fields.h"

namespace tavistro::readings {

using Json = nlohmann::ordered_json;

/// Adds every field under its name to an object; a code is followed by its words under NAME_text.
void add_fields(Json& object, const void* record, std::span<const Field> fields);

/// The reverse, exactly. Throws nlohmann::json::exception when a field is missing or no number.
void take_fields(const Json& object, void* record, std::span<const Field> fields);

}  // namespace tavistro::readings
