// plcpoll's tags: tag lines good and bad, tag files with comments, header and
// errors by line, and the sources of the command line in their order.
#include "tags.h"
#include "usage_error.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <unistd.h>

using plcpoll::ExitStatus;
using plcpoll::PollTag;
using plcpoll::TagSource;

namespace {

std::string describe(const plchost::Tag &t)
{
    return t.name + "|" + std::to_string(t.kind) + "|" + t.address + "|" + std::to_string(t.station) + "|" +
           std::to_string(t.count);
}

std::string describe(const std::vector<PollTag> &tags)
{
    std::string text;
    for (const PollTag &t : tags)
        text += describe(t.plc) + "\n";
    return text;
}

// A file that lives as long as the object.
class TempFile {
public:
    explicit TempFile(const std::string &text)
        : path_("/tmp/plcpoll-tags-" + std::to_string(::getpid()) + "-" + std::to_string(next_++) + ".csv")
    {
        std::ofstream(path_) << text;
    }
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string &path() const { return path_; }

private:
    static inline int next_ = 0;
    std::string path_;
};

} // namespace

struct GoodLine {
    std::string line;
    std::string tag; // name|kind|address|station|count
};

class PlcpollGoodTagLine : public ::testing::TestWithParam<GoodLine> {};

TEST_P(PlcpollGoodTagLine, GivesTheTag)
{
    const auto r = plcpoll::parse_tag_line(GetParam().line);
    ASSERT_TRUE(r.ok()) << r.exit().message;
    EXPECT_EQ(describe(r.value().plc), GetParam().tag);
}

INSTANTIATE_TEST_SUITE_P(Lines, PlcpollGoodTagLine,
                         ::testing::Values(GoodLine{"w,4,0,1,1", "w|4|0|1|1"},
                                           GoodLine{" spaced name \t, 4 , 100 ,\t2 , 3\r", "spaced name|4|100|2|3"},
                                           GoodLine{"onehot,0,0.0,1,8", "onehot|0|0.0|1|8"},
                                           GoodLine{"coil,1,12.7,0,1", "coil|1|12.7|0|1"},
                                           GoodLine{"wordbit,5,2.3,255,4", "wordbit|5|2.3|255|4"},
                                           GoodLine{"bytes,8,20,1,2", "bytes|8|20|1|2"},
                                           GoodLine{"dword,9,8,1,2", "dword|9|8|1|2"},
                                           GoodLine{"qword,14,8,1,10000", "qword|14|8|1|10000"},
                                           GoodLine{"a \"quoted\" name,2,4,1,1", "a \"quoted\" name|2|4|1|1"}));

struct BadLine {
    std::string line;
    std::string why;
};

class PlcpollBadTagLine : public ::testing::TestWithParam<BadLine> {};

TEST_P(PlcpollBadTagLine, SaysWhy)
{
    EXPECT_TRUE(is_usage_error(plcpoll::parse_tag_line(GetParam().line), GetParam().why)) << GetParam().line;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, PlcpollBadTagLine,
    ::testing::Values(
        BadLine{"w,4,0,1", "expected 5 fields name,kind,address,station,count, got 4"},
        BadLine{"w,4,0,1,1,x", "expected 5 fields name,kind,address,station,count, got 6"},
        BadLine{"", "expected 5 fields name,kind,address,station,count, got 1"}, BadLine{" ,4,0,1,1", "empty tag name"},
        BadLine{"w,15,0,1,1", "invalid kind '15' (0..14)"}, BadLine{"w,-1,0,1,1", "invalid kind '-1' (0..14)"},
        BadLine{"w,word,0,1,1", "invalid kind 'word' (0..14)"}, BadLine{"w,,0,1,1", "invalid kind '' (0..14)"},
        BadLine{"w,4,0,256,1", "invalid station '256' (0..255)"},
        BadLine{"w,4,0,1.5,1", "invalid station '1.5' (0..255)"}, BadLine{"w,4,0,1,0", "invalid count '0' (1..10000)"},
        BadLine{"w,4,0,1,10001", "invalid count '10001' (1..10000)"},
        BadLine{"bits,0,12,1,8", "invalid address '12' for kind 0 (expected BYTE.BIT)"},
        BadLine{"bit,5,x.1,1,1", "invalid address 'x.1' for kind 5 (expected BYTE.BIT)"},
        BadLine{"w,2,0x10,1,1", "invalid address '0x10' for kind 2 (expected a number)"},
        BadLine{"w,4,,1,1", "invalid address '' for kind 4 (expected a number)"},
        // The first bad field in the order name, kind, station, count, then the address.
        BadLine{"w,15,x,256,0", "invalid kind '15' (0..14)"}, BadLine{"w,4,x,256,0", "invalid station '256' (0..255)"},
        BadLine{"w,4,x,1,0", "invalid count '0' (1..10000)"}));

TEST(PlcpollTagFile, SkipsCommentsBlankLinesAndAHeader)
{
    std::istringstream in("# tags\nname,kind,address,station,count\n\n  \t\nw,4,0,1,2 # two words\n"
                          "c,1,0.0,1,8\n# the end\n");
    const auto r = plcpoll::read_tag_stream(in, "tags.csv");
    ASSERT_TRUE(r.ok()) << r.exit().message;
    EXPECT_EQ(describe(r.value()), "w|4|0|1|2\nc|1|0.0|1|8\n");
}

struct BadFile {
    std::string text;
    std::string message;
};

class PlcpollBadTagFile : public ::testing::TestWithParam<BadFile> {};

TEST_P(PlcpollBadTagFile, NamesTheFileAndLine)
{
    std::istringstream in(GetParam().text);
    EXPECT_TRUE(is_usage_error(plcpoll::read_tag_stream(in, "f.csv"), GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Files, PlcpollBadTagFile,
    ::testing::Values(BadFile{"name,kind,address,station,count\n# fine\nok,4,0,1,1\n\nbad,4,0,1\n",
                              "f.csv:5: expected 5 fields name,kind,address,station,count, got 4"},
                      BadFile{"bits,0,12,1,8\n", "f.csv:1: invalid address '12' for kind 0 (expected BYTE.BIT)"},
                      // Only the first line that holds anything may be a header.
                      BadFile{"w,4,0,1,1\nname,kind,address,station,count\n", "f.csv:2: invalid kind 'kind' (0..14)"},
                      BadFile{"", "no tags in f.csv"}, BadFile{"# nothing\n\n", "no tags in f.csv"},
                      BadFile{"name,kind,address,station,count\n", "no tags in f.csv"}));

TEST(PlcpollTagFile, AFileThatCannotBeOpenedIsAUsageError)
{
    EXPECT_TRUE(is_usage_error(plcpoll::read_tag_file("/nonexistent/tags.csv"),
                               "cannot open tag file /nonexistent/tags.csv: No such file or directory"));
}

TEST(PlcpollTagFile, TheExampleFileHasATagOfEveryKind)
{
    const auto r = plcpoll::read_tag_file(std::string(PLCDRIVER_SOURCE_DIR) + "/tools/plcpoll/example-tags.csv");
    ASSERT_TRUE(r.ok()) << r.exit().message;
    std::set<int> kinds;
    for (const PollTag &t : r.value())
        kinds.insert(t.plc.kind);
    EXPECT_EQ(kinds.size(), 15u);
    EXPECT_EQ(*kinds.begin(), 0);
    EXPECT_EQ(*kinds.rbegin(), 14);
}

TEST(PlcpollTagSources, KeepTheOrderOfTheCommandLine)
{
    const TempFile file("x,2,4,1,1\ny,3,0,1,2\n");
    const auto r = plcpoll::load_tags({{TagSource::From::Line, "a,4,0,1,1"},
                                       {TagSource::From::File, file.path()},
                                       {TagSource::From::Line, "b,1,0.1,2,3"}});
    ASSERT_TRUE(r.ok()) << r.exit().message;
    EXPECT_EQ(describe(r.value()), "a|4|0|1|1\nx|2|4|1|1\ny|3|0|1|2\nb|1|0.1|2|3\n");
    EXPECT_TRUE(plcpoll::load_tags({}).value().empty());
}

struct BadSource {
    std::vector<TagSource> sources;
    std::string message;
};

class PlcpollBadTagSource : public ::testing::TestWithParam<BadSource> {};

TEST_P(PlcpollBadTagSource, NamesWhereTheTagCameFrom)
{
    EXPECT_TRUE(is_usage_error(plcpoll::load_tags(GetParam().sources), GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Sources, PlcpollBadTagSource,
    ::testing::Values(BadSource{{{TagSource::From::Line, "a,2,0x10,1,1"}},
                                "--tag 'a,2,0x10,1,1': invalid address '0x10' for kind 2 (expected a number)"},
                      BadSource{{{TagSource::From::Line, "a,2,0,1,0"}},
                                "--tag 'a,2,0,1,0': invalid count '0' (1..10000)"},
                      // A '#' in a --tag is part of the line, not a comment.
                      BadSource{{{TagSource::From::Line, "a,4,0,1,1 # x"}},
                                "--tag 'a,4,0,1,1 # x': invalid count '1 # x' (1..10000)"},
                      BadSource{{{TagSource::From::Line, "a,4,0,1,1"}, {TagSource::From::File, "/nonexistent/t.csv"}},
                                "cannot open tag file /nonexistent/t.csv: No such file or directory"}));

TEST(PlcpollKinds, WritableKindsAreListedInOrder)
{
    EXPECT_EQ(plcpoll::writable_kinds_text(), "1 3 4 5 7 8 10 11 13 14");
}
