#include "tools/monitor/totals.h"

#include <variant>

namespace tavistro::monitor {

namespace {

using readings::Field;
using readings::FieldKind;
using readings::FieldType;

#define FIELD(name, offset, type, kind) {name, offset, FieldType::type, FieldKind::kind},
#define GAUGE(name, help) FIELD(#name, offsetof(Totals, name), i64, gauge)
#define COUNTER(name, help) FIELD(#name, offsetof(Totals, name), i64, counter)
#define REAL(name, help) FIELD(#name, offsetof(Totals, name), real, gauge)
#define PART(name, part) \
    FIELD(#name "_" #part, offsetof(Totals, name) + offsetof(Trouble, part), i64, counter)
#define TROUBLE(name, what) PART(name, count) PART(name, seconds) PART(name, drop_outs)

constexpr Field table[] = {
#include "tools/monitor/totals.def"
};

}  // namespace

std::span<const Field> totals_fields() {
    return table;
}

Totals operator-(const Totals& last, const Totals& first) {
    Totals between = last;
    for (const Field& field : table) {
        if (field.kind != FieldKind::counter) continue;
        const auto sum = [&](const Totals& totals) {
            return std::get<std::int64_t>(readings::number(&totals, field));
        };
        readings::set_number(&between, field, sum(last) - sum(first));
    }
    return between;
}

}  // namespace tavistro::monitor
