// Loading and unloading the product, as a host does that keeps the engine in a plug-in.
#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/clock.h"
#include "platform/windows/library.h"
#include "tavistro/engine.h"
#include "tools/server/reference_server.h"

namespace tavistro {
namespace {

namespace fs = std::filesystem;

fs::path library_path() {
    wchar_t program[MAX_PATH]{};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    return fs::path(program).parent_path() / TAVISTRO_LIBRARY;
}

/// One life of the library, up to audio that runs and back.
void live_once(const fs::path& path, const std::string& config) {
    using platform::find_function;
    const HMODULE library = LoadLibraryW(path.c_str());
    ASSERT_NE(library, nullptr) << "error " << GetLastError();
    const auto create =
        find_function<decltype(&tavistro_engine_create)>(library, "tavistro_engine_create");
    const auto start = find_function<decltype(&tavistro_engine_start_from_config)>(
        library, "tavistro_engine_start_from_config");
    const auto get_state =
        find_function<decltype(&tavistro_engine_get_state)>(library, "tavistro_engine_get_state");
    const auto stop =
        find_function<decltype(&tavistro_engine_stop)>(library, "tavistro_engine_stop");
    const auto destroy =
        find_function<decltype(&tavistro_engine_destroy)>(library, "tavistro_engine_destroy");
    tavistro_engine* const engine = create();
    ASSERT_NE(engine, nullptr);
    ASSERT_EQ(start(engine, config.c_str()), 1);
    tavistro_engine_state state{};
    while (get_state(engine, &state) == 1 && state.state < TAVISTRO_STATE_RUNNING)
        platform::sleep_ms(2);
    EXPECT_EQ(state.state, std::uint32_t{TAVISTRO_STATE_RUNNING});
    stop(engine);
    destroy(engine);
    ASSERT_NE(FreeLibrary(library), 0);
    ASSERT_EQ(GetModuleHandleW(path.filename().c_str()), nullptr) << "still loaded";
}

TEST(Library, FiftyLivesEndWithoutAHang) {
    server::ReferenceServer server({.bind_address = platform::ipv4_loopback, .port = 0});
    ASSERT_EQ(server.start(), "");
    const std::string config = (fs::temp_directory_path() / "tavistro-library-test.ini").string();
    std::ofstream(config)
        << "[network]\nserver_ip = 127.0.0.1\nserver_port = " << server.port()
        << "\nclient_id = 1\n[asio]\ndriver_name =\n[test]\nloopback_device = 1\n";
    for (int life = 0; life < 50 && !HasFailure(); ++life)
        live_once(library_path(), config);
    fs::remove(config);
}

}  // namespace
}  // namespace tavistro
