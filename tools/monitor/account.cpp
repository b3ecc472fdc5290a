#include "tools/monitor/account.h"

namespace tavistro::monitor {

std::string_view cause_text(Cause) {
    return "";
}
Account judge(std::span<const Sample>) {
    return {};
}
std::vector<std::string> account_lines(const Account&) {
    return {};
}

}  // namespace tavistro::monitor
