#include "tools/readings/texts.h"

#include <algorithm>
#include <iterator>

namespace tavistro::readings {

namespace {

// Indexed by the codes, which start at 0.
constexpr std::string_view states[] = {"Idle",       "Starting", "Connected", "Running",
                                       "Restarting", "Stopping", "Stopped",   "Failed"};
static_assert(std::size(states) == TAVISTRO_STATE_FAILED + 1);

constexpr std::string_view levels[] = {"none", "healthy", "warning", "pending", "error"};
static_assert(std::size(levels) == TAVISTRO_LEVEL_ERROR + 1);

constexpr std::string_view categories[] = {"engine",
                                           "network",
                                           "device stall",
                                           "sample rate mismatch",
                                           "block size mismatch",
                                           "underrun",
                                           "overrun",
                                           "capture drop",
                                           "playback drop",
                                           "audio device",
                                           "device reset",
                                           "output-ready failure",
                                           "compatibility"};
static_assert(std::size(categories) == TAVISTRO_CATEGORY_COMPATIBILITY + 1);

constexpr CodeText event_kinds[] = {
    {TAVISTRO_EVENT_RECOVERY_REQUESTED, "recovery requested"},
    {TAVISTRO_EVENT_ATTEMPT_STARTED, "attempt started"},
    {TAVISTRO_EVENT_ATTEMPT_FAILED, "attempt failed"},
    {TAVISTRO_EVENT_RECOVERED, "recovered"},
    {TAVISTRO_EVENT_GAVE_UP, "gave up"},
};

constexpr CodeText errors[] = {
    {TAVISTRO_ERROR_NONE, "none"},
    {TAVISTRO_ERROR_NO_CONFIG_PATH, "no configuration path"},
    {TAVISTRO_ERROR_ALREADY_STARTED, "already started"},
    {TAVISTRO_ERROR_CONFIG_INVALID, "configuration invalid"},
    {TAVISTRO_ERROR_CLIENT_START_FAILED, "network client did not start"},
    {TAVISTRO_ERROR_STOPPED_BEFORE_STREAM, "stopped before the stream began"},
    {TAVISTRO_ERROR_STREAM_FORMAT_REJECTED, "stream format rejected"},
    {TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, "audio device failed"},
    {TAVISTRO_ERROR_WORKER_START_FAILED, "worker thread did not start"},
    {TAVISTRO_ERROR_STATS_BLOCK_FAILED, "statistics block failed"},
    {TAVISTRO_ERROR_SERVER_INCOMPATIBLE, "server incompatible"},
};

constexpr CodeText advice[] = {
    {TAVISTRO_ERROR_CLIENT_START_FAILED,
     "Is the server running? Are server_ip and server_port right? Does the firewall allow UDP?"},
    {TAVISTRO_ERROR_AUDIO_DEVICE_FAILED,
     "Do input_map and output_map fit the device? Does it support the stream's block size and "
     "sample "
     "rate (see tavistro-host devices)? Unless loopback_device is on: is the driver of driver_name "
     "installed and not in use?"},
    {TAVISTRO_ERROR_STATS_BLOCK_FAILED,
     "Does another user's process hold the statistics block of this client_id?"},
    {TAVISTRO_ERROR_SERVER_INCOMPATIBLE, "Server and engine must speak the same protocol version."},
};

constexpr CodeText messages[] = {
    {TAVISTRO_MESSAGE_NONE, "none"},
    {TAVISTRO_MESSAGE_NO_CONFIG_PATH, "No configuration path was given"},
    {TAVISTRO_MESSAGE_ALREADY_STARTED, "A run was started already and not stopped yet"},
    {TAVISTRO_MESSAGE_STARTING, "Starting"},
    {TAVISTRO_MESSAGE_WORKER_START_FAILED, "The worker thread could not be started"},
    {TAVISTRO_MESSAGE_CONFIG_NOT_LOADED, "The configuration could not be loaded"},
    {TAVISTRO_MESSAGE_STATS_BLOCK_FAILED, "The shared statistics block could not be created"},
    {TAVISTRO_MESSAGE_STOPPED, "Stopped"},
    {TAVISTRO_MESSAGE_WAITING_FOR_STREAM, "Waiting for the server's stream format"},
    {TAVISTRO_MESSAGE_STOPPED_BEFORE_STREAM, "Stopped before the stream format arrived"},
    {TAVISTRO_MESSAGE_STREAM_FORMAT_REFUSED, "The network client refused the stream format"},
    {TAVISTRO_MESSAGE_RUNNING, "Running normally"},
    {TAVISTRO_MESSAGE_STOPPING, "Stopping"},
    {TAVISTRO_MESSAGE_CLIENT_ATTEMPT, "Starting the network client once more"},
    {TAVISTRO_MESSAGE_CLIENT_ATTEMPT_FAILED, "The network client did not start; retrying"},
    {TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT, "Waiting before the next network client attempt"},
    {TAVISTRO_MESSAGE_CLIENT_FAILED, "The network client failed on all attempts"},
    {TAVISTRO_MESSAGE_ASIO_START_FAILED, "The ASIO audio path failed to start"},
    {TAVISTRO_MESSAGE_ASIO_ATTEMPT, "Starting the ASIO audio path once more"},
    {TAVISTRO_MESSAGE_ASIO_RETRY_WAIT, "Waiting before the next ASIO attempt"},
    {TAVISTRO_MESSAGE_ASIO_FAILED, "The ASIO audio path failed on all attempts"},
    {TAVISTRO_MESSAGE_LOOPBACK_START_FAILED, "The loopback audio path failed to start"},
    {TAVISTRO_MESSAGE_FORMAT_CHANGED, "Stream format changed; restarting the audio path"},
    {TAVISTRO_MESSAGE_RECOVERY_GAVE_UP, "Device recovery gave up"},
    {TAVISTRO_MESSAGE_RECOVERY_ATTEMPT, "Recovering the device"},
    {TAVISTRO_MESSAGE_RECOVERY_FORMAT_REFUSED,
     "The network client refused the format during device recovery"},
    {TAVISTRO_MESSAGE_RECOVERY_ATTEMPT_FAILED, "Device recovery attempt failed; retrying"},
    {TAVISTRO_MESSAGE_DEVICE_RECOVERED, "Device recovered; running"},
    {TAVISTRO_MESSAGE_SYNC_LOST, "Nothing heard from the server for more than 3 seconds"},
    {TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED, "The device asked for a reset"},
    {TAVISTRO_MESSAGE_SAMPLE_RATE_DIFFERS,
     "The device runs at another sample rate than the stream"},
    {TAVISTRO_MESSAGE_BLOCK_SIZE_DIFFERS,
     "Block sizes differ, or blocks of another format were rejected"},
    {TAVISTRO_MESSAGE_DEVICE_STALLED, "The device has stalled"},
    {TAVISTRO_MESSAGE_OUTPUT_READY_FAILURES, "The device's output-ready call failed"},
    {TAVISTRO_MESSAGE_CAPTURE_DROPS, "Captured audio was dropped"},
    {TAVISTRO_MESSAGE_PLAYBACK_DROPS, "Received audio was dropped"},
    {TAVISTRO_MESSAGE_OVERRUNS, "The playback buffer overran"},
    {TAVISTRO_MESSAGE_UNDERRUNS, "The playback buffer ran empty"},
    {TAVISTRO_MESSAGE_EVENT_RECOVERY_REQUESTED, "Device recovery requested"},
    {TAVISTRO_MESSAGE_EVENT_CLIENT_RETRY, "Network client retry started"},
    {TAVISTRO_MESSAGE_EVENT_ASIO_RETRY, "ASIO retry started"},
    {TAVISTRO_MESSAGE_EVENT_RECOVERY_ATTEMPT, "Device recovery attempt started"},
    {TAVISTRO_MESSAGE_EVENT_CLIENT_FAILED, "Network client attempt failed"},
    {TAVISTRO_MESSAGE_EVENT_ASIO_FAILED, "ASIO attempt failed"},
    {TAVISTRO_MESSAGE_EVENT_RECOVERY_FAILED, "The audio path did not restart"},
    {TAVISTRO_MESSAGE_EVENT_RECOVERY_FORMAT_REFUSED, "The network client refused the format"},
    {TAVISTRO_MESSAGE_EVENT_CLIENT_RECOVERED, "Network client started after retries"},
    {TAVISTRO_MESSAGE_EVENT_ASIO_RECOVERED, "ASIO audio path started after retries"},
    {TAVISTRO_MESSAGE_EVENT_DEVICE_RECOVERED, "Device recovered"},
    {TAVISTRO_MESSAGE_EVENT_CLIENT_GAVE_UP, "Network client retries exhausted"},
    {TAVISTRO_MESSAGE_EVENT_ASIO_GAVE_UP, "ASIO retries exhausted"},
    {TAVISTRO_MESSAGE_EVENT_RECOVERY_GAVE_UP, "Device recovery attempts exhausted"},
    {TAVISTRO_MESSAGE_SERVER_INCOMPATIBLE, "The server is not compatible with this engine"},
};

std::string_view text_at(std::span<const std::string_view> texts, std::uint32_t code) {
    return code < texts.size() ? texts[code] : "unknown";
}

}  // namespace

std::string_view text_of(std::span<const CodeText> table, std::int64_t code,
                         std::string_view otherwise) {
    const auto found = std::ranges::find(table, code, &CodeText::code);
    return found == table.end() ? otherwise : found->text;
}

std::string_view state_text(std::uint32_t state) {
    return text_at(states, state);
}
std::string_view level_text(std::uint32_t level) {
    return text_at(levels, level);
}
std::string_view category_text(std::uint32_t category) {
    return text_at(categories, category);
}
std::string_view event_kind_text(std::uint32_t kind) {
    return text_of(event_kinds, kind);
}
std::string_view error_text(std::uint32_t error) {
    return text_of(errors, error);
}
std::string_view message_text(std::uint32_t message) {
    return text_of(messages, message);
}

std::string failure_text(const tavistro_engine_state& state, std::string_view config_path) {
    std::string text(message_text(state.error_detail));
    if (state.error_code == TAVISTRO_ERROR_CONFIG_INVALID) {
        return text.append(". For the reason run: tavistro-host check ").append(config_path);
    }
    const std::string_view hint = text_of(advice, state.error_code, "");
    return hint.empty() ? text + '.' : text.append(". ").append(hint);
}

}  // namespace tavistro::readings
