#include "tools/readings/fields_json.h"

#include <nlohmann/json.hpp>
#include <string>

namespace tavistro::readings {

void add_fields(Json& object, const void* record, std::span<const Field> fields) {
    for (const Field& field : fields) {
        const std::string name(field.name);
        if (field.type == FieldType::histogram) {
            object[name] = histogram(record, field);
            continue;
        }
        const Number value = number(record, field);
        std::visit([&](auto plain) { object[name] = plain; }, value);
        if (field.text != nullptr)
            object[name + "_text"] =
                field.text(static_cast<std::uint32_t>(std::get<std::int64_t>(value)));
    }
}

void take_fields(const Json& object, void* record, std::span<const Field> fields) {
    for (const Field& field : fields) {
        const Json& value = object.at(std::string(field.name));
        if (field.type == FieldType::histogram) {
            set_histogram(record, field, value.get<Histogram>());
        } else if (field.type == FieldType::real) {
            set_number(record, field, value.get<double>());
        } else {
            set_number(record, field, value.get<std::int64_t>());
        }
    }
}

}  // namespace tavistro::readings
