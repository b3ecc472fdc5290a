#include "tools/monitor/totals.h"

#include <variant>

namespace tavistro::monitor {

namespace {

using readings::Field;
using readings::FieldKind;
using readings::FieldType;

#define FIELD(name, offset, type, kind, help) \
    {name, offset, FieldType::type, FieldKind::kind, help},
#define GAUGE(name, help) FIELD(#name, offsetof(Totals, name), i64, gauge, help)
#define COUNTER(name, help) FIELD(#name, offsetof(Totals, name), i64, counter, help)
#define REAL(name, help) FIELD(#name, offsetof(Totals, name), real, gauge, help)
#define PART(name, part, help) \
    FIELD(#name "_" #part, offsetof(Totals, name) + offsetof(Trouble, part), i64, counter, help)
/// `what` is counted, and begins with a capital.
#define TROUBLE(name, what)                            \
    PART(name, count, what)                            \
    PART(name, seconds, what ": seconds that had any") \
    PART(name, drop_outs, what ": drop-outs in those seconds or beside them")

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
