#include "drivers/jack/jack_client.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace tavistro::jack {
namespace {

constexpr const char* client_name = "tavistro";  // JACK appends a number if the name is taken
constexpr const char* thread_name = "tav-jack";
constexpr const char* wishes_variable = "PIPEWIRE_PROPS";  // of new clients

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

/// An entry of the process's environment for the life of the object.
///
/// setenv() frees the array of entries that a getenv() of another thread may be reading. This class
/// swaps in a copy, and keeps it for ever. A setenv() at the same time may still be lost.
class EnvironmentEntry {
  public:
    EnvironmentEntry(const char* name, const std::string& value)
        : kept_(new Kept{.text = std::string(name) + "=" + value, .entries = {}}) {
        kept_->older = newest.exchange(kept_);
        for (char** entry = before_; *entry != nullptr; ++entry)
            kept_->entries.push_back(*entry);
        kept_->entries.push_back(kept_->text.data());
        kept_->entries.push_back(nullptr);
        std::atomic_ref<char**>{environ} = kept_->entries.data();
    }
    EnvironmentEntry(const EnvironmentEntry&) = delete;
    EnvironmentEntry& operator=(const EnvironmentEntry&) = delete;
    ~EnvironmentEntry() {
        char** ours = kept_->entries.data();
        std::atomic_ref<char**>{environ}.compare_exchange_strong(ours, before_);
    }

  private:
    struct Kept {
        std::string text;
        std::vector<char*> entries;
        Kept* older = nullptr;
    };
    static inline std::atomic<Kept*> newest{nullptr};

    Kept* const kept_;
    char** const before_ = environ;
};

}  // namespace

LatencyThread::LatencyThread(JackListener& listener) : listener_(listener) {
    thread_.start("tav-latency", [this] { run(); });
}

LatencyThread::~LatencyThread() {
    ending_ = true;
    event_.signal();
    thread_.join();
}

void LatencyThread::ask(jack_latency_callback_mode_t mode) noexcept {
    (mode == JackCaptureLatency ? capture_ : playback_) = true;
    event_.signal();
}

void LatencyThread::run() {
    constexpr std::uint32_t long_ms = 60000;
    while (!ending_) {
        if (capture_.exchange(false)) listener_.on_latencies(JackCaptureLatency);
        if (playback_.exchange(false)) listener_.on_latencies(JackPlaybackLatency);
        event_.wait_for_ms(long_ms);
    }
}

bool JackClient::is_pipewire() noexcept {
    return std::strstr(jack_get_version_string(), "PipeWire") != nullptr;
}

std::string JackClient::open() {
    // Suppress libjack's messages: the status has the reason. These functions apply to the whole
    // process.
    jack_set_error_function(discard);
    jack_set_info_function(discard);
    return open_client();
}

std::string JackClient::ask_for_period(std::size_t frames) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): only against a setenv() of another thread
    const bool are_users = std::getenv(wishes_variable) != nullptr;
    if (!is_pipewire() || frames == asked_frames_ || are_users) return {};
    // By itself libjack would keep other programs from changing the period. PIPEWIRE_LATENCY, which
    // pw-jack -p sets, overrides the one here.
    const EnvironmentEntry wishes(
        wishes_variable, "{ node.lock-quantum = false node.latency = " + std::to_string(frames) +
                             "/" + std::to_string(rate_.load()) + " }");
    handle_.reset();
    asked_frames_ = frames;
    return open_client();
}

std::string JackClient::open_client() {
    if (is_pipewire() && latencies_ == nullptr)
        latencies_ = std::make_unique<LatencyThread>(listener_);
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
    jack_set_thread_init_callback(
        handle_.get(), [](void*) { pthread_setname_np(pthread_self(), thread_name); }, nullptr);
    jack_set_process_callback(
        handle_.get(),
        [](jack_nframes_t frames, void* listener) {
            uncancelled([&] { static_cast<JackListener*>(listener)->on_period(frames); });
            return 0;
        },
        &listener_);
    jack_set_buffer_size_callback(
        handle_.get(),
        [](jack_nframes_t, void* listener) {
            uncancelled([&] { static_cast<JackListener*>(listener)->on_new_period(); });
            return 0;
        },
        &listener_);
    jack_set_latency_callback(
        handle_.get(),
        [](jack_latency_callback_mode_t mode, void* client) {
            uncancelled([&] {
                auto& self = *static_cast<JackClient*>(client);
                if (self.latencies_ != nullptr)
                    self.latencies_->ask(mode);
                else
                    self.listener_.on_latencies(mode);
            });
        },
        this);
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
