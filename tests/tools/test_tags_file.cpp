// Tag lines and files of the tags library: lines good and bad, with and
// without the typed columns, files with comments, header and errors by line.
#include "tag_file.h"

#include "numbers.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

using plctags::Tag;

namespace {

std::string describe(const plchost::Tag &t)
{
    return t.name + "|" + std::to_string(t.kind) + "|" + t.address + "|" + std::to_string(t.station) + "|" +
           std::to_string(t.count);
}

std::string describe(const std::vector<Tag> &tags)
{
    std::string text;
    for (const Tag &t : tags)
        text += describe(t.plc) + "\n";
    return text;
}

// The typed columns: type|order|scale|offset|unit.
std::string describe_type(const Tag &t)
{
    return std::string(plctags::type_name(t.type)) + "|" + plctags::order_name(t.order) + "|" +
           plctags::real_text(t.scale) + "|" + plctags::real_text(t.offset) + "|" + t.unit;
}

template <typename T>::testing::AssertionResult is_refused(const plctags::Parsed<T> &r, const std::string &why)
{
    if (r.ok())
        return ::testing::AssertionFailure() << "accepted; expected \"" << why << "\"";
    if (r.why() != why)
        return ::testing::AssertionFailure() << "\"" << r.why() << "\"; expected \"" << why << "\"";
    return ::testing::AssertionSuccess();
}

const std::string kFields = "fields name,kind,address,station,count[,type,order,scale,offset,unit]";

} // namespace

struct GoodLine {
    std::string line;
    std::string tag; // name|kind|address|station|count
};

class TagsGoodTagLine : public ::testing::TestWithParam<GoodLine> {};

TEST_P(TagsGoodTagLine, GivesTheTag)
{
    const auto r = plctags::parse_tag_line(GetParam().line);
    ASSERT_TRUE(r.ok()) << r.why();
    EXPECT_EQ(describe(r.value().plc), GetParam().tag);
}

INSTANTIATE_TEST_SUITE_P(Lines, TagsGoodTagLine,
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

class TagsBadTagLine : public ::testing::TestWithParam<BadLine> {};

TEST_P(TagsBadTagLine, SaysWhy)
{
    EXPECT_TRUE(is_refused(plctags::parse_tag_line(GetParam().line), GetParam().why)) << GetParam().line;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, TagsBadTagLine,
    ::testing::Values(
        BadLine{"w,4,0,1", "expected 5 to 10 " + kFields + ", got 4"},
        BadLine{"w,4,0,1,1,int16,ABCD,1,0,C,x", "expected 5 to 10 " + kFields + ", got 11"},
        BadLine{"", "expected 5 to 10 " + kFields + ", got 1"}, BadLine{" ,4,0,1,1", "empty tag name"},
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
        BadLine{"w,4,x,1,0", "invalid count '0' (1..10000)"},
        BadLine{"w,4,0,1,1,x", "invalid type 'x' (raw int16 uint16 int32 uint32 int64 uint64 float32 float64 hex bits "
                               "ascii)"},
        BadLine{"w,4,0,1,1,Float32", "invalid type 'Float32' (raw int16 uint16 int32 uint32 int64 uint64 float32 "
                                     "float64 hex bits ascii)"},
        BadLine{"w,4,0,1,2,float32,cdab", "invalid order 'cdab' (ABCD CDAB BADC DCBA)"},
        BadLine{"w,4,0,1,1,int16,,x", "invalid scale 'x' (a decimal number)"},
        BadLine{"w,4,0,1,1,int16,,0x10", "invalid scale '0x10' (a decimal number)"},
        BadLine{"w,4,0,1,1,int16,,,1 0", "invalid offset '1 0' (a decimal number)"},
        // The type checked against the kind and count, naming the tag.
        BadLine{"flow,4,0,1,1,float32", "tag 'flow': float32 takes 2 registers per value; kind 4 (word (class 4)) "
                                        "count 1 covers 1"},
        BadLine{"in,0,0.0,1,8,uint16", "tag 'in': kind 0 (discrete input) holds bits: it takes no type but raw"},
        BadLine{"t,4,0,1,1,int16,CDAB", "tag 't': order CDAB needs a type wider than one register (int32 uint32 int64 "
                                        "uint64 float32 float64)"},
        BadLine{"h,4,0,1,1,hex,,0.1", "tag 'h': scale and offset need a numeric type (int16 uint16 int32 uint32 int64 "
                                      "uint64 float32 float64)"}));

TEST(TagsTagFile, SkipsCommentsBlankLinesAndAHeader)
{
    std::istringstream in("# tags\nname,kind,address,station,count\n\n  \t\nw,4,0,1,2 # two words\n"
                          "c,1,0.0,1,8\n# the end\n");
    const auto r = plctags::read_tag_stream(in, "tags.csv");
    ASSERT_TRUE(r.ok()) << r.why();
    EXPECT_EQ(describe(r.value()), "w|4|0|1|2\nc|1|0.0|1|8\n");
}

struct BadFile {
    std::string text;
    std::string message;
};

class TagsBadTagFile : public ::testing::TestWithParam<BadFile> {};

TEST_P(TagsBadTagFile, NamesTheFileAndLine)
{
    std::istringstream in(GetParam().text);
    EXPECT_TRUE(is_refused(plctags::read_tag_stream(in, "f.csv"), GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Files, TagsBadTagFile,
    ::testing::Values(BadFile{"name,kind,address,station,count\n# fine\nok,4,0,1,1\n\nbad,4,0,1\n",
                              "f.csv:5: expected 5 to 10 " + kFields + ", got 4"},
                      BadFile{"bits,0,12,1,8\n", "f.csv:1: invalid address '12' for kind 0 (expected BYTE.BIT)"},
                      // Only the first line that holds anything may be a header.
                      BadFile{"w,4,0,1,1\nname,kind,address,station,count\n", "f.csv:2: invalid kind 'kind' (0..14)"},
                      BadFile{"", "no tags in f.csv"}, BadFile{"# nothing\n\n", "no tags in f.csv"},
                      BadFile{"name,kind,address,station,count\n", "no tags in f.csv"}));

TEST(TagsTagFile, AFileThatCannotBeOpenedIsRefused)
{
    EXPECT_TRUE(is_refused(plctags::read_tag_file("/nonexistent/tags.csv"),
                           "cannot open tag file /nonexistent/tags.csv: No such file or directory"));
}

TEST(TagsTagFile, TheExampleFileHasATagOfEveryKind)
{
    const auto r = plctags::read_tag_file(std::string(PLCDRIVER_SOURCE_DIR) + "/tools/plcpoll/example-tags.csv");
    ASSERT_TRUE(r.ok()) << r.why();
    std::set<int> kinds;
    for (const Tag &t : r.value())
        kinds.insert(t.plc.kind);
    EXPECT_EQ(kinds.size(), 15u);
    EXPECT_EQ(*kinds.begin(), 0);
    EXPECT_EQ(*kinds.rbegin(), 14);
}

TEST(TagsTagFile, TheTypedExampleFileReads)
{
    const auto r = plctags::read_tag_file(std::string(PLCDRIVER_SOURCE_DIR) + "/tools/plcpoll/example-typed-tags.csv");
    ASSERT_TRUE(r.ok()) << r.why();
    ASSERT_EQ(r.value().size(), 7u);
    EXPECT_EQ(describe_type(r.value()[0]), "float32|CDAB|1|0|l/s");
    EXPECT_EQ(describe_type(r.value()[1]), "int16|ABCD|0.1|0|°C");
}

TEST(TagsKinds, WritableKindsAreListedInOrder)
{
    EXPECT_EQ(plctags::writable_kinds_text(), "1 3 4 5 7 8 10 11 13 14");
}

struct TypedLine {
    std::string line;
    std::string typed; // type|order|scale|offset|unit
};

class TagsTypedLine : public ::testing::TestWithParam<TypedLine> {};

TEST_P(TagsTypedLine, TakesTheOptionalColumns)
{
    const auto r = plctags::parse_tag_line(GetParam().line);
    ASSERT_TRUE(r.ok()) << r.why();
    EXPECT_EQ(describe_type(r.value()), GetParam().typed);
}

INSTANTIATE_TEST_SUITE_P(Lines, TagsTypedLine,
                         ::testing::Values(TypedLine{"w,4,0,1,1", "raw|ABCD|1|0|"},
                                           TypedLine{"w,4,0,1,1,,,,,", "raw|ABCD|1|0|"},
                                           TypedLine{"flow,4,10,1,2,float32,CDAB", "float32|CDAB|1|0|"},
                                           TypedLine{"temp, 2 ,4,1,1, int16 , , 0.1 , , °C ", "int16|ABCD|0.1|0|°C"},
                                           TypedLine{"t,3,0,1,1,uint16,,,-40,deg C", "uint16|ABCD|1|-40|deg C"},
                                           TypedLine{"e,14,8,1,4,float64,DCBA,2.5e-3", "float64|DCBA|0.0025|0|"},
                                           TypedLine{"s,4,0,1,8,ascii,BADC", "ascii|BADC|1|0|"},
                                           TypedLine{"b,8,0,1,2,hex", "hex|ABCD|1|0|"},
                                           TypedLine{"c,1,0.0,1,8,raw", "raw|ABCD|1|0|"}));

TEST(TagsTagFile, OldFilesAndTypedColumnsMix)
{
    std::istringstream in("name,kind,address,station,count,type,order,scale,offset,unit\n"
                          "w,4,0,1,2\nflow,4,10,1,2,float32,CDAB,,,l/s\n");
    const auto r = plctags::read_tag_stream(in, "tags.csv");
    ASSERT_TRUE(r.ok()) << r.why();
    ASSERT_EQ(r.value().size(), 2u);
    EXPECT_EQ(describe_type(r.value()[0]), "raw|ABCD|1|0|");
    EXPECT_EQ(describe_type(r.value()[1]), "float32|CDAB|1|0|l/s");
}
