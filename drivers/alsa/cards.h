// The sound cards of the system, and the drivers that the module lists for them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavistro::alsa {

struct Card {
    int number;        ///< the system's, which may change when cards come and go
    std::string id;    ///< unique, at most 15 characters
    std::string name;  ///< shown to users
    std::optional<unsigned> playback_device, capture_device;  ///< the first of each kind
};

/// Cards that play or record, in the system's order. Throws std::bad_alloc.
std::vector<Card> read_cards();

/// What a driver opens. The names are ALSA's; an empty one is a side that the card lacks.
struct DriverEntry {
    std::string name;  ///< unique in the list, at most 31 bytes
    std::array<std::uint8_t, 16> class_id;
    std::string class_id_text;
    std::string playback, capture;
    std::optional<Card> card;  ///< none: ALSA's default device, whose sides are found by opening it
};

/// ALSA's default device and then each card. A card keeps its class id wherever it stands. Throws
/// std::bad_alloc.
std::vector<DriverEntry> list_drivers(const std::vector<Card>& cards);

/// Who has the card's device open: "program (process 123)", or "another program" where the system
/// does not tell. `proc` is the root of the process file system. Throws std::bad_alloc.
std::string owner_of(const DriverEntry& driver, bool is_input, const std::string& proc = "/proc");

}  // namespace tavistro::alsa
