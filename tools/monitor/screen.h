// Shows engines on a terminal, one picture over the other, or as text that scrolls.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "tools/monitor/sample.h"

namespace tavistro::monitor {

class Screen {
  public:
    /// `redraws` is for a terminal that obeys escape sequences; above what it shows then stands the
    /// `heading`, unless that is empty.
    Screen(std::ostream& out, bool redraws, std::string heading = {});
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
    ~Screen();

    /// The newest reading; what is said of it is judged on the last two minutes.
    void show(const std::vector<Sample>& samples);

  private:
    std::ostream& out_;
    bool redraws_;
    std::string heading_;
    std::map<std::uint32_t, std::vector<Sample>> histories_;
};

}  // namespace tavistro::monitor
