// The monitor without engines: what it makes of samples, and what it answers over HTTP.

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <cstring>
#include <limits>
#include <sstream>
#include <tuple>

#include "tavistro/engine.h"
#include "tools/monitor/fields.h"
#include "tools/monitor/formats.h"
#include "tools/monitor/http_server.h"
#include "tools/monitor/page.h"
#include "tools/monitor/view.h"

namespace tavistro::monitor {
namespace {

/// A sample in which no two fields have one value.
Sample distinct_sample() {
    Sample sample{.time_ms = 1'700'000'000'000, .client_id = 3, .presence = Presence::alive};
    sample.stats.emplace();
    std::int64_t next = 1000;
    for (const Field& field : fields()) {
        if (field.type == FieldType::histogram) {
            Histogram counts;
            for (auto& count : counts)
                count = static_cast<std::uint32_t>(next++);
            set_histogram(*sample.stats, field, counts);
        } else {
            set_number(*sample.stats, field, field.type == FieldType::i32 ? -next : next);
            ++next;
        }
    }
    return sample;
}

TEST(Formats, ARecordingGivesBackWhatWasRecorded) {
    Sample sample = distinct_sample();
    sample.host_late_us = 5;
    const Sample absent{.time_ms = 1, .client_id = 4};
    const std::string text = to_json(sample) + "\n" + to_json(absent) + "\n";
    std::istringstream cut_off(text + to_json(sample).substr(0, 100));
    const auto samples = read_recording(cut_off);
    ASSERT_EQ(samples.size(), 2U);
    EXPECT_EQ(to_json(samples[0]), to_json(sample));
    EXPECT_EQ(std::memcmp(&*samples[0].stats, &*sample.stats, sizeof *sample.stats), 0);
    EXPECT_EQ(samples[0].host_late_us, 5U);
    EXPECT_EQ(to_json(samples[1]), to_json(absent));

    for (const char* const damage :
         {"{}", "[]", "nonsense", R"({"time_ms":"x"})",
          R"({"time_ms":1,"client_id":1,"presence":"odd","stats":null})",
          R"({"time_ms":1,"client_id":1,"presence":"alive","stats":{}})"}) {
        std::istringstream damaged(text + damage + "\n" + text);
        try {
            read_recording(damaged);
            ADD_FAILURE() << "taken: " << damage;
        } catch (const std::runtime_error& error) {
            EXPECT_TRUE(std::string(error.what()).starts_with("line 3 is not")) << damage;
        }
    }
}

TEST(Formats, TablesHaveAColumnForEachNumberAndPrometheusABucketForAllBelow) {
    const Sample sample = distinct_sample();
    const auto columns = [](const std::string& row) { return std::ranges::count(row, ','); };
    EXPECT_EQ(columns(csv_heading()), columns(csv_row(sample)));
    // magic, layout version and reserved are told nowhere
    EXPECT_EQ(columns(csv_heading()) - 2, 288 / 4 - 1 - 3);

    const std::string metrics = to_prometheus(std::vector{sample, Sample{.client_id = 4}});
    for (const char* const line :
         {"tavistro_up{client_id=\"3\"} 1\n", "tavistro_up{client_id=\"4\"} 0\n",
          "# TYPE tavistro_underruns_total counter\n",
          "tavistro_rtt_seconds_bucket{client_id=\"3\",le=\"0.000250\"} 1017\n",
          "tavistro_rtt_seconds_bucket{client_id=\"3\",le=\"0.000500\"} 2035\n",
          "tavistro_rtt_seconds_bucket{client_id=\"3\",le=\"+Inf\"} 10215\n"})
        EXPECT_NE(metrics.find(line), std::string::npos) << line;
    EXPECT_EQ(metrics.find("tavistro_state{client_id=\"4\"}"), std::string::npos);
}

TEST(View, FitsWhateverTheNumbers) {
    Sample extreme = distinct_sample();
    for (const Field& field : fields()) {
        if (field.type == FieldType::histogram) continue;
        set_number(*extreme.stats, field, std::numeric_limits<std::int32_t>::max());
    }
    const Finding finding{Cause::late_network, 0, 1, 1,
                          std::string(50, 'a') + " " + std::string(200, 'b')};
    for (const std::size_t width : {80U, 40U, 1U}) {
        for (const std::string& line : view(std::vector{extreme}, std::vector{finding}, width))
            EXPECT_LE(line.size(), width) << line;
        EXPECT_LE(short_view(extreme, width).size(), width);
    }
    const auto absent = view(std::vector{Sample{.client_id = 9}}, {}, full_width);
    EXPECT_EQ(absent, std::vector<std::string>{
                          "client 9   no engine with this client_id; waiting for a start"});
}

TEST(Pages, AReportHoldsItsSamplesAndItsExplanation) {
    const std::string page = report_page(std::vector{distinct_sample()}, "1 < 2 & so on");
    EXPECT_NE(page.find("1 &lt; 2 &amp; so on"), std::string::npos);
    EXPECT_NE(page.find(R"(const recorded = [{"time_ms":1700000000000,)"), std::string::npos);
    EXPECT_NE(live_page().find("const recorded = null;"), std::string::npos);
}

std::string ask(const HttpServer& server, const std::string& request) {
    boost::asio::ip::tcp::iostream stream;
    stream.expires_after(std::chrono::seconds(30));
    stream.connect("127.0.0.1", std::to_string(server.port()));
    stream << request << std::flush;
    std::ostringstream answer;
    answer << stream.rdbuf();
    return answer.str();
}

TEST(Http, AnswersWhatItHasAndRefusesTheRest) {
    const HttpServer server("127.0.0.1:0", [](std::string_view target) {
        return target == "/page" ? std::optional(HttpPage{"text/x", "the page"}) : std::nullopt;
    });
    constexpr const char* end = " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"GET /page", "200", "\r\n\r\nthe page"},
        {"HEAD /page", "200", "\r\n\r\n"},
        {"GET /other", "404", "samples.json\n"},
        {"DELETE /page", "405", "HEAD\n"}};
    for (const auto& [request, status, ending] : cases) {
        const std::string answer = ask(server, request + end);
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 " + status)) << answer;
        EXPECT_TRUE(answer.ends_with(ending)) << answer;
    }
    EXPECT_EQ(ask(server, "GET /" + std::string(100'000, 'x') + end), "") << "too long";
    EXPECT_EQ(ask(server, "\x16\x03\x01 no HTTP at all\r\n\r\n"), "");
    EXPECT_TRUE(ask(server, std::string("GET /page") + end).ends_with("the page"))
        << "goes on after nonsense";

    const auto pages = [](std::string_view) { return std::optional<HttpPage>(); };
    for (const std::string& address :
         {std::string(), std::string("x"), std::string("70000"), std::string("elsewhere:80"),
          std::string("80 "), std::to_string(server.port())})
        EXPECT_THROW(HttpServer(address, pages), std::runtime_error) << address;
}

}  // namespace
}  // namespace tavistro::monitor
