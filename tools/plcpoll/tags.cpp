#include "tags.h"

namespace plcpoll {

Result<std::vector<PollTag>> load_tags(const std::vector<TagSource> &sources)
{
    std::vector<PollTag> tags;
    for (const TagSource &source : sources) {
        if (source.from == TagSource::From::File) {
            auto file = plctags::read_tag_file(source.text);
            if (!file.ok())
                return usage_error(file.why());
            tags.insert(tags.end(), file.value().begin(), file.value().end());
            continue;
        }
        auto tag = plctags::parse_tag_line(source.text);
        if (!tag.ok())
            return usage_error("--tag '" + source.text + "': " + tag.why());
        tags.push_back(std::move(tag).value());
    }
    return tags;
}

} // namespace plcpoll
