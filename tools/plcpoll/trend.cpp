// Trends of the live table: the last values of each numeric tag, and their
// sparkline.
#include "output.h"

#include <algorithm>
#include <cmath>

namespace plcpoll {

namespace {

// U+2581..U+2588, lower one eighth block to full block.
const char *const kBlocks[] = {"\u2581", "\u2582", "\u2583", "\u2584", "\u2585", "\u2586", "\u2587", "\u2588"};
constexpr int kLevels = int(sizeof kBlocks / sizeof kBlocks[0]);
// A trend that stands still sits in the middle.
constexpr int kMiddleLevel = kLevels / 2 - 1;

bool trends_numbers(const TagReading &r)
{
    return plctags::shows_numbers(r.tag.type);
}

} // namespace

void carry_trends(Snapshot *now, const Snapshot *before)
{
    const bool same_tags = before && before->tags.size() == now->tags.size();
    for (size_t i = 0; i < now->tags.size(); ++i) {
        TagReading &r = now->tags[i];
        if (same_tags)
            r.trend = before->tags[i].trend;
        if (!trends_numbers(r) || r.quality != plchost::Quality::Good || r.values.empty())
            continue;
        const double first = plctags::value_number(r.values[0]);
        if (!std::isfinite(first))
            continue;
        r.trend.push_back(first);
        if (r.trend.size() > kTrendLength)
            r.trend.erase(r.trend.begin(), r.trend.end() - long(kTrendLength));
    }
}

std::string sparkline(const std::vector<double> &trend)
{
    if (trend.empty())
        return "";
    const auto [low, high] = std::minmax_element(trend.begin(), trend.end());
    const double span = *high - *low;
    std::string line;
    for (double v : trend) {
        const int level = span > 0 ? int(std::lround((v - *low) / span * (kLevels - 1))) : kMiddleLevel;
        line += kBlocks[level];
    }
    return line;
}

} // namespace plcpoll
