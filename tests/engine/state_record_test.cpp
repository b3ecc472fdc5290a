#include "engine/state_record.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace tavistro {
namespace {

TEST(StateRecord, LateReportDoesNotOverwriteTheStatusOfAnEndedRun) {
    StateRecord record;
    record.set_state(EngineState::Stopped, status_stopped);
    record.set_status_while_running(status_running);
    EXPECT_EQ(record.snapshot_state().status_message, TAVISTRO_MESSAGE_STOPPED);
}

TEST(StateRecord, MetersFollowTheConfiguredChannelsAndSurviveTheNextStart) {
    StateRecord record;
    record.set_meter_channels(std::array{7, 3}, std::vector(40, 0));
    PlayerTelemetry telemetry;
    telemetry.input_peak_count = telemetry.output_peak_count = 2;
    telemetry.input_peaks = {100, 200};
    telemetry.output_peaks = {400, 500};
    record.update_meters(telemetry);
    telemetry.input_peak_count = 1;
    record.update_meters(telemetry);
    record.reset_for_start();
    auto state = record.snapshot_state();
    EXPECT_EQ(state.input_meters[0].peak_permille, 100u);
    EXPECT_EQ(state.input_meters[1].channel, 3u);
    EXPECT_EQ(state.input_meters[1].peak_permille, 0u) << "no peak was reported";
    EXPECT_EQ(state.output_meter_count, 32u);
    EXPECT_EQ(state.output_meters[1].peak_permille, 500u);
    record.set_meter_channels(std::array{7}, {});
    EXPECT_EQ(record.snapshot_state().input_meters[0].peak_permille, 0u)
        << "peak of the previous run";
}

}  // namespace
}  // namespace tavistro
