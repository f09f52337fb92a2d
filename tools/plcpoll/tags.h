// plcpoll's tags: the tag record, a tag given on the command line
// ("name,kind,address,station,count") and the CSV tag file of such lines.
#ifndef PLCPOLL_TAGS_H
#define PLCPOLL_TAGS_H

#include "plchost.h"
#include "result.h"

#include <istream>
#include <optional>
#include <string>
#include <vector>

namespace plcpoll {

// One tag as plcpoll reads and shows it. `plc` is where it lives, as the host
// and the driver are given it. The columns of a tag line (kColumns in
// tags.cpp) fill its fields.
struct PollTag {
    plchost::Tag plc;
};

// Where tags come from, in the order the command line names them.
struct TagSource {
    enum class From { Line, File };
    From from = From::Line;
    std::string text; // the tag's line, or the path of the tag file
};

// A tag line "name,kind,address,station,count" (blanks around fields are
// ignored). On a bad line the Exit's message is the reason alone, for the
// caller to say where the line came from.
Result<PollTag> parse_tag_line(const std::string &line);

// Tag lines read from `in`; `origin` names it in messages ("FILE:LINE: ...").
// '#' starts a comment, blank lines are skipped, and a first line whose
// second field is "kind" is a header. No tag at all is an error.
Result<std::vector<PollTag>> read_tag_stream(std::istream &in, const std::string &origin);
Result<std::vector<PollTag>> read_tag_file(const std::string &path);

// Every tag of the sources, in their order.
Result<std::vector<PollTag>> load_tags(const std::vector<TagSource> &sources);

// Checks shared with the write command. Each returns why the text is not
// valid, or nothing when it is (and stores what it read).
std::optional<std::string> parse_kind(const std::string &text, int *kind);
std::optional<std::string> check_address(int kind, const std::string &address);

// The kinds the driver writes, as a list for messages: "1 3 4 ...".
std::string writable_kinds_text();

} // namespace plcpoll

#endif // PLCPOLL_TAGS_H
