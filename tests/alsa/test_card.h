// A sound card without hardware: an ALSA plugin whose outputs are connected to its inputs. Settings
// and commands are shared by the test and the plugin, which are in one process.
#pragma once

#include <alsa/asoundlib.h>

#include <atomic>
#include <cstdint>
#include <vector>

namespace tavistro::test {

struct TestCard {
    // Read when a side is opened.
    snd_pcm_format_t format = SND_PCM_FORMAT_S32_LE;
    unsigned outputs = 2, inputs = 2;  ///< channels; 0: no such side
    bool any_channels = false;         ///< up to 64, not only as many
    std::vector<unsigned> rates{44100, 48000};
    std::vector<unsigned> blocks{64, 128, 256, 512};  ///< period sizes in frames
    unsigned fewest_periods = 2;                      ///< in its buffer
    /// With a clock, the card goes on by the time, whether or not it is served in time. Without
    /// one, it goes on a period when it has been served, however long that takes.
    bool has_clock = false;
    int drift_ppm = 0;

    // At any time.
    std::atomic<bool> present{true};   ///< false: pulled out
    std::atomic<bool> busy{false};     ///< another program has it
    std::atomic<bool> stalled{false};  ///< its clock stands still; only with a clock
    std::atomic<int> xruns_to_come{0};
    std::atomic<std::uint64_t> frames_with_sound{0};  ///< played ones

    /// Exported by the plugin.
    static constexpr const char* symbol = "tavistro_test_card";
};

}  // namespace tavistro::test
