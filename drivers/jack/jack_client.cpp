#include "drivers/jack/jack_client.h"

#include <pthread.h>

namespace tavistro::jack {
namespace {

constexpr const char* client_name = "tavistro";  // JACK appends a number if the name is taken

void discard(const char*) {}

/// libjack may cancel its threads at any time, which unwinds the stack. That must not happen inside
/// the host's functions, so cancellation is disabled around `body`. No destructor restores the
/// state, because a pending cancellation may unwind from that very call.
template <typename Body>
void uncancelled(Body body) {
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    body();
    pthread_setcancelstate(state, nullptr);
}

std::string refusal(jack_status_t status) {
    if ((status & JackServerFailed) == 0)
        return "The JACK server rejected the client (status " + std::to_string(status) + ").";
    return "No JACK server is running, or none with the name in JACK_DEFAULT_SERVER.";
}

}  // namespace

std::string JackClient::open() {
    // Suppress libjack's messages: the status has the reason. These functions apply to the whole
    // process.
    jack_set_error_function(discard);
    jack_set_info_function(discard);
    jack_status_t status{};
    handle_.reset(jack_client_open(client_name, JackNoStartServer, &status));
    if (!handle_) return refusal(status);
    physical_captures_ = physical_ports(JackPortIsOutput);
    physical_playbacks_ = physical_ports(JackPortIsInput);
    rate_ = jack_get_sample_rate(handle_.get());
    listen();
    return {};
}

void JackClient::listen() noexcept {
    jack_set_process_callback(
        handle_.get(),
        [](jack_nframes_t frames, void* listener) {
            uncancelled([&] { static_cast<JackListener*>(listener)->on_period(frames); });
            return 0;
        },
        &listener_);
    jack_set_xrun_callback(
        handle_.get(),
        [](void* listener) {
            uncancelled([&] { static_cast<JackListener*>(listener)->on_missed_deadline(); });
            return 0;
        },
        &listener_);
    jack_set_sample_rate_callback(
        handle_.get(),
        [](jack_nframes_t rate, void* client) {
            static_cast<JackClient*>(client)->rate_ = rate;
            return 0;
        },
        this);
    jack_on_info_shutdown(
        handle_.get(),
        [](jack_status_t, const char*, void* client) {
            uncancelled([&] {
                auto& self = *static_cast<JackClient*>(client);
                self.server_lost_ = true;
                self.listener_.on_server_lost();
            });
        },
        this);
}

bool JackClient::activate() noexcept {
    return !server_lost_ && jack_activate(handle_.get()) == 0;
}

jack_nframes_t JackClient::period_frames() const noexcept {
    return handle_ ? jack_get_buffer_size(handle_.get()) : 0;
}

/// Full port names in the server's order.
std::vector<std::string> JackClient::physical_ports(unsigned long flags) const {
    const std::unique_ptr<const char*[], decltype(&jack_free)> names(
        jack_get_ports(handle_.get(), nullptr, JACK_DEFAULT_AUDIO_TYPE, JackPortIsPhysical | flags),
        &jack_free);
    std::vector<std::string> ports;
    for (const char** name = names.get(); name != nullptr && *name != nullptr; ++name)
        ports.emplace_back(*name);
    return ports;
}

jack_nframes_t JackClient::physical_latency(bool is_input, std::size_t number) const noexcept {
    const auto& ports = physical(is_input);
    jack_port_t* port =
        number < ports.size() ? jack_port_by_name(handle_.get(), ports[number].c_str()) : nullptr;
    jack_latency_range_t range{};
    if (port != nullptr)
        jack_port_get_latency_range(port, is_input ? JackCaptureLatency : JackPlaybackLatency,
                                    &range);
    return range.max;
}

jack_port_t* JackClient::add_port(bool is_input, const char* name) noexcept {
    return jack_port_register(handle_.get(), name, JACK_DEFAULT_AUDIO_TYPE,
                              is_input ? JackPortIsInput : JackPortIsOutput, 0);
}

void JackClient::connect(jack_port_t* port, bool is_input, std::size_t number) noexcept {
    const auto& ports = physical(is_input);
    if (number >= ports.size()) return;
    const char* ours = jack_port_name(port);
    const char* theirs = ports[number].c_str();
    jack_connect(handle_.get(), is_input ? theirs : ours, is_input ? ours : theirs);
}

}  // namespace tavistro::jack
