// The tags a gateway serves: the tag file of [gateway] tags, with what the
// configuration says of them ([gateway] writable, [deadband]). Each tag's
// name is a topic level of its own, so it holds no / + # and is unique.
#ifndef PLCGATE_TAG_SET_H
#define PLCGATE_TAG_SET_H

#include "config.h"
#include "tag_watch.h"

#include <string>
#include <vector>

namespace plcgate {

// The tags, or the one line that says what is wrong: a line of the tag
// file, or the key of the configuration that names a tag it does not have
// (or one that cannot be written, or one that is no number for a deadband).
Parsed<std::vector<GateTag>> load_tags(const GateConfig &config);

} // namespace plcgate

#endif // PLCGATE_TAG_SET_H
