// plcgate's configuration: an INI file read through QSettings, sections
// [gateway], [plc], [mqtt] and the optional [deadband] (tag = amount), and
// every key once more on the command line as --section.key VALUE (or
// --section.key=VALUE), which wins over the file. A bad value is refused
// with one line that names the key and where it was given: FILE:LINE for
// the file (QSettings knows no lines, so the file's text is scanned for
// them), the option for the command line.
#ifndef PLCGATE_CONFIG_H
#define PLCGATE_CONFIG_H

#include "parsed.h"
#include "plchost.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace plcgate {

using plctags::Parsed;

// The configuration file a run reads when --config is not given.
constexpr const char *kDefaultConfig = "/etc/plcgate/plcgate.conf";

struct MqttSettings {
    std::string host = "127.0.0.1";
    int port = 1883;
    std::string client_id; // "plcgate-NAME" when not given
    std::string username, password;
    std::string ca_file, cert_file, key_file; // TLS when ca_file is given
    int keepalive_s = 30;
};

struct GateConfig {
    std::string name;      // the gateway's topic level: plcgate/NAME/...
    std::string tags_path; // the tag file (relative paths from the configuration's folder)
    std::vector<std::string> writable;
    bool all_writable = false; // writable = *
    int refresh_s = 60;        // a tag is published at least this often; 0: only on change
    size_t buffer = 10000;     // messages kept while the broker cannot take them
    plchost::HostConfig host;
    // [plc] host and port as given: they make the one endpoint when
    // [plc] endpoints is not given (see load_config).
    std::string plc_host;
    int plc_port = 0;
    MqttSettings mqtt;
    std::map<std::string, double> deadbands; // by tag name
    // Where each key given came from ("FILE:LINE" or "--section.key"), by
    // "section.key"; later checks (the tag file's names) name it too.
    std::map<std::string, std::string> origins;
};

// What the command line asks for.
struct Invocation {
    bool help = false;
    std::string config_path;                      // empty: kDefaultConfig when it exists
    std::map<std::string, std::string> overrides; // "section.key" -> value
};

Parsed<Invocation> parse_arguments(const std::vector<std::string> &args);

// The configuration of an invocation: the file (if any) with the overrides.
Parsed<GateConfig> load_config(const Invocation &invocation);

// Where a key was given, for messages: "FILE:LINE: [section] key" or
// "--section.key"; just "[section] key" when it was not given.
std::string key_origin(const GateConfig &config, const std::string &section_key);

const char *usage_text();

} // namespace plcgate

#endif // PLCGATE_CONFIG_H
