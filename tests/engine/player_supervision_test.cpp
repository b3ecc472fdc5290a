#include "engine/player_supervision.h"

#include <gtest/gtest.h>

#include <tuple>

namespace tavistro {
namespace {

using T = PlayerTelemetry;
using Triple = std::array<std::uint32_t, 3>;

constexpr Triple healthy{1, 0, 11};

Triple status_of(const Verdict& v) {
    return {code_of(v.status.level), code_of(v.status.category), code_of(v.status.message)};
}

TEST(PlayerSupervision, ShowsTheMostImportantStatusOfEachReport) {
    // Change since the previous report; expected status; expected recovery reason, 0 for none.
    const std::tuple<const char*, void (*)(T&), Triple, std::uint32_t> reports[] = {
        {"all counters rise at once", [](T& t) { t.callbacksPerSec = 375; }, {2, 11, 33}, 0},
        {"then capture drops", [](T&) {}, {2, 7, 34}, 0},
        {"then playback drops", [](T&) {}, {2, 8, 35}, 0},
        {"then overruns", [](T&) {}, {2, 6, 36}, 0},
        {"then underruns", [](T&) {}, {2, 5, 37}, 0},
        {"quiet again", [](T&) {}, healthy, 0},

        {"different rate", [](T& t) { t.actual_sample_rate = 44100; }, {2, 3, 30}, 0},
        {"rate unknown", [](T& t) { t.actual_sample_rate = 0; }, healthy, 0},
        {"and blocks in another format", [](T& t) { t.format_drops = 6; }, {2, 3, 30}, 0},
        {"rate known", [](T& t) { t.actual_sample_rate = 48000; }, healthy, 0},
        {"different size", [](T& t) { t.actual_block_frames = 256; }, {2, 4, 31}, 0},
        {"size unknown", [](T& t) { t.configured_block_size = 0; }, healthy, 0},

        {"no periods", [](T& t) { t.callbacksPerSec = 0, t.underruns = 5; }, {2, 5, 37}, 0},
        {"stalled", [](T&) {}, {2, 2, 32}, 2},
        {"periods again", [](T& t) { t.callbacksPerSec = 3; }, healthy, 0},
        {"never called back", [](T& t) { t.callbacksPerSec = t.callbacks_total = 0; }, healthy, 0},
        {"no periods again", [](T& t) { t.callbacks_total = 9; }, healthy, 0},
        {"mismatch, does not count", [](T& t) { t.format_drops = 7; }, {2, 4, 31}, 0},
        {"stalled again", [](T&) {}, {2, 2, 32}, 2},
        {"lost device", [](T& t) { t.format_drops = 8, t.device_fault = true; }, {2, 10, 29}, 10},
    };
    PlayerSupervision supervision;
    T telemetry;
    telemetry.callbacks_total = 375;
    telemetry.configured_sample_rate = telemetry.actual_sample_rate = 48000;
    telemetry.configured_block_size = telemetry.actual_block_frames = 128;
    const T fresh = telemetry;  // no period in this first second
    telemetry.underruns = telemetry.overruns = telemetry.playbackDropped = 4;
    telemetry.captureDropped = telemetry.output_ready_failures = 4;
    for (const auto& [what, change, status, reason] : reports) {
        change(telemetry);
        const Verdict verdict = supervision.evaluate(telemetry, false);
        EXPECT_EQ(status_of(verdict), status) << what;
        EXPECT_EQ(code_of(verdict.recovery_reason.value_or(StatusCategory::Engine)), reason)
            << what;
    }
    EXPECT_EQ(status_of(supervision.evaluate(telemetry, true)), (Triple{3, 1, 28}))
        << "sync loss has priority";
    supervision.reset_supervision();
    EXPECT_EQ(status_of(supervision.evaluate(fresh, false)), healthy) << "after a restart";
}

}  // namespace
}  // namespace tavistro
