// Starts the network stack for test programs that use sockets before or without a client or server.
#include <winsock2.h>

#include <gtest/gtest.h>

namespace {

class NetworkStack final : public testing::Environment {
  public:
    void SetUp() override {
        WSADATA about{};
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &about), 0);
    }
    void TearDown() override { WSACleanup(); }
};

[[maybe_unused]] const auto* const network_stack =
    testing::AddGlobalTestEnvironment(new NetworkStack);

}  // namespace
