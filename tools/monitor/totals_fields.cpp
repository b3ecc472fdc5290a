#include "tools/monitor/totals_fields.h"

#include <cstring>

namespace tavistro::monitor {

namespace {

#define TAVISTRO_TOTAL(name, kind, help)                            \
    TotalsField {                                                   \
#name, offsetof(Totals, name), false, FieldKind::kind, help \
    }
#define TAVISTRO_REAL_TOTAL(name, help)                             \
    TotalsField {                                                   \
#name, offsetof(Totals, name), true, FieldKind::gauge, help \
    }
#define TAVISTRO_TROUBLE_PART(name, part, kind, help)                                              \
    TotalsField {                                                                                  \
#name "_" #part, offsetof(Totals, name) + offsetof(Trouble, part), false, FieldKind::kind, \
            help                                                                                   \
    }
/// `what` is counted, and begins with a capital.
#define TAVISTRO_TROUBLE(name, what)                                                  \
    TAVISTRO_TROUBLE_PART(name, count, counter, what),                                \
        TAVISTRO_TROUBLE_PART(name, seconds, counter, what ": seconds that had any"), \
        TAVISTRO_TROUBLE_PART(name, drop_outs, counter,                               \
                              what ": drop-outs in those seconds or beside them")

constexpr TotalsField table[] = {
    TAVISTRO_TOTAL(run, gauge, "Number of the run; with it all counts begin anew"),
    TAVISTRO_TOTAL(watched_ms, counter, "Milliseconds since the run was first seen"),
    TAVISTRO_TOTAL(reported_ms, counter, "Milliseconds that the engine's reports cover"),
    TAVISTRO_TOTAL(blocks, counter, "Blocks handed to the player, silence for missing ones too"),
    TAVISTRO_TOTAL(notices, counter, "Notices of the server's clock"),
    TAVISTRO_TOTAL(periods, counter, "Device periods"),
    TAVISTRO_TOTAL(underruns, counter, "Device periods without a block to play"),
    TAVISTRO_TOTAL(overruns, counter, "Blocks that found the playback buffer full"),
    TAVISTRO_TOTAL(refused, counter, "Blocks dropped for their format"),
    TAVISTRO_TOTAL(capture_dropped, counter, "Captured blocks dropped"),
    TAVISTRO_TROUBLE(replaced, "Blocks that silence was played for"),
    TAVISTRO_TROUBLE(repeated, "Blocks that came again, or after silence had taken their place"),
    TAVISTRO_TROUBLE(notices_missed, "Notices fewer than blocks"),
    TAVISTRO_TOTAL(notices_missed_alone, counter, "Notices missed beyond the blocks that were"),
    TAVISTRO_TROUBLE(notice_gaps, "Spans of missed notices, longer than what the buffer holds"),
    TAVISTRO_TROUBLE(silence, "Milliseconds without anything from the server"),
    TAVISTRO_TROUBLE(late, "Spans without a notice, half as long as the buffer, made up for then"),
    TAVISTRO_TROUBLE(periods_short, "Device periods too few, in seconds with clearly too few"),
    TAVISTRO_TROUBLE(periods_long, "Device periods too many, in seconds with clearly too many"),
    TAVISTRO_TROUBLE(pauses, "Pauses of this computer's threads, each longer than a block"),
    TAVISTRO_TROUBLE(unexplained, "Drop-outs with no other trouble in the seconds around"),
    TAVISTRO_TOTAL(long_pauses, counter, "Pauses longer than half of what the buffer holds"),
    TAVISTRO_TOTAL(paused_periods, counter, "Device periods that the pauses would cost"),
    TAVISTRO_TOTAL(longest_pause_us, gauge, "Longest pause in microseconds"),
    TAVISTRO_TOTAL(longest_late_us, gauge, "Longest such span without a notice in microseconds"),
    TAVISTRO_TOTAL(shortest_second_ppm, gauge,
                   "How much the second with the fewest device periods was short, in ppm"),
    TAVISTRO_REAL_TOTAL(server_faster_ppm,
                        "Server's blocks against the device's periods in parts per million"),
    TAVISTRO_REAL_TOTAL(clock_uncertainty_ppm,
                        "Uncertainty of server_faster_ppm, plus or minus; 0 for not known yet"),
};
static_assert(sizeof(Totals) == std::size(table) * sizeof(std::int64_t), "a field is missing");

#undef TAVISTRO_TROUBLE
#undef TAVISTRO_TROUBLE_PART
#undef TAVISTRO_REAL_TOTAL
#undef TAVISTRO_TOTAL

}  // namespace

std::span<const TotalsField> totals_fields() {
    return table;
}

TotalsNumber number(const Totals& totals, const TotalsField& field) {
    const auto* const at = reinterpret_cast<const std::byte*>(&totals) + field.offset;
    const auto read = [at](auto value) {
        std::memcpy(&value, at, sizeof value);
        return TotalsNumber(value);
    };
    return field.is_real ? read(double{}) : read(std::int64_t{});
}

void set_number(Totals& totals, const TotalsField& field, TotalsNumber value) {
    auto* const at = reinterpret_cast<std::byte*>(&totals) + field.offset;
    std::visit([at](auto plain) { std::memcpy(at, &plain, sizeof plain); }, value);
}

}  // namespace tavistro::monitor
