// When each part of the mirror was read: where a tag's values lie in its
// register class, and the spans of read times that good replies leave
// (overwritten, cut, joined without gaps), without a socket.
#include "plchost.h"
#include "read_times.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

using plchost::ClassRange;
using plchost::ReadTimes;

namespace {

plchost::Tag tag(int kind, const std::string &address, int count)
{
    plchost::Tag t;
    t.kind = kind;
    t.address = address;
    t.count = count;
    return t;
}

ReadTimes::Time at(int seconds)
{
    return ReadTimes::Time(std::chrono::seconds(seconds));
}

ClassRange range(int cls, int64_t start, int64_t count)
{
    ClassRange r;
    r.cls = cls;
    r.start = start;
    r.count = count;
    return r;
}

struct RangeCase {
    const char *what;
    int kind;
    const char *address;
    int count;
    int cls;
    int64_t start;
    int64_t units;
};

} // namespace

class ClassRangeOfTag : public ::testing::TestWithParam<RangeCase> {};

TEST_P(ClassRangeOfTag, Table)
{
    const RangeCase &c = GetParam();
    const auto r = plchost::class_range(tag(c.kind, c.address, c.count));
    ASSERT_TRUE(r.has_value()) << c.what;
    EXPECT_EQ(r->cls, c.cls) << c.what;
    EXPECT_EQ(r->start, c.start) << c.what;
    EXPECT_EQ(r->count, c.units) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ClassRangeOfTag,
    ::testing::Values(RangeCase{"discrete inputs: bits", 0, "1.2", 5, 0, 10, 5},
                      RangeCase{"coils: bits", 1, "0.0", 16, 1, 0, 16},
                      RangeCase{"input registers", 2, "100", 3, 2, 100, 3},
                      RangeCase{"holding registers", 3, "7", 1, 3, 7, 1}, RangeCase{"words", 4, "0", 16, 4, 0, 16},
                      RangeCase{"bits of a word: bits 960..975 are word 60", 5, "120.0", 16, 4, 60, 1},
                      RangeCase{"bits of a word across two words", 5, "1.7", 2, 4, 0, 2},
                      RangeCase{"bytes 5..7 are in words 2 and 3", 7, "5", 3, 3, 2, 2},
                      RangeCase{"dwords: address doubled, count in words", 11, "20", 8, 4, 40, 8},
                      RangeCase{"dword count rounded up to a whole register", 9, "1", 3, 2, 2, 3},
                      RangeCase{"qwords: address times four", 14, "2", 4, 4, 8, 4}));

TEST(ClassRangeOfTag, NothingForBadTags)
{
    EXPECT_FALSE(plchost::class_range(tag(15, "0", 1)).has_value());
    EXPECT_FALSE(plchost::class_range(tag(-1, "0", 1)).has_value());
    EXPECT_FALSE(plchost::class_range(tag(4, "x", 1)).has_value());
    EXPECT_FALSE(plchost::class_range(tag(0, "12", 1)).has_value()) << "a bit kind needs BYTE.BIT";
    EXPECT_FALSE(plchost::class_range(tag(4, "0", 0)).has_value());
}

TEST(ReadTimes, NothingReadYet)
{
    ReadTimes t;
    EXPECT_FALSE(t.oldest(1, range(4, 0, 1)).has_value());
}

TEST(ReadTimes, ASpanAndItsParts)
{
    ReadTimes t;
    t.note(1, range(4, 0, 10), at(5));
    EXPECT_EQ(t.oldest(1, range(4, 0, 10)), at(5));
    EXPECT_EQ(t.oldest(1, range(4, 3, 2)), at(5));
    EXPECT_FALSE(t.oldest(1, range(4, 5, 10)).has_value()) << "reaches past what was read";
    EXPECT_FALSE(t.oldest(2, range(4, 0, 1)).has_value()) << "another station";
    EXPECT_FALSE(t.oldest(1, range(3, 0, 1)).has_value()) << "another class";
}

TEST(ReadTimes, NeighboursJoinAndTheOldestCounts)
{
    ReadTimes t;
    t.note(1, range(4, 0, 10), at(5));
    t.note(1, range(4, 10, 10), at(7));
    EXPECT_EQ(t.oldest(1, range(4, 0, 20)), at(5));
    EXPECT_EQ(t.oldest(1, range(4, 10, 10)), at(7));
    EXPECT_EQ(t.oldest(1, range(4, 9, 2)), at(5));
}

TEST(ReadTimes, AGapMeansNotRead)
{
    ReadTimes t;
    t.note(1, range(4, 0, 10), at(5));
    t.note(1, range(4, 11, 10), at(5));
    EXPECT_FALSE(t.oldest(1, range(4, 5, 10)).has_value());
}

TEST(ReadTimes, ANewerReplyOverwritesAndCutsWhatItCovers)
{
    ReadTimes t;
    t.note(1, range(4, 0, 20), at(1));
    t.note(1, range(4, 5, 5), at(9));
    EXPECT_EQ(t.oldest(1, range(4, 5, 5)), at(9));
    EXPECT_EQ(t.oldest(1, range(4, 0, 5)), at(1));
    EXPECT_EQ(t.oldest(1, range(4, 10, 10)), at(1));
    EXPECT_EQ(t.oldest(1, range(4, 0, 20)), at(1));
    EXPECT_EQ(t.spans(), 3u);
    t.note(1, range(4, 0, 20), at(10));
    EXPECT_EQ(t.oldest(1, range(4, 0, 20)), at(10));
    EXPECT_EQ(t.spans(), 1u) << "one reply over all of it leaves one span";
}

// However many different blocks are read, the spans never outnumber the
// addresses of the class.
TEST(ReadTimes, StaysBounded)
{
    ReadTimes t;
    for (int round = 0; round < 50; ++round)
        for (int start = 0; start < 1000; start += 1 + round % 7)
            t.note(1, range(4, start, 1 + round % 5), at(round));
    EXPECT_LE(t.spans(), 1000u + 5u);
    EXPECT_TRUE(t.oldest(1, range(4, 0, 1000)).has_value());
}
