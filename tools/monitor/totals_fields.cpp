#include "tools/monitor/totals_fields.h"

namespace tavistro::monitor {

namespace {

using readings::Field;
using readings::FieldKind;
using readings::FieldType;

#define FIELD(name, offset, type, kind, help) \
    { name, offset, FieldType::type, FieldKind::kind, help }
#define TOTAL(name, kind, help) FIELD(#name, offsetof(Totals, name), i64, kind, help)
#define REAL_TOTAL(name, help) FIELD(#name, offsetof(Totals, name), real, gauge, help)
#define TROUBLE_PART(name, part, help) \
    FIELD(#name "_" #part, offsetof(Totals, name) + offsetof(Trouble, part), i64, counter, help)
/// `what` is counted, and begins with a capital.
#define TROUBLE(name, what)                                                                      \
    TROUBLE_PART(name, count, what), TROUBLE_PART(name, seconds, what ": seconds that had any"), \
        TROUBLE_PART(name, drop_outs, what ": drop-outs in those seconds or beside them")

constexpr Field table[] = {
    TOTAL(run, gauge, "Number of the run; with it all counts begin anew"),
    TOTAL(watched_ms, counter, "Milliseconds since the run was first seen"),
    TOTAL(reported_ms, counter, "Milliseconds that the engine's reports cover"),
    TOTAL(blocks, counter, "Blocks handed to the player, silence for missing ones too"),
    TOTAL(notices, counter, "Notices of the server's clock"),
    TOTAL(periods, counter, "Device periods"),
    TOTAL(underruns, counter, "Device periods without a block to play"),
    TOTAL(overruns, counter, "Blocks that found the playback buffer full"),
    TOTAL(refused, counter, "Blocks dropped for their format"),
    TOTAL(capture_dropped, counter, "Captured blocks dropped"),
    TROUBLE(replaced, "Blocks that silence was played for"),
    TROUBLE(repeated, "Blocks that came again, or after silence had taken their place"),
    TROUBLE(notices_missed, "Notices fewer than blocks"),
    TOTAL(notices_missed_alone, counter, "Notices missed beyond the blocks that were"),
    TROUBLE(notice_gaps, "Spans of missed notices, longer than what the buffer holds"),
    TROUBLE(silence, "Milliseconds without anything from the server"),
    TROUBLE(late, "Spans without a notice, half as long as the buffer, made up for then"),
    TROUBLE(periods_short, "Device periods too few, in seconds with clearly too few"),
    TROUBLE(periods_long, "Device periods too many, in seconds with clearly too many"),
    TROUBLE(pauses, "Pauses of this computer's threads, each longer than a block"),
    TROUBLE(unexplained, "Drop-outs with no other trouble in the seconds around"),
    TOTAL(long_pauses, counter, "Pauses longer than half of what the buffer holds"),
    TOTAL(paused_periods, counter, "Device periods that the pauses would cost"),
    TOTAL(longest_pause_us, gauge, "Longest pause in microseconds"),
    TOTAL(longest_late_us, gauge, "Longest such span without a notice in microseconds"),
    TOTAL(shortest_second_ppm, gauge,
          "How much the second with the fewest device periods was short, in ppm"),
    REAL_TOTAL(server_faster_ppm,
               "Server's blocks against the device's periods in parts per million"),
    REAL_TOTAL(clock_uncertainty_ppm,
               "Uncertainty of server_faster_ppm, plus or minus; 0 for not known yet"),
};
static_assert(sizeof(Totals) == std::size(table) * sizeof(std::int64_t), "a field is missing");

#undef TROUBLE
#undef TROUBLE_PART
#undef REAL_TOTAL
#undef TOTAL
#undef FIELD

}  // namespace

std::span<const Field> totals_fields() {
    return table;
}

}  // namespace tavistro::monitor
