// What names outside ASCII get: bytes count as text in the ANSI code page, and in no other.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "config/engine_config.h"
#include "platform/driver_registry.h"

namespace tavistro::platform {
namespace {

constexpr const wchar_t* driver_key = L"software\\asio\\Tavistro test letters";
const std::wstring name = L"tavistro-\u00e4";

std::string in_code_page(UINT code_page, const std::wstring& wide) {
    std::string bytes(100, '\0');
    bytes.resize(static_cast<std::size_t>(
        WideCharToMultiByte(code_page, 0, wide.c_str(), static_cast<int>(wide.size()), bytes.data(),
                            static_cast<int>(bytes.size()), nullptr, nullptr)));
    return bytes;
}

class Charset : public testing::Test {
  protected:
    Charset() {
        std::ofstream(std::filesystem::path(name)) << "[network]\nserver_ip=auto\nserver_port=1\n"
                                                      "client_id=1\n[asio]\ndriver_name=d\n";
        const auto write = [](const wchar_t* value, const std::wstring& text) {
            EXPECT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, driver_key, value, REG_SZ, text.c_str(),
                                      static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
                      ERROR_SUCCESS);
        };
        write(L"clsid", L"{7D3F0A11-52C4-4C9B-9E63-0D1B5A8E0004}");
        write(L"description", name);
    }
    ~Charset() override {
        std::filesystem::remove(std::filesystem::path(name));
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, driver_key);
    }

    static bool loads(const std::string& path) {
        EngineConfig config;
        std::string error;
        return load_engine_config(path, config, error);
    }
    static bool lists(const std::string& description) {
        return std::ranges::count(registered_drivers(), description,
                                  &RegisteredDriver::description) == 1;
    }
};

TEST_F(Charset, PathsAndDriversAreNamedInTheAnsiCodePage) {
    const std::string ansi = in_code_page(CP_ACP, name);
    const std::string utf8 = in_code_page(CP_UTF8, name);
    if (ansi.find('?') != std::string::npos) GTEST_SKIP() << "the code page lacks the letter";
    EXPECT_TRUE(loads(ansi));
    EXPECT_TRUE(lists(ansi));
    EXPECT_EQ(loads(utf8), GetACP() == CP_UTF8);
    EXPECT_EQ(lists(utf8), GetACP() == CP_UTF8);
}

}  // namespace
}  // namespace tavistro::platform
