// plcpoll's tags: the typed tags of the tags library (tools/tags), given on
// the command line (--tag LINE) or in tag files (--tags FILE).
#ifndef PLCPOLL_TAGS_H
#define PLCPOLL_TAGS_H

#include "result.h"
#include "tag.h"
#include "tag_file.h"

#include <string>
#include <vector>

namespace plcpoll {

// One tag as plcpoll reads and shows it: `plc` is where it lives, as the
// host and the driver are given it; the rest is how its value is shown.
using PollTag = plctags::Tag;

// Where tags come from, in the order the command line names them.
struct TagSource {
    enum class From { Line, File };
    From from = From::Line;
    std::string text; // the tag's line, or the path of the tag file
};

// Every tag of the sources, in their order; a bad one is a usage error that
// says where it came from.
Result<std::vector<PollTag>> load_tags(const std::vector<TagSource> &sources);

} // namespace plcpoll

#endif // PLCPOLL_TAGS_H
