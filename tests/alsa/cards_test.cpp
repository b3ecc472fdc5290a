// The list of drivers that the cards of a system make.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "drivers/alsa/cards.h"

namespace tavistro::test {
namespace {

namespace fs = std::filesystem;
using alsa::Card;
using alsa::list_drivers;

const std::vector<Card> cards{{0, "PCH", "HDA Intel PCH", 0, 0},
                              {2, "Box", "Box with a name beyond the limit 1", 1, 3},
                              {3, "Box_1", "Box with a name beyond the limit 2", 0, {}},
                              {4, "Mic", "Tischmikrofon mit B\u00fcgel\u00e4\u00e4", {}, 2}};

TEST(AlsaCards, HaveNamesAndClassIdsOfTheirOwnWhereverTheyStand) {
    const auto drivers = list_drivers(cards);
    ASSERT_EQ(drivers.size(), 5U);
    EXPECT_EQ(drivers[0].name, "ALSA");
    EXPECT_EQ(drivers[0].class_id_text, "{A1C45D0E-6B92-4D8F-B357-2E9C811C9DC5}");
    EXPECT_EQ(drivers[1].name, "ALSA: HDA Intel PCH");
    EXPECT_EQ(drivers[1].playback, "hw:CARD=PCH,DEV=0");
    EXPECT_EQ(drivers[2].name, "ALSA: Box with a name beyond th");
    EXPECT_EQ(drivers[2].capture, "hw:CARD=Box,DEV=3");
    EXPECT_EQ(drivers[3].name, "ALSA: Box with a name b [Box_1]");
    EXPECT_EQ(drivers[3].capture, "");
    EXPECT_EQ(drivers[4].name, "ALSA: Tischmikrofon mit B\u00fcgel") << "no half character";

    const auto reordered = list_drivers({cards[3], cards[2], cards[0]});
    EXPECT_EQ(reordered[2].class_id, drivers[3].class_id);
    EXPECT_EQ(reordered[3].class_id_text, drivers[1].class_id_text);
    std::set<std::string> ids;
    for (const auto& driver : drivers)
        ids.insert(driver.class_id_text);
    EXPECT_EQ(ids.size(), drivers.size());
}

TEST(AlsaCards, TellWhoHasThem) {
    const fs::path proc =
        fs::temp_directory_path() / ("tavistro-alsa-test-proc-" + std::to_string(getpid()));
    fs::remove_all(proc);
    const auto write = [&](const char* file, const char* text) {
        fs::create_directories((proc / file).parent_path());
        std::ofstream(proc / file) << text;
    };
    write("asound/card2/pcm1p/sub0/status", "closed\n");
    write("asound/card2/pcm1p/sub1/status", "state: RUNNING\nowner_pid   : 4713\n");
    write("asound/card2/pcm3c/sub0/status", "closed\n");
    write("4713/status", "Name:\tthread\nTgid:\t4711\n");
    write("4711/status", "Name:\tplayer\nTgid:\t4711\n");
    const auto drivers = list_drivers(cards);
    EXPECT_EQ(owner_of(drivers[2], false, proc), "player (process 4711)");
    EXPECT_EQ(owner_of(drivers[2], true, proc), "another program");
    EXPECT_EQ(owner_of(drivers[0], false, proc), "another program");
    fs::remove_all(proc);
}

}  // namespace
}  // namespace tavistro::test
