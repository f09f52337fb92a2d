// Tag lines and tag files: "name,kind,address,station,count" and, optional
// after them, ",type,order,scale,offset,unit" (an empty field keeps its
// default: raw, ABCD, 1, 0, no unit). A tag file is such lines in CSV.
#ifndef PLCTAGS_TAG_FILE_H
#define PLCTAGS_TAG_FILE_H

#include "parsed.h"
#include "tag.h"

#include <istream>
#include <optional>
#include <string>
#include <vector>

namespace plctags {

// A tag line (blanks around fields are ignored). On a bad line the reason
// alone, for the caller to say where the line came from; a type that does
// not fit the kind and count names the tag ("tag 'flow': ...").
Parsed<Tag> parse_tag_line(const std::string &line);

// Tag lines read from `in`; `origin` names it in reasons ("FILE:LINE: ...").
// '#' starts a comment, blank lines are skipped, and a first line whose
// second field is "kind" is a header. No tag at all is refused.
Parsed<std::vector<Tag>> read_tag_stream(std::istream &in, const std::string &origin);
Parsed<std::vector<Tag>> read_tag_file(const std::string &path);

// Stations a tag may name: 0 is the broadcast address of Modbus.
constexpr long long kMinStation = 0, kMaxStation = 255;

// Readers of single fields, shared with the tools' options. Each returns why
// the text is not valid, or nothing when it is (and stores what it read).
std::optional<std::string> parse_kind(const std::string &text, int *kind);
std::optional<std::string> check_address(int kind, const std::string &address);
std::optional<std::string> parse_type(const std::string &text, Tag *tag);
std::optional<std::string> parse_order(const std::string &text, Tag *tag);
std::optional<std::string> parse_scale(const std::string &text, Tag *tag);
std::optional<std::string> parse_offset(const std::string &text, Tag *tag);

// What the scale and offset fields accept, for messages (type_names() and
// order_names() say it for the type and the order).
std::string real_field_text();

// The kinds the driver writes, as a list for messages: "1 3 4 ...".
std::string writable_kinds_text();

} // namespace plctags

#endif // PLCTAGS_TAG_FILE_H
