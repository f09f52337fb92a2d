// plcsim's command line: defaults, every option, and the errors it refuses.
#include "options.h"

#include <gtest/gtest.h>

#include <vector>

using plcsim::Options;
using plcsim::parse_options;
using plcsim::parse_station_list;

namespace {

plcsim::ParseResult parse(std::vector<const char *> args, Options &o)
{
    args.insert(args.begin(), "plcsim");
    return parse_options(static_cast<int>(args.size()), args.data(), o);
}

} // namespace

TEST(PlcsimOptions, Defaults)
{
    Options o;
    ASSERT_TRUE(parse({}, o).ok);
    EXPECT_EQ(o.address, "127.0.0.1");
    EXPECT_EQ(o.modbus_port, 1502);
    EXPECT_EQ(o.remote_port, 1503);
    EXPECT_EQ(o.stations, std::vector<int>{1});
    EXPECT_TRUE(o.log_path.empty());
    EXPECT_FALSE(o.freeze);
    EXPECT_EQ(o.fill, plcsim::Fill::Zero);
    EXPECT_TRUE(o.port_file.empty());
    EXPECT_FALSE(o.help);
}

TEST(PlcsimOptions, EveryOptionInBothSpellings)
{
    Options o;
    ASSERT_TRUE(parse({"--address", "127.0.0.2", "--port=0", "--remote-port", "2000", "--stations=3,1-2", "--log", "-",
                       "--static", "--port-file=/tmp/x", "--fill", "address"},
                      o)
                    .ok);
    EXPECT_EQ(o.address, "127.0.0.2");
    EXPECT_EQ(o.modbus_port, 0);
    EXPECT_EQ(o.remote_port, 2000);
    EXPECT_EQ(o.stations, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(o.log_path, "-");
    EXPECT_TRUE(o.freeze);
    EXPECT_EQ(o.port_file, "/tmp/x");
    EXPECT_EQ(o.fill, plcsim::Fill::Address);
    Options zero;
    ASSERT_TRUE(parse({"--fill=zero"}, zero).ok);
    EXPECT_EQ(zero.fill, plcsim::Fill::Zero);
}

TEST(PlcsimOptions, HelpFlag)
{
    Options o;
    ASSERT_TRUE(parse({"--help"}, o).ok);
    EXPECT_TRUE(o.help);
    EXPECT_NE(plcsim::usage_text().find("--stations LIST"), std::string::npos);
}

TEST(PlcsimOptions, RefusesBadInput)
{
    const std::vector<std::vector<const char *>> bad = {
        {"--bogus"},          {"stray"},
        {"--port"},           {"--port", "65536"},
        {"--port", "-1"},     {"--port", "12a"},
        {"--port", ""},       {"--remote-port", "99999"},
        {"--address", "foo"}, {"--address", "::1"},
        {"--stations", "x"},  {"--static=1"},
        {"--help=yes"},       {"--log="},
        {"--port-file="},     {"--stations"},
        {"--fill"},           {"--fill", "pattern"},
        {"--fill="},
    };
    for (const auto &args : bad) {
        Options o;
        plcsim::ParseResult r = parse(args, o);
        EXPECT_FALSE(r.ok) << args[0];
        EXPECT_FALSE(r.error.empty()) << args[0];
        EXPECT_EQ(r.error.find('\n'), std::string::npos) << r.error;
    }
}

TEST(PlcsimOptions, StationLists)
{
    std::vector<int> ids;
    ASSERT_TRUE(parse_station_list("1,2,5", ids).ok);
    EXPECT_EQ(ids, (std::vector<int>{1, 2, 5}));
    ASSERT_TRUE(parse_station_list("1-4", ids).ok);
    EXPECT_EQ(ids, (std::vector<int>{1, 2, 3, 4}));
    ASSERT_TRUE(parse_station_list("7,1-3,2", ids).ok);
    EXPECT_EQ(ids, (std::vector<int>{1, 2, 3, 7}));
    ASSERT_TRUE(parse_station_list("0,247", ids).ok);
    EXPECT_EQ(ids, (std::vector<int>{0, 247}));
    ASSERT_TRUE(parse_station_list("5-5", ids).ok);
    EXPECT_EQ(ids, std::vector<int>{5});
}

TEST(PlcsimOptions, BadStationListsLeaveTheOldListAlone)
{
    for (const char *text :
         {"", "248", "1,,2", "1,", ",1", "4-2", "1-", "-3", "1-2-3", "a", " 1", "1 ", "+1", "1-300", "99999999999"}) {
        std::vector<int> ids{42};
        plcsim::ParseResult r = parse_station_list(text, ids);
        EXPECT_FALSE(r.ok) << "'" << text << "'";
        EXPECT_EQ(ids, std::vector<int>{42});
    }
}
