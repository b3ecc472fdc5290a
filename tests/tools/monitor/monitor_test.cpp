// The monitor without engines: what it makes of blocks and samples.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "engine/stats_block.h"
#include "support/eventually.h"
#include "tavistro/engine.h"
#include "tools/monitor/bundle.h"
#include "tools/monitor/formats.h"
#include "tools/monitor/metrics.h"
#include "tools/monitor/observer.h"
#include "tools/monitor/recording.h"
#include "tools/monitor/screen.h"
#include "tools/monitor/terminal.h"
#include "tools/monitor/view.h"
#include "tools/readings/fields.h"

namespace tavistro::monitor {
namespace {

using namespace readings;
using Lines = std::vector<std::string>;

/// A sample in which no two fields have one value, and percentiles lie below their maximum.
Sample distinct_sample() {
    Sample sample{.time_ms = 1'700'000'000'000, .client_id = 3, .presence = Presence::alive};
    sample.stats.emplace();
    std::int64_t next = 20'000;
    for (const Field& field : stats_fields()) {
        if (field.type == FieldType::histogram) {
            Histogram counts;
            for (auto& count : counts)
                count = static_cast<std::uint32_t>(next -= 100);
            set_histogram(&*sample.stats, field, counts);
        } else {
            next -= 100;
            set_number(&*sample.stats, field, field.type == FieldType::i32 ? -next : next);
        }
    }
    for (const Field& field : totals_fields()) {
        next -= 100;
        set_number(&sample.totals, field,
                   field.type == FieldType::real ? Number(-0.1 * static_cast<double>(next)) : next);
    }
    return sample;
}

/// A file of its own that is gone when the test ends.
struct ScratchFile {
    std::string path = testing::TempDir() + "recording-" + std::to_string(std::random_device{}());
    ~ScratchFile() { std::filesystem::remove(path); }
    void write(const std::string& text) const { std::ofstream(path, std::ios::binary) << text; }
    /// What refuses the file; empty when it is taken.
    std::string refused() const {
        try {
            read_recording(path);
            return "";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }
};

TEST(Recording, GivesBackWhatWasRecordedInBothForms) {
    std::vector<Sample> written{
        distinct_sample(), {.time_ms = 1, .client_id = 4}, distinct_sample()};
    written[2].time_ms += 20'000;
    written[2].stats->underruns = 0;
    written[2].stats->rendered_frames = std::uint64_t{1} << 40;
    written[2].totals.server_faster_ppm = 1.0 / 3;
    written[2].presence = Presence::silent;
    written[2].host_late_us = 5;
    const ScratchFile file;
    RecordingWriter writer(file.path);
    EXPECT_THROW(RecordingWriter{file.path}, std::runtime_error) << "it exists";
    std::string text;
    for (const Sample& sample : written) {
        writer.add(sample);
        text += to_json(sample) + "\n";
    }
    const auto expect = [&](std::size_t count) {
        const auto samples = read_recording(file.path);
        ASSERT_EQ(samples.size(), count);
        for (std::size_t i = 0; i < count; ++i)
            EXPECT_EQ(to_json(samples[i]), to_json(written[i])) << i;
    };
    expect(3);  // ten seconds after the first all is in the file, though it has no end yet
    writer.close();
    expect(3);
    std::filesystem::resize_file(file.path, std::filesystem::file_size(file.path) - 20);
    EXPECT_EQ(file.refused(), "") << "its recorder was killed";
    file.write(text + text.substr(0, 100));
    expect(3);
}

TEST(Recording, RefusesWhatIsNoneAndNamesTheLine) {
    const std::string json = to_json(distinct_sample()) + "\n";
    const std::string head = R"({"time_ms":1,"client_id":1,"host_late_us":0,"presence":)";
    const std::string columns = "tavistro recording 1, x\nclient_id," + csv_heading() + "\n";
    const ScratchFile file;
    for (const auto& [text, reason] : std::initializer_list<std::pair<std::string, const char*>>{
             {json + json + "[]\n", "line 3: "},
             {json + "nonsense\n" + json, "line 2: "},
             {head + R"("odd","stats":null,"totals":{}})" + "\n", "line 1: unknown presence odd"},
             {head + R"("alive","stats":{},"totals":{}})" + "\n", "state"},
             {head + R"("absent","stats":null,"totals":{}})" + "\n", "run"},
             {head + R"("absent","stats":null})" + "\n", "an older monitor made it"},
             {columns + "3,1,1\nx,1\n", "line 4: 'x' is no number"},
             {columns + "3,1,9\n", "line 3: there is no presence 9"},
             {columns + "3,1,1," + std::string(500, ',') + "1\n", "too many columns"},
             {"tavistro recording 2, y\nclient_id,other\n", "not this version's: format 2, y"},
             {std::string(70'000, 'x'), "a line has no end"}}) {
        file.write(text);
        EXPECT_NE(file.refused().find(reason), std::string::npos) << reason << file.refused();
        EXPECT_TRUE(file.refused().starts_with(file.path + ": line "));
    }
    EXPECT_NE(ScratchFile().refused().find("cannot be read"), std::string::npos);
}

TEST(Bundle, LeavesAddressesOut) {
    for (const auto& [text, guarded] : std::initializer_list<std::pair<const char*, const char*>>{
             {"server_ip = audio.example.org ; main\n", "server_ip = x ; main\n"},
             {"Server_IP=10.1.2.3\n", "Server_IP=x\n"},
             {"server_ip = auto\n", "server_ip = auto\n"},
             {"server_ip = 127.0.0.1\n", "server_ip = 127.0.0.1\n"},
             {"; was 192.168.1.20, at 12:30:11", "; was x.x.x.x, at 12:30:11"},
             {"fe80::1a:2 and 2001:db8:0:1:2:3:4:5", "x::x and x:x"},
             {"aa:BB:cc:00:11:22, enx001122aabbcc", "xx:xx:xx:xx:xx:xx, enx-x"},
             {"version 5.0.0, 2026-11-26T13:12:34Z", "version 5.0.0, 2026-11-26T13:12:34Z"}})
        EXPECT_EQ(without_addresses(text), guarded);
}

TEST(Formats, TablesHaveAColumnForEachNumber) {
    const Sample sample = distinct_sample();
    std::istringstream names(csv_heading());
    std::istringstream values(csv_row(sample));
    std::map<std::string, std::string> columns;
    for (std::string name, value; std::getline(names, name, ',');) {
        ASSERT_TRUE(std::getline(values, value, ',')) << name;
        columns[name] = value;
    }
    EXPECT_TRUE(values.eof());
    // magic, layout version and reserved are told nowhere
    EXPECT_EQ(columns.size(), 3 + 288 / 4 - 1 - 3 + sizeof(Totals) / 8);
    EXPECT_EQ(columns["underruns"], std::to_string(sample.stats->underruns));
    EXPECT_EQ(columns["total_underruns"], std::to_string(sample.totals.underruns));
    EXPECT_EQ(columns["total_late_drop_outs"], std::to_string(sample.totals.late.drop_outs));
    EXPECT_EQ(std::stod(columns["total_clock_uncertainty_ppm"]),
              sample.totals.clock_uncertainty_ppm);

    EXPECT_TRUE(csv_row({.time_ms = 1, .client_id = 4}).starts_with("1,absent,0,0,0,4,"));
}

Account account_of_trouble(const std::string& text) {
    return {
        .watched_s = 14.5,
        .facts = {{"blocks lost", {0, 14.5}, text}},
        .causes = {{Cause::engine_ended, {14, 14}, text}, {Cause::network_loss, {2.5, 9}, text}},
        .not_clear_yet = text};
}

TEST(Formats, AnAccountKeepsItsWordsAndEndsNoScript) {
    const std::string name(cause_text(Cause::network_loss));
    const std::string json = to_json_array(Accounts{{3, account_of_trouble("</script>")}, {4, {}}});
    for (
        const std::string& part : std::initializer_list<std::string>{
            R"([{"client_id":3,"from_ms":0,"watched_s":14.5,"facts":[{"name":"blocks lost","from_s":0.0,)",
            R"({"cause":")" + name + R"(","from_s":2.5,"until_s":9.0,"text":"\u003c/script>"}],)",
            R"("not_clear_yet":"\u003c/script>"},)"})
        EXPECT_NE(json.find(part), std::string::npos) << part << " in " << json;
}

TEST(Metrics, AreInBaseUnitsForEnginesThatRunWithTheCausesOfAll) {
    Sample sample = distinct_sample();
    sample.stats->state = TAVISTRO_STATE_RUNNING;
    sample.stats->stream_sample_rate = 48000;
    sample.stats->target_frames = 768;
    sample.stats->buffer_us = 15'500;
    std::ranges::copy(Histogram{10, 4, 2, 0, 0, 0, 0, 0, 0, 1}, sample.stats->rtt_histogram);
    sample.host_late_us = 12'500;
    sample.totals.watched_ms = 2500;
    sample.totals.replaced.count = 6;
    sample.totals.clock_uncertainty_ppm = 5;
    sample.totals.server_faster_ppm = -250;
    Sample ended = sample;
    ended.client_id = 4;
    ended.presence = Presence::ended;
    const std::string metrics = to_prometheus(
        std::vector{sample, ended}, {{3, account_of_trouble("")}, {4, {.not_clear_yet = "x"}}});
    for (const std::string& line : std::initializer_list<std::string>{
             "tavistro_up{client_id=\"3\"} 1",
             "tavistro_up{client_id=\"4\"} 0",
             "tavistro_state{client_id=\"3\",state=\"Running\"} 1",
             "tavistro_state{client_id=\"3\",state=\"Failed\"} 0",
             "tavistro_cause{client_id=\"3\",cause=\"network_loss\"} 1",
             "tavistro_cause{client_id=\"3\",cause=\"host_overload\"} 0",
             "tavistro_cause{client_id=\"4\",cause=\"network_loss\"} 0",
             "tavistro_cause_unclear{client_id=\"4\"} 1",
             "tavistro_buffer_seconds{client_id=\"3\"} 0.0155",
             "tavistro_buffer_target_seconds{client_id=\"3\"} 0.016",
             "tavistro_round_trip_seconds_bucket{client_id=\"3\",le=\"0.00025\"} 10",
             "tavistro_round_trip_seconds_bucket{client_id=\"3\",le=\"0.0005\"} 14",
             "tavistro_round_trip_seconds_bucket{client_id=\"3\",le=\"+Inf\"} 17",
             "tavistro_round_trip_seconds_count{client_id=\"3\"} 17",
             "tavistro_round_trip_seconds_sum{client_id=\"3\"} 0.10425000000000001",
             "tavistro_capture_dropped_total{client_id=\"3\"} 13900",
             "tavistro_monitor_watched_seconds_total{client_id=\"3\"} 2.5",
             "tavistro_monitor_blocks_lost_total{client_id=\"3\"} 6",
             "tavistro_monitor_host_late_seconds 0.0125",
             "tavistro_monitor_server_clock_ratio{client_id=\"3\"} 0.99975"})
        EXPECT_NE(metrics.find("\n" + line + "\n"), std::string::npos) << line << " in " << metrics;
    EXPECT_EQ(metrics.find("buffer_seconds{client_id=\"4\"}"), std::string::npos);
}

TEST(View, FitsWhateverTheNumbers) {
    Sample extreme = distinct_sample();
    for (const Field& field : stats_fields()) {
        if (field.type == FieldType::histogram) continue;
        set_number(&*extreme.stats, field, std::int64_t{std::numeric_limits<std::int32_t>::max()});
    }
    extreme.totals.clock_uncertainty_ppm = 1e9;
    const Account account = account_of_trouble(std::string(50, 'a') + " " + std::string(200, 'b'));
    for (const std::size_t width : {80U, 40U, 1U}) {
        for (const std::string& line : view(std::vector{extreme}, width))
            EXPECT_LE(line.size(), width) << line;
        for (const std::string& line : account_view(account, width))
            EXPECT_LE(line.size(), width) << line;
        EXPECT_LE(short_view(extreme, width).size(), width);
    }
    EXPECT_EQ(account_view({.not_clear_yet = "an account that is broken here"}, 30),
              (Lines{"not clear yet: an account that", "         is broken here"}));
}

TEST(View, ShowsWhatTheEngineReports) {
    Sample before = distinct_sample();
    before.stats->state = TAVISTRO_STATE_RUNNING;
    before.stats->error_code = TAVISTRO_ERROR_NONE;
    before.stats->buffer_us = 8000;
    before.stats->playback_buffer_frames = 7450;
    before.stats->rtt_p99_us = 19'999;
    std::ranges::copy(Histogram{3000, 999, 1}, before.stats->sync_delay_histogram);
    Sample now = before;
    now.stats->overruns += 5;
    now.totals = {.server_faster_ppm = 12.3, .clock_uncertainty_ppm = 2.4};
    EXPECT_EQ(
        view(std::vector{before, now}, full_width),
        (Lines{"client 3   Running   19600 Hz, 19500 frames",
               "buffer   [########........|...............] 7450 of 14900 frames, 8.0 ms",
               "         lowest 15100, highest 15000 frames in the last second",
               "speed    buffer read -4500 ppm, server's clock +12 ppm (+-3) to the device's",
               "blocks/s received 19400  duplicate 19300  queued 15500  played 15300  periods/s ",
               "losses   underruns 14200  overruns 14105 (+5)  playback 14000  capture 13900",
               "time in ms              last       min    median      95 %      99 %       max",
               "round trip             19.00     18.90     18.70     18.60     18.80     18.80",
               "sync notice            17.10     17.00     16.80     16.70     16.60     16.90",
               "server to output       13.40                                             13.30",
               "playback queue         13.60                                             13.50",
               "work of a period       14.40                                             14.30",
               "block delivery         13.80                                             13.70"}));
    EXPECT_EQ(
        histogram_view(now, full_width),
        (Lines{"% up to ...  ms     0.25   0.5     1     2     5    10    20    50   100  more",
               "round trip          10.3  10.2  10.1  10.1  10.0  10.0   9.9   9.9   9.8   9.7",
               "sync notice         75.0  25.0  <0.1     -     -     -     -     -     -     -"}));
    EXPECT_EQ(short_view(now, full_width),
              "client 3   underruns 14200  overruns 14105  dropped 27900  buffer 7450/14900  Ru");

    now.totals.clock_uncertainty_ppm = 0;
    now.stats->clock_synced = 0;
    EXPECT_TRUE(view(std::vector{now}, full_width)[3].ends_with("measured yet, offset unknown"));
    now.presence = Presence::silent;
    EXPECT_EQ(view(std::vector{now}, full_width)[0],
              "client 3   NO REPORTS: it died or hangs; last state Running");
    now.presence = Presence::ended;
    EXPECT_EQ(view(std::vector{now}, full_width)[0], "client 3   engine stopped, last values");
    now.stats->error_code = TAVISTRO_ERROR_AUDIO_DEVICE_FAILED;
    EXPECT_EQ(view(std::vector{now}, full_width)[0],
              "client 3   engine stopped, last values: audio device failed");
    EXPECT_EQ(view(std::vector{Sample{.client_id = 9}}, full_width),
              Lines{"client 9   no engine with this client_id; waiting"});
}

TEST(View, SaysThatNothingIsWrongOnceThatIsKnown) {
    Account account;
    account.watched_s = 3.9;
    EXPECT_EQ(tell(account), Lines{"too short a time to judge"});
    EXPECT_EQ(account_view(account, full_width), Lines{});
    account.watched_s = 65.9;
    EXPECT_EQ(tell(account), Lines{"nothing wrong in 1:05"});
    EXPECT_EQ(account_view(account, full_width), Lines{"nothing wrong in 1:05"});
    account.causes = {{Cause::engine_failed, {65, 65}, "reason"}};
    EXPECT_EQ(account_view(account, full_width), Lines{}) << "told by the first line of the view";
    EXPECT_EQ(tell(account), Lines{"CAUSE engine failed (1:05): reason"});
}

TEST(Screen, JudgesTheLastTwoMinutesHoweverOftenItIsShown) {
    for (const std::int64_t interval_ms : {50, 1000, 20'000}) {
        std::ostringstream out;
        Screen screen(out, false);
        Sample sample = distinct_sample();
        sample.totals = {.run = 1};
        for (const std::int64_t end_ms = sample.time_ms + 200'000; sample.time_ms <= end_ms;
             sample.time_ms += interval_ms)
            screen.show({sample});
        EXPECT_TRUE(out.str().ends_with("nothing wrong in 2:00\n\n")) << interval_ms;
        sample.totals.run = 2;
        screen.show({sample});
        sample.time_ms += 10;
        out.str("");
        screen.show({sample});
        EXPECT_TRUE(out.str().ends_with("nothing wrong in 2:00\n\n")) << interval_ms;
    }
}

TEST(Screen, DrawsOneOverTheOtherAndOnlyWhatFits) {
    const std::size_t rows = terminal_size().rows;
    std::ostringstream out;
    const auto drawn = [&](Screen& screen, const std::vector<Sample>& samples) {
        out.str("");
        screen.show(samples);
        return out.str();
    };
    std::vector<Sample> many;
    for (std::uint32_t id = 1; id <= rows; ++id)
        many.push_back({.client_id = id});
    {
        Screen screen(out, true);
        EXPECT_EQ(out.str(), "\x1b[?1049h\x1b[?25l");
        const std::string waits = "client 1   no engine with this client_id; waiting\x1b[K";
        EXPECT_EQ(drawn(screen, {many[0]}), "\x1b[H" + waits + "\n\x1b[K\nCtrl-C ends\x1b[K\x1b[J");
        const std::string low = drawn(screen, many);
        EXPECT_TRUE(low.starts_with("\x1b[H" + waits + "\nclient 2 "));
        EXPECT_EQ(std::ranges::count(low, '\n'), static_cast<std::ptrdiff_t>(rows) - 1);
        many.resize(rows / 2 + 1);
        EXPECT_TRUE(drawn(screen, many)
                        .ends_with("a taller window shows more\x1b[K\nCtrl-C ends\x1b[K\x1b[J"));
        out.str("");
    }
    EXPECT_EQ(out.str(), "\x1b[?25h\x1b[?1049l");
}

/// What an engine writes, without one.
struct ScriptedBlock {
    std::uint32_t client_id = 1'000'000'000 + std::random_device{}() % 1'000'000'000;
    StatsBlock block;

    void run(std::uint32_t block_frames) {
        block.open(client_id);
        block.write_stream_format(48000, block_frames);
        block.write_state(EngineState::Running);
    }
    void report(std::uint64_t notices) {
        block.write_client_telemetry({.clock_synced = true, .sync_delay_samples = notices});
    }
};

TEST(Observer, SeesWhatComesAndGoesBetweenTwoReadings) {
    ScriptedBlock engine;
    Observer observer({engine.client_id, engine.client_id + 1});
    Sample now;
    const auto becomes = [&](Presence presence) {
        return test::eventually([&] { return (now = observer.look()[0]).presence == presence; });
    };
    const auto let_it_look = [](int ms) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    };
    ASSERT_TRUE(becomes(Presence::absent));
    engine.run(128);
    engine.report(5);
    ASSERT_TRUE(becomes(Presence::alive));
    let_it_look(100);
    const Totals first = observer.look()[0].totals;
    engine.report(8);
    EXPECT_EQ(observer.look()[0].totals.notices, first.notices + 3);
    for (const std::uint32_t frames : {256U, 128U}) {
        engine.block.write_stream_format(48000, frames);
        let_it_look(100);
    }
    ASSERT_TRUE(becomes(Presence::alive));
    EXPECT_EQ(now.totals.run, first.run + 2);
    EXPECT_TRUE(test::eventually([&] { return observer.look()[0].host_late_us > 0; }));
    EXPECT_TRUE(test::eventually([&] { return observer.look()[0].host_late_us == 0; }))
        << "since the reading before";
    EXPECT_GT(now.time_ms, 1'700'000'000'000);
    EXPECT_EQ(observer.look()[1].client_id, engine.client_id + 1);

    engine.block.write_state(EngineState::Stopped);
    ASSERT_TRUE(becomes(Presence::ended));
    EXPECT_EQ(now.stats->sync_delay_samples, 8U);
    engine.block.close();
    engine.run(128);
    engine.report(1);
    let_it_look(300);  // for a new block it looks less often
    engine.report(2);
    ASSERT_TRUE(becomes(Presence::alive));
    EXPECT_GE(now.totals.notices, 1) << "of the new run, seen between two readings";
    engine.block.close();
    EXPECT_TRUE(becomes(Presence::ended)) << "without a last word";
}

TEST(Observer, FindsEnginesThatStartLaterWhenNoneIsNamed) {
    ScriptedBlock engine;
    engine.client_id = 40 + std::random_device{}() % 20;
    const auto sees_it = [&](Observer& observer) {
        return std::ranges::count(observer.look(), engine.client_id, &Sample::client_id) == 1;
    };
    Observer observer({});
    EXPECT_FALSE(sees_it(observer));
    engine.run(128);
    EXPECT_TRUE(test::eventually([&] { return sees_it(observer); }));
    Observer later({});
    EXPECT_TRUE(sees_it(later)) << "in the first reading";
}

TEST(ClientWatch, AnEngineThatWritesNothingForSecondsIsSilentAndWhatItLeftIsNotCounted) {
    ScriptedBlock engine;
    engine.run(128);
    engine.report(5);
    ClientWatch watch(engine.client_id);
    std::int64_t now_ms = 1000;
    const auto look_at = [&](std::int64_t until_ms) {
        for (; now_ms < until_ms; now_ms += 4)
            watch.glance(now_ms * 1000, 0);
        return watch.look(now_ms * 1000);
    };
    EXPECT_EQ(look_at(5900).presence, Presence::alive);
    EXPECT_LE(watch.next_glance_us(), (now_ms + 4) * 1000);
    const Sample silent = look_at(6500);
    EXPECT_EQ(silent.presence, Presence::silent);
    EXPECT_EQ(look_at(9000).totals.watched_ms, silent.totals.watched_ms);
    engine.report(6);
    EXPECT_EQ(look_at(9300).presence, Presence::alive);
}

}  // namespace
}  // namespace tavistro::monitor
