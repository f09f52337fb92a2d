// plcpoll's tag sources: the --tag lines and --tags files of the command
// line, in their order, and a bad one as a usage error that says where it
// came from.
#include "tags.h"
#include "usage_error.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <unistd.h>

using plcpoll::PollTag;
using plcpoll::TagSource;

namespace {

std::string describe(const std::vector<PollTag> &tags)
{
    std::string text;
    for (const PollTag &t : tags)
        text += t.plc.name + "|" + std::to_string(t.plc.kind) + "|" + t.plc.address + "|" +
                std::to_string(t.plc.station) + "|" + std::to_string(t.plc.count) + "\n";
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
                                "cannot open tag file /nonexistent/t.csv: No such file or directory"},
                      BadSource{{{TagSource::From::Line, "f,4,0,1,1,float32"}},
                                "--tag 'f,4,0,1,1,float32': tag 'f': float32 takes 2 registers per value; kind 4 "
                                "(word (class 4)) count 1 covers 1"}));
