#include "tag_set.h"

#include "messages.h"
#include "tag_file.h"

#include <map>

namespace plcgate {

namespace {

using plctags::refuse;

std::optional<std::string> check_names(const std::vector<GateTag> &tags, const std::string &path)
{
    std::map<std::string, int> seen;
    for (const GateTag &t : tags) {
        const std::string &name = t.tag.plc.name;
        if (!is_topic_level(name))
            return path + ": tag '" + name + "': a tag's name is a topic level of its own: no / + #";
        if (seen[name]++)
            return path + ": tag '" + name + "' is named twice";
    }
    return std::nullopt;
}

std::optional<std::string> mark_writable(const GateConfig &c, std::vector<GateTag> &tags)
{
    for (GateTag &t : tags)
        t.writable = c.all_writable && plchost::kind_writable(t.tag.plc.kind);
    for (const std::string &name : c.writable) {
        GateTag *t = find_tag(tags, name);
        const std::string where = key_origin(c, "gateway.writable") + ": ";
        if (!t)
            return where + "no tag '" + name + "' in " + c.tags_path;
        const int kind = t->tag.plc.kind;
        if (!plchost::kind_writable(kind))
            return where + "tag '" + name + "' is kind " + std::to_string(kind) + " (" + plchost::kind_name(kind) +
                   "), which cannot be written (writable kinds: " + plctags::writable_kinds_text() + ")";
        t->writable = true;
    }
    return std::nullopt;
}

std::optional<std::string> set_deadbands(const GateConfig &c, std::vector<GateTag> &tags)
{
    for (const auto &d : c.deadbands) {
        GateTag *t = find_tag(tags, d.first);
        const std::string where = key_origin(c, "deadband." + d.first) + ": ";
        if (!t)
            return where + "no tag '" + d.first + "' in " + c.tags_path;
        if (!plctags::shows_numbers(t->tag.type))
            return where + "tag '" + d.first + "' is of type " + plctags::type_name(t->tag.type) +
                   ": a deadband is for numbers";
        t->deadband = d.second;
    }
    return std::nullopt;
}

} // namespace

Parsed<std::vector<GateTag>> load_tags(const GateConfig &config)
{
    auto file = plctags::read_tag_file(config.tags_path);
    if (!file.ok())
        return refuse(file.why());
    std::vector<GateTag> tags;
    for (plctags::Tag &t : std::move(file).value())
        tags.push_back(GateTag{std::move(t), false, std::nullopt});
    if (auto why = check_names(tags, config.tags_path))
        return refuse(*why);
    if (auto why = mark_writable(config, tags))
        return refuse(*why);
    if (auto why = set_deadbands(config, tags))
        return refuse(*why);
    return tags;
}

} // namespace plcgate
