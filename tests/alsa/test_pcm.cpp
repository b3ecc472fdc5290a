// The ALSA plugin that acts as the test's sound card.

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>

#include "alsa/test_card.h"

extern "C" __attribute__((visibility("default"))) tavistro::test::TestCard tavistro_test_card;
tavistro::test::TestCard tavistro_test_card;

namespace {

using Clock = std::chrono::steady_clock;
using Frame = std::array<unsigned char, 1024>;

const auto& card = tavistro_test_card;

struct Stream {
    snd_pcm_ioplug_t io{};
    snd_pcm_t* pcm = nullptr;
    bool running = false, xrun = false;
    std::uint64_t begin = 0;  ///< the card's position at the start
};

std::mutex mutex;        // of all below
Stream* streams[2];      // by snd_pcm_stream_t; null: closed
std::uint64_t position;  // in frames, of the card
Clock::time_point clock_origin;

Stream& of(snd_pcm_ioplug_t* io) {
    return *static_cast<Stream*>(io->private_data);
}
bool is_playback(const Stream& stream) {
    return stream.io.stream == SND_PCM_STREAM_PLAYBACK;
}
std::uint64_t done(const Stream& stream) {
    return position - stream.begin;
}
/// Frames that the program may write or read.
std::uint64_t available(const Stream& stream) {
    const std::uint64_t ahead = is_playback(stream) ? stream.io.buffer_size : 0;
    return done(stream) + ahead - stream.io.appl_ptr;
}

void move_frame(Stream& stream, Frame& frame) {
    const auto* areas = snd_pcm_ioplug_mmap_areas(&stream.io);
    const auto bytes =
        static_cast<std::size_t>(snd_pcm_format_physical_width(stream.io.format)) / 8;
    const std::uint64_t index = done(stream) % stream.io.buffer_size;
    for (unsigned channel = 0; channel < stream.io.channels; ++channel) {
        const auto& area = areas[channel];
        auto* memory =
            static_cast<unsigned char*>(area.addr) + (area.first + area.step * index) / 8;
        auto* sample = frame.data() + channel * bytes;
        if (is_playback(stream))
            std::memcpy(sample, memory, bytes);
        else
            std::memcpy(memory, sample, bytes);
    }
}

void advance_frame() {
    Frame frame;
    frame.fill(0x11);  // recorded without an output
    for (Stream* stream : streams) {
        if (stream == nullptr || !stream->running) continue;
        move_frame(*stream, frame);
        if (is_playback(*stream) &&
            std::ranges::any_of(frame, [](auto byte) { return byte != 0 && byte != 0x11; }))
            ++tavistro_test_card.frames_with_sound;
    }
    ++position;
}

std::uint64_t clock_position(unsigned rate) {
    const std::chrono::duration<double> time = Clock::now() - clock_origin;
    return static_cast<std::uint64_t>(time.count() * rate * (1 + card.drift_ppm * 1e-6));
}

bool is_served(const Stream& stream) {
    return stream.running && available(stream) < stream.io.period_size;
}

void advance() {
    const auto opened = [](const Stream* stream) { return stream != nullptr; };
    const Stream& any = **std::ranges::find_if(streams, opened);
    if (card.has_clock) {
        for (const std::uint64_t now = clock_position(any.io.rate); position < now;)
            advance_frame();
    } else if (std::ranges::all_of(streams,
                                   [](const Stream* s) { return s == nullptr || is_served(*s); })) {
        for (std::uint64_t i = 0; i < any.io.period_size; ++i)
            advance_frame();
    }
    const bool command = card.xruns_to_come > 0 && streams[0] != streams[1];
    if (command) --tavistro_test_card.xruns_to_come;
    for (Stream* stream : streams) {
        if (stream == nullptr || !stream->running) continue;
        if (command || available(*stream) > stream->io.buffer_size) stream->xrun = true;
    }
}

// The functions of the plugin.

int start(snd_pcm_ioplug_t* io) {
    const std::lock_guard lock(mutex);
    Stream& stream = of(io);
    if (std::ranges::none_of(streams, [](const Stream* s) { return s != nullptr && s->running; })) {
        clock_origin = Clock::now();
        position = 0;
    }
    stream.begin = position;
    stream.running = true;
    return 0;
}

int stop(snd_pcm_ioplug_t* io) {
    const std::lock_guard lock(mutex);
    of(io).running = of(io).xrun = false;
    return 0;
}

snd_pcm_sframes_t pointer(snd_pcm_ioplug_t* io) {
    const std::lock_guard lock(mutex);
    const Stream& stream = of(io);
    if (stream.xrun) return -EPIPE;
    return stream.running ? static_cast<snd_pcm_sframes_t>(done(stream)) : 0;
}

int poll_revents(snd_pcm_ioplug_t* io, pollfd* descriptors, unsigned, unsigned short* events) {
    const std::lock_guard lock(mutex);
    std::uint64_t ticks = 0;
    if (card.has_clock && descriptors->revents != 0)
        (void)!read(descriptors->fd, &ticks, sizeof(ticks));
    if (card.stalled) {
        constexpr itimerspec never{};
        timerfd_settime(io->poll_fd, 0, &never, nullptr);
        *events = 0;
        return 0;
    }
    if (!card.present) {
        io->state = SND_PCM_STATE_DISCONNECTED;
        *events = POLLERR | POLLNVAL;
        return 0;
    }
    advance();
    const Stream& stream = of(io);
    if (stream.xrun)
        *events = POLLERR;
    else if (available(stream) >= io->period_size)
        *events = is_playback(stream) ? POLLOUT : POLLIN;
    else
        *events = 0;
    return 0;
}

int close(snd_pcm_ioplug_t* io) {
    const std::lock_guard lock(mutex);
    streams[io->stream] = nullptr;
    ::close(io->poll_fd);
    delete &of(io);
    return 0;
}

const snd_pcm_ioplug_callback_t callbacks = [] {
    snd_pcm_ioplug_callback_t functions{};
    functions.start = start;
    functions.stop = stop;
    functions.pointer = pointer;
    functions.poll_revents = poll_revents;
    functions.close = close;
    return functions;
}();

int make_descriptor() {
    if (!card.has_clock) return eventfd(1, EFD_CLOEXEC);
    constexpr timespec tick{.tv_sec = 0, .tv_nsec = 500'000};
    const itimerspec every{.it_interval = tick, .it_value = tick};
    const int descriptor = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    timerfd_settime(descriptor, 0, &every, nullptr);
    return descriptor;
}

int limit(snd_pcm_ioplug_t* io, int parameter, std::vector<unsigned> values) {
    return snd_pcm_ioplug_set_param_list(io, parameter, static_cast<unsigned>(values.size()),
                                         values.data());
}

int set_limits(snd_pcm_ioplug_t* io) {
    const unsigned channels = io->stream == SND_PCM_STREAM_PLAYBACK ? card.outputs : card.inputs;
    const auto frame_bytes =
        channels * static_cast<unsigned>(snd_pcm_format_physical_width(card.format)) / 8;
    std::vector<unsigned> bytes;
    for (const unsigned frames : card.blocks)
        bytes.push_back(frames * frame_bytes);
    constexpr unsigned most_periods = 8;
    const int faults[] = {
        limit(io, SND_PCM_IOPLUG_HW_ACCESS, {SND_PCM_ACCESS_MMAP_INTERLEAVED}),
        limit(io, SND_PCM_IOPLUG_HW_FORMAT, {static_cast<unsigned>(card.format)}),
        snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS,
                                        card.any_channels ? 1 : channels,
                                        card.any_channels ? 64 : channels),
        limit(io, SND_PCM_IOPLUG_HW_RATE, card.rates),
        limit(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, bytes),
        snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, bytes.front() * 2,
                                        bytes.back() * most_periods),
        snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, card.fewest_periods,
                                        most_periods)};
    return *std::ranges::min_element(faults);
}

int open_side(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t direction, int mode) {
    const std::lock_guard lock(mutex);
    if (!card.present) return -ENODEV;
    if ((direction == SND_PCM_STREAM_PLAYBACK ? card.outputs : card.inputs) == 0) return -ENOENT;
    if (card.busy || streams[direction] != nullptr) return -EBUSY;
    auto* stream = new Stream;
    snd_pcm_ioplug_t& io = stream->io;
    io.version = SND_PCM_IOPLUG_VERSION;
    io.name = "test card";
    io.callback = &callbacks;
    io.private_data = stream;
    io.mmap_rw = 1;
    io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    io.poll_fd = make_descriptor();
    io.poll_events = POLLIN;
    int fault = snd_pcm_ioplug_create(&io, name, direction, mode);
    if (fault == 0) fault = set_limits(&io);
    if (fault != 0) {
        ::close(io.poll_fd);
        delete stream;
        return fault;
    }
    streams[direction] = stream;
    *pcm = io.pcm;
    return 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) SND_PCM_PLUGIN_DEFINE_FUNC(tavistro_test) {
    static_cast<void>(root);
    static_cast<void>(conf);
    return open_side(pcmp, name, stream, mode);
}

__attribute__((visibility("default"))) SND_PCM_PLUGIN_SYMBOL(tavistro_test);
}
