#include "tools/monitor/bundle.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <numeric>
#include <regex>
#include <stdexcept>

#include "tools/monitor/account.h"
#include "tools/monitor/computer_facts.h"
#include "tools/monitor/recording.h"
#include "tools/version_flag.h"

namespace tavistro::monitor {

namespace {

using readings::Json;

std::string content_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string content(std::istreambuf_iterator<char>(file), {});
    if (!file || std::filesystem::is_directory(path))
        throw std::runtime_error("cannot read " + path);
    return content;
}

/// A compressed archive in the format ustar.
class TarWriter {
  public:
    explicit TarWriter(const std::string& path)
        : path_(path), file_(gzopen(path.c_str(), "wbx"), &gzclose) {
        if (!file_) fail();
    }
    /// `name` has at most 99 bytes.
    void add(const std::string& name, const std::string& content) {
        constexpr std::size_t block = 512;
        struct Header {
            char name[100], mode[8], uid[8], gid[8], size[12], mtime[12], checksum[8], type,
                link[100], magic[6], version[2], rest[247];
        } header{};
        static_assert(sizeof header == block);
        const auto set = [](auto& field, const std::string& text) {
            std::memcpy(field, text.data(), std::min(text.size(), sizeof field));
        };
        set(header.name, name);
        set(header.mode, "0000644");
        set(header.uid, "0000000");
        set(header.gid, "0000000");
        set(header.size, fmt::format("{:011o}", content.size()));
        set(header.mtime, fmt::format("{:011o}", std::time(nullptr)));
        set(header.checksum, std::string(sizeof header.checksum, ' '));
        header.type = '0';
        set(header.magic, std::string("ustar\0", 6));
        set(header.version, "00");
        const auto* const bytes = reinterpret_cast<const unsigned char*>(&header);
        set(header.checksum,
            fmt::format("{:06o}", std::accumulate(bytes, bytes + block, 0U)) + '\0');
        write(std::string_view(reinterpret_cast<const char*>(&header), block));
        write(content);
        write(std::string((block - content.size() % block) % block, '\0'));
    }
    void close() {
        write(std::string(1024, '\0'));
        if (gzclose(file_.release()) != Z_OK) fail();
    }

  private:
    void write(std::string_view bytes) {
        if (gzfwrite(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size()) fail();
    }
    [[noreturn]] void fail() const { throw std::runtime_error("cannot write " + path_); }

    std::string path_;
    std::unique_ptr<gzFile_s, decltype(&gzclose)> file_;
};

std::string explained(std::span<const Sample> samples) {
    std::string text;
    for (const auto& [client_id, account] : judge_each(samples))
        text += fmt::format("client {}, from {:%F %T} UTC\n  {}\n", client_id,
                            fmt::gmtime(static_cast<std::time_t>(account.from_ms / 1000)),
                            fmt::join(tell(account), "\n  "));
    return text;
}

Json facts() {
    Json versions{{"tavistro-monitor", version_text}};
    for (const char* const program : {"tavistro-host", "tavistro-server"}) {
        std::string version = version_of(program);
        const std::string name = program + std::string(" ");
        if (version.starts_with(name)) version.erase(0, name.size());
        if (!version.empty()) versions[program] = version;
    }
    return {{"time", fmt::format("{:%FT%TZ}", fmt::gmtime(std::time(nullptr)))},
            {"versions", versions},
            {"computer", computer_facts()}};
}

/// A recording of samples, as bytes.
std::string recorded(std::span<const Sample> samples) {
    const auto path =
        std::filesystem::temp_directory_path() /
        fmt::format("tavistro-{}", std::chrono::system_clock::now().time_since_epoch().count());
    const std::unique_ptr<const std::filesystem::path, void (*)(const std::filesystem::path*)>
        remover(&path, [](const auto* file) {
            std::error_code ignored;
            std::filesystem::remove(*file, ignored);
        });
    RecordingWriter writer(path.string());
    for (const Sample& sample : samples)
        writer.add(sample);
    writer.close();
    return content_of(path.string());
}

}  // namespace

std::vector<std::string> pack_bundle(const std::string& path, const BundleContents& contents) {
    std::map<std::string, std::string> files;  // by name, so that no two have the same
    const auto add = [&](const std::string& folder, const std::string& source,
                         std::string content) {
        constexpr std::size_t longest_name = 80;
        std::string name = std::filesystem::path(source).filename().string();
        name = name.substr(name.size() - std::min(name.size(), longest_name));
        std::string place = folder + name;
        for (int i = 2; files.contains(place); ++i)
            place = fmt::format("{}{}-{}", folder, i, name);
        files.emplace(std::move(place), std::move(content));
    };
    const auto guarded = [&](const std::string& text) {
        return contents.with_addresses ? text : without_addresses(text);
    };
    for (const std::string& recording : contents.recordings) {
        add("recordings/", recording, content_of(recording));
        add("explained/", recording + ".txt", explained(read_recording(recording)));
    }
    if (!contents.seen_now.empty()) {
        add("recordings/", "now.rec", recorded(contents.seen_now));
        add("explained/", "now.rec.txt", explained(contents.seen_now));
    }
    for (const std::string& configuration : contents.configurations)
        add("configurations/", configuration, guarded(content_of(configuration)));
    add("", "facts.json", guarded(facts().dump(2) + "\n"));

    TarWriter tar(path);
    std::vector<std::string> names;
    for (const auto& [name, content] : files) {
        tar.add(name, content);
        names.push_back(name);
    }
    tar.close();
    return names;
}

std::string bundle_name() {
    return fmt::format("tavistro-bundle-{:%Y%m%d-%H%M%S}.tar.gz", fmt::gmtime(std::time(nullptr)));
}

std::string without_addresses(const std::string& text) {
    using std::regex;
    constexpr auto flags = regex::ECMAScript | regex::icase;
    static const std::pair<regex, const char*> rules[] = {
        {regex(R"((server_ip[ \t]*=[ \t]*)(?!auto\s|127\.)[^\s;#]{1,255})", flags), "$1x"},
        {regex(R"(\b(?!127\.)\d{1,3}(\.\d{1,3}){3}\b)"), "x.x.x.x"},
        {regex(R"(\b[0-9a-f]{2}([:-][0-9a-f]{2}){5}\b)", flags), "xx:xx:xx:xx:xx:xx"},
        // Names of network interfaces made of their MAC address.
        {regex(R"(\benx[0-9a-f]{12}\b)", flags), "enx-x"},
        {regex(R"(\b[0-9a-f]{1,4}(:[0-9a-f]{1,4}){7}\b)", flags), "x:x"},
        {regex(R"(([0-9a-f]{1,4}(:[0-9a-f]{1,4}){0,6})?::([0-9a-f]{1,4}(:[0-9a-f]{1,4}){0,6})?)",
               flags),
         "x::x"}};
    std::string guarded = text;
    for (const auto& [pattern, with] : rules)
        guarded = std::regex_replace(guarded, pattern, with);
    return guarded;
}

}  // namespace tavistro::monitor
