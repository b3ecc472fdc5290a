// Every field of the totals, for whatever treats them alike: JSON, CSV, Prometheus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

#include "tools/monitor/fields.h"
#include "tools/monitor/totals.h"

namespace tavistro::monitor {

/// One number; those of a Trouble have its name in front: replaced_count.
struct TotalsField {
    std::string_view name;
    std::size_t offset;
    bool is_real;  ///< a double
    FieldKind kind;
    std::string_view help;
};

/// In the order of Totals.
std::span<const TotalsField> totals_fields();

using TotalsNumber = std::variant<std::int64_t, double>;
TotalsNumber number(const Totals& totals, const TotalsField& field);
/// `value` is of the field's type.
void set_number(Totals& totals, const TotalsField& field, TotalsNumber value);

}  // namespace tavistro::monitor
