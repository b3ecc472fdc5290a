#include "tools/monitor/recording.h"

#include <fmt/format.h>
#include <zlib.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <iterator>
#include <optional>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tools/monitor/formats.h"
#include "tools/version_flag.h"

namespace tavistro::monitor {

namespace {

using readings::Field;
using readings::FieldType;
using readings::Number;

constexpr std::string_view first_words = "tavistro recording ";
constexpr std::string_view first_line = "tavistro recording 1, tavistro-monitor ";
constexpr std::size_t longest_line = 1 << 16;

void append(RecordedRow& row, const void* record, std::span<const Field> fields) {
    for (const Field& field : fields) {
        if (field.type == FieldType::histogram) {
            std::ranges::copy(readings::histogram(record, field), std::back_inserter(row));
        } else {
            row.push_back(readings::number(record, field));
        }
    }
}

RecordedRow row_of(const Sample& sample) {
    RecordedRow row{sample.time_ms, static_cast<std::int64_t>(sample.presence),
                    std::int64_t{sample.host_late_us}};
    const tavistro_stats_block stats = sample.stats.value_or(tavistro_stats_block{});
    append(row, &stats, readings::stats_fields());
    append(row, &sample.totals, totals_fields());
    return row;
}

Sample sample_of(std::uint32_t client_id, const RecordedRow& row) {
    auto next = row.begin();
    const auto integer = [&] { return std::get<std::int64_t>(*next++); };
    const auto take = [&](void* record, std::span<const Field> fields) {
        for (const Field& field : fields) {
            if (field.type == FieldType::histogram) {
                readings::Histogram counts;
                for (std::uint32_t& count : counts)
                    count = static_cast<std::uint32_t>(integer());
                readings::set_histogram(record, field, counts);
            } else {
                readings::set_number(record, field, *next++);
            }
        }
    };
    Sample sample{.time_ms = integer(), .client_id = client_id};
    const std::int64_t presence = integer();
    if (presence < 0 || presence > static_cast<std::int64_t>(Presence::ended))
        throw std::runtime_error(fmt::format("there is no presence {}", presence));
    sample.presence = static_cast<Presence>(presence);
    sample.host_late_us = static_cast<std::uint32_t>(integer());
    tavistro_stats_block stats{};
    take(&stats, readings::stats_fields());
    if (sample.presence != Presence::absent) sample.stats = stats;
    take(&sample.totals, totals_fields());
    return sample;
}

/// Differences wrap around, so that a damaged file does no harm.
std::int64_t minus(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

std::string difference(const RecordedRow& row, const RecordedRow& before) {
    std::string text;
    for (std::size_t i = 0; i < row.size(); ++i) {
        text += ',';
        if (row[i] == before[i]) continue;
        if (const auto* const integer = std::get_if<std::int64_t>(&row[i])) {
            text += fmt::to_string(minus(*integer, std::get<std::int64_t>(before[i])));
        } else {
            text += fmt::to_string(std::get<double>(row[i]));
        }
    }
    text.erase(text.find_last_not_of(',') + 1);
    return text;
}

template <typename Value>
Value parsed(std::string_view text) {
    Value value{};
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size())
        throw std::runtime_error(fmt::format("'{}' is no number", text));
    return value;
}

/// The text up to the next comma, which is taken away.
std::string_view next_cell(std::string_view& line) {
    const std::string_view cell = line.substr(0, line.find(','));
    line.remove_prefix(std::min(cell.size() + 1, line.size()));
    return cell;
}

/// The sample of a line of a recording; `rows` are those before, by client_id.
Sample from_line(std::string_view line, std::map<std::uint32_t, RecordedRow>& rows) {
    const auto client_id = parsed<std::uint32_t>(next_cell(line));
    RecordedRow& row = rows.try_emplace(client_id, row_of({})).first->second;
    for (Number& number : row) {
        const std::string_view cell = next_cell(line);
        if (cell.empty()) continue;
        if (auto* const integer = std::get_if<std::int64_t>(&number)) {
            *integer = minus(*integer, minus(0, parsed<std::int64_t>(cell)));
        } else {
            number = parsed<double>(cell);
        }
    }
    if (!line.empty()) throw std::runtime_error("it has too many columns");
    return sample_of(client_id, row);
}

std::string column_line() {
    return "client_id," + csv_heading();
}

/// Lines of a file, compressed or not.
class LineReader {
  public:
    explicit LineReader(const std::string& path)
        : file_(std::filesystem::is_directory(path) ? nullptr : gzopen(path.c_str(), "rb"),
                &gzclose) {
        if (!file_) throw std::runtime_error("cannot be read");
    }
    /// Without its end; nothing at the end of the file, where half a line is left out.
    std::optional<std::string_view> next() {
        const bool is_read = gzgets(file_.get(), line_.data(), longest_line) != nullptr;
        const std::string_view line = is_read ? std::string_view(line_.data()) : "";
        if (line.ends_with('\n')) return line.substr(0, line.size() - 1);
        if (line.size() + 1 == longest_line) throw std::runtime_error("a line has no end");
        int error = Z_OK;
        gzerror(file_.get(), &error);
        // Z_BUF_ERROR: the stream has no end, since its recorder was killed.
        if (error != Z_OK && error != Z_STREAM_END && error != Z_BUF_ERROR)
            throw std::runtime_error("the file is damaged from here on");
        return std::nullopt;
    }

  private:
    std::unique_ptr<gzFile_s, decltype(&gzclose)> file_;
    std::vector<char> line_ = std::vector<char>(longest_line);
};

}  // namespace

void RecordingWriter::Close::operator()(gzFile_s* file) const {
    gzclose(file);
}

RecordingWriter::RecordingWriter(const std::string& path) : path_(path) {
    if (std::filesystem::exists(path))  // it may hold what will not come again
        throw std::runtime_error(path + " exists already; name another file to record to");
    file_.reset(gzopen(path.c_str(), "wbx"));
    if (!file_) fail();
    write(fmt::format("{}{}\n", first_line, version_text));
    write(column_line() + "\n");
}

void RecordingWriter::add(const Sample& sample) {
    constexpr std::int64_t flush_every_ms = 10'000;
    RecordedRow row = row_of(sample);
    RecordedRow& last = last_.try_emplace(sample.client_id, row_of({})).first->second;
    write(fmt::format("{}{}\n", sample.client_id, difference(row, last)));
    last = std::move(row);
    if (sample.time_ms - flushed_ms_ < flush_every_ms) return;
    if (gzflush(file_.get(), Z_SYNC_FLUSH) != Z_OK) fail();
    flushed_ms_ = sample.time_ms;
}

void RecordingWriter::close() {
    if (gzclose(file_.release()) != Z_OK) fail();
}

void RecordingWriter::write(const std::string& line) {
    const auto size = static_cast<unsigned>(line.size());
    if (gzwrite(file_.get(), line.data(), size) != static_cast<int>(size)) fail();
}

void RecordingWriter::fail() const {
    throw std::runtime_error("cannot write " + path_);
}

std::vector<Sample> read_recording(const std::string& path) {
    std::vector<Sample> samples;
    int number = 1;
    try {
        LineReader lines(path);
        auto line = lines.next();
        const bool is_compact = line && line->starts_with(first_words);
        if (is_compact) {
            const std::string origin(line->substr(first_words.size()));
            line = lines.next();
            ++number;
            if (line && *line != column_line())
                throw std::runtime_error("its columns are not this version's: format " + origin);
            line = lines.next();
            ++number;
        }
        std::map<std::uint32_t, RecordedRow> rows;
        for (; line; line = lines.next(), ++number)
            samples.push_back(is_compact ? from_line(*line, rows) : from_json(std::string(*line)));
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(fmt::format("{}: line {}: {}", path, number, error.what()));
    }
    return samples;
}

}  // namespace tavistro::monitor
