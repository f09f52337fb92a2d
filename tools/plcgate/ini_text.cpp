#include "ini_text.h"

#include "text.h"

#include <map>
#include <sstream>

namespace plcgate {

namespace {

// The sections a configuration may have.
const char *const kSections[] = {"gateway", "plc", "mqtt", "deadband", nullptr};

using plctags::refuse;
using plctags::trim;

bool known_section(const std::string &name)
{
    for (const char *const *s = kSections; *s; ++s)
        if (name == *s)
            return true;
    return false;
}

std::string section_names()
{
    std::string names;
    for (const char *const *s = kSections; *s; ++s)
        names += (names.empty() ? "" : " ") + std::string(*s);
    return names;
}

bool is_comment(const std::string &line)
{
    return line.empty() || line[0] == ';' || line[0] == '#';
}

} // namespace

plctags::Parsed<std::vector<std::pair<std::string, int>>> scan_ini(const std::string &text)
{
    std::vector<std::pair<std::string, int>> keys;
    std::map<std::string, int> first_line;
    std::istringstream in(text);
    std::string section;
    int number = 0;
    for (std::string raw; std::getline(in, raw);) {
        const std::string line = trim(raw);
        const std::string at = std::to_string(++number) + ": ";
        if (is_comment(line))
            continue;
        if (line.front() == '[') {
            section = trim(line.substr(1, line.find(']') - 1));
            if (line.back() != ']' || !known_section(section))
                return refuse(at + "unknown section " + line + " (sections: " + section_names() + ")");
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string::npos || trim(line.substr(0, eq)).empty())
            return refuse(at + "expected [SECTION], KEY = VALUE or a comment (; or #), got '" + line + "'");
        if (section.empty())
            return refuse(at + "key '" + trim(line.substr(0, eq)) + "' outside a section");
        const std::string key = section + "." + trim(line.substr(0, eq));
        if (first_line.count(key))
            return refuse(at + "[" + section + "] " + key.substr(section.size() + 1) + " given twice (first on line " +
                          std::to_string(first_line[key]) + ")");
        first_line[key] = number;
        keys.emplace_back(key, number);
    }
    return keys;
}

} // namespace plcgate
