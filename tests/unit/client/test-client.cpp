/* What the client makes of messages that the daemon would not send. That it reads those of the
   daemon, and makes calls that the daemon takes, is seen by the tests of duskvalectl. */
#include "client/announcement.h"
#include "client/call.h"
#include "client/snapshot.h"

#include <gtest/gtest.h>

using namespace client;

namespace {

/* In the format of g_variant_parse(3). */
Variant parsed(const char *text) {
    return Variant(g_variant_parse(nullptr, text, nullptr, nullptr, nullptr));
}

} // namespace

TEST(Announcement, OfAnotherFormOrNameIsNone) {
    EXPECT_EQ(read_announcement("NotifyJoined", parsed("(uint32 3, uint32 2)").get()),
              std::optional<Announcement>(Joined{3, 2}));
    EXPECT_EQ(read_announcement("NotifyJoined", parsed("(true,)").get()), std::nullopt);
    EXPECT_EQ(read_announcement("NotifyOfTomorrow", parsed("()").get()), std::nullopt);
}

TEST(Call, ReadsTheStatusWhereThereIsOne) {
    EXPECT_EQ(read_status(parsed("(false,)").get()), false);
    EXPECT_EQ(read_status(parsed("(true,)").get()), true);
    EXPECT_EQ(read_status(parsed("()").get()), true);
    EXPECT_EQ(read_status(parsed("(1,)").get()), std::nullopt);
}

TEST(Snapshot, NamesThePropertyThatIsMissing) {
    std::string fault;
    const char *most = "({'Version': <'1.0'>, 'LocalNodeId': <-1062731519>, 'MasterNodeId': <2>, "
                       "'FrozenMaster': <4>, 'FrozenMasterReason': <'night'>, 'Later': <1>},)";
    EXPECT_EQ(read_snapshot(parsed(most).get(), &fault), std::nullopt);
    EXPECT_EQ(fault, "it lacks the property NodeCount");
    EXPECT_EQ(read_snapshot(parsed("(1,)").get()), std::nullopt);
}
