// usage: make_fuzz_seeds FOLDER: writes inputs to begin with into one folder for each target.
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "net/server_messages.h"

namespace {

using namespace TavistroProtocol;

DatagramList messages() {
    DatagramList list;
    const std::vector<float> samples{0.5F, -0.5F, 1.0F, -1.0F, 0.0F, 2.0F};
    encode_audio_block({7, 0xFFFFFFFF, 48000, 3, 2, samples}, 60, list);
    DatagramList whole;
    encode_audio_block({7, 1, 48000, 3, 2, samples}, 1200, whole);
    list.push_back(whole.front());
    list.push_back(encode_announce({7, 99, 6, 6, {2, 3}, {0, 1, 31}}));
    list.push_back(encode_discover({7, 12345}));
    list.push_back(encode_discover_reply({7, 12345, 28010, protocol_version, capability_word}));
    list.push_back(encode_ping({7, 12345, 1'000'000}));
    list.push_back(encode_pong({7, 12345, 1'000'000, 2'000'000, 2'000'100}));
    list.push_back(encode_sync(7, {1, 48000, 128, 128, 1'000'000'000}));
    return list;
}

DatagramList texts() {
    const std::string network =
        "[network]\nserver_ip = auto\nserver_port = 0x6D6A\nclient_id = 010\n[asio]\n";
    DatagramList list;
    for (const std::string& text :
         {network + "driver_name = Some Driver ; of mine\ninput_map = 4, 5\n",
          network + "driver_name=\r\n[tavistro]\r\ndriver_inputs=0,,31\r\ndriver_outputs=\r\n"
                    "[transport]\r\nudp_payload_bytes=52\r\n[latency]\nclient_latency_blocks=128\n"
                    "[test]\nloopback_device=yes\nloopback_drift_ppm=-100000\n"
                    "loopback_callback_stall_every_ms=200\nloopback_callback_stall_duration_ms=9\n",
          std::string("top=1\n# note\n[ A ]\n= \"x;y\" ; z\nb=-1\nc=+0X1f\nd=08\n[]\nnothing")})
        list.emplace_back(text.begin(), text.end());
    return list;
}

/// For the targets that make something of any bytes.
DatagramList noise(std::size_t count, std::size_t bytes) {
    std::mt19937 engine;
    DatagramList list(count, Datagram(bytes));
    for (Datagram& seed : list)
        for (std::uint8_t& byte : seed)
            byte = static_cast<std::uint8_t>(engine());
    return list;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::pair<const char*, DatagramList> targets[] = {{"decoders", messages()},
                                                            {"ini", texts()},
                                                            {"audio_block", noise(8, 200)},
                                                            {"session", noise(24, 400)},
                                                            {"playback", noise(24, 150)}};
    for (const auto& [target, seeds] : targets) {
        const std::filesystem::path folder = std::filesystem::path(argv[1]) / target;
        std::filesystem::create_directories(folder);
        for (std::size_t i = 0; i < seeds.size(); ++i) {
            std::ofstream file(folder / std::to_string(i), std::ios::binary);
            file.write(reinterpret_cast<const char*>(seeds[i].data()),
                       static_cast<std::streamsize>(seeds[i].size()));
            if (!file.flush()) return 1;
        }
    }
    return 0;
}
