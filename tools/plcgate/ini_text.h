// Where an INI file gives its keys: QSettings reads the values but knows no
// line numbers, so messages about a key find its line here. Also refuses
// what QSettings would pass over in silence: lines that are neither a
// section, a key nor a comment, keys outside a section, unknown sections
// and keys given twice.
#ifndef PLCGATE_INI_TEXT_H
#define PLCGATE_INI_TEXT_H

#include "parsed.h"

#include <string>
#include <utility>
#include <vector>

namespace plcgate {

// Every key of the text as "section.key" with its line number (from 1), in
// the order given; or "LINE: why" for the first line that is not right.
plctags::Parsed<std::vector<std::pair<std::string, int>>> scan_ini(const std::string &text);

} // namespace plcgate

#endif // PLCGATE_INI_TEXT_H
