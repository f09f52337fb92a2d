#include "config.h"

#include "ini_text.h"
#include "messages.h"
#include "tag_file.h"
#include "text.h"

#include <QFileInfo>
#include <QSettings>
#include <QStringList>

#include <fstream>
#include <set>
#include <sstream>
#include <unistd.h>

namespace plcgate {

namespace {

using plctags::refuse;
using Check = std::optional<std::string> (*)(const std::string &value, GateConfig *config);

constexpr int kMaxPort = 65535;
constexpr long long kMaxRefreshS = 86400, kMaxBuffer = 10000000;
constexpr long long kMaxTimeoutMs = 600000, kMaxRetries = 100, kMaxIntervalMs = 3600000;
constexpr long long kMinKeepaliveS = 5, kMaxKeepaliveS = 65535;

std::optional<std::string> bad(const std::string &value, const std::string &accepted)
{
    return "invalid value '" + value + "' (" + accepted + ")";
}

// An integer key: stores it, or says which range is accepted.
template <typename T> std::optional<std::string> integer(const std::string &value, long long min, long long max, T *out)
{
    const auto v = plctags::parse_integer(plctags::trim(value), min, max);
    if (!v)
        return bad(value, "a whole number " + std::to_string(min) + ".." + std::to_string(max));
    *out = T(*v);
    return std::nullopt;
}

std::optional<std::string> text(const std::string &value, std::string *out)
{
    if (plctags::trim(value).empty())
        return std::string("empty value");
    *out = plctags::trim(value);
    return std::nullopt;
}

// A file the gateway will open later; refused now when it cannot be read.
std::optional<std::string> readable(const std::string &value, std::string *out)
{
    if (auto why = text(value, out))
        return why;
    if (::access(out->c_str(), R_OK) != 0)
        return "cannot read '" + *out + "'";
    return std::nullopt;
}

std::optional<std::string> set_name(const std::string &value, GateConfig *c)
{
    if (!is_topic_level(plctags::trim(value)))
        return bad(value, "a name that is one MQTT topic level: no / + # and not empty");
    c->name = plctags::trim(value);
    return std::nullopt;
}

std::optional<std::string> set_writable(const std::string &value, GateConfig *c)
{
    c->writable.clear();
    c->all_writable = plctags::trim(value) == "*";
    if (c->all_writable)
        return std::nullopt;
    for (const std::string &name : plctags::split(value, ',')) {
        if (plctags::trim(name).empty() && !plctags::trim(value).empty())
            return bad(value, "tag names separated by commas, or *");
        if (!plctags::trim(name).empty())
            c->writable.push_back(plctags::trim(name));
    }
    return std::nullopt;
}

std::optional<std::string> set_link(const std::string &value, GateConfig *c)
{
    const auto link = plchost::link_from_name(plctags::trim(value));
    if (!link)
        return bad(value, "modbus or remote");
    c->host.link_mode = *link;
    return std::nullopt;
}

// STATIONS of an endpoint: "1-3,5".
std::optional<std::string> stations(const std::string &list, std::vector<int> *out)
{
    for (const std::string &item : plctags::split(list, ',')) {
        const auto range = plctags::split(item, '-');
        const auto first = plctags::parse_integer(range[0], plctags::kMinStation, plctags::kMaxStation);
        const auto last =
            range.size() == 2 ? plctags::parse_integer(range[1], plctags::kMinStation, plctags::kMaxStation) : first;
        if (range.size() > 2 || !first || !last || *last < *first)
            return "stations '" + list + "': expected N, N-M or a list of them separated by commas, 0.." +
                   std::to_string(plctags::kMaxStation);
        for (long long s = *first; s <= *last; ++s)
            out->push_back(int(s));
    }
    return std::nullopt;
}

std::optional<std::string> endpoint(const std::string &entry, plchost::Endpoint *e)
{
    const size_t eq = entry.find('='), colon = entry.rfind(':', eq);
    const char *form = "HOST:PORT=STATIONS";
    if (eq == std::string::npos || colon == std::string::npos || colon == 0)
        return "endpoint '" + entry + "': expected " + form;
    e->host = entry.substr(0, colon);
    const auto port = plctags::parse_integer(entry.substr(colon + 1, eq - colon - 1), 1, kMaxPort);
    if (!port)
        return "endpoint '" + entry + "': the port is not a number 1.." + std::to_string(kMaxPort);
    e->port = uint16_t(*port);
    return stations(entry.substr(eq + 1), &e->stations);
}

std::optional<std::string> set_endpoints(const std::string &value, GateConfig *c)
{
    std::istringstream entries(value);
    c->host.endpoints.clear();
    for (std::string entry; entries >> entry;) {
        plchost::Endpoint e;
        if (auto why = endpoint(entry, &e))
            return why;
        c->host.endpoints.push_back(e);
    }
    if (c->host.endpoints.empty())
        return bad(value, "HOST:PORT=STATIONS entries separated by blanks");
    return std::nullopt;
}

std::optional<std::string> set_ms(const std::string &value, long long min, long long max,
                                  std::chrono::milliseconds *out)
{
    long long ms = 0;
    if (auto why = integer(value, min, max, &ms))
        return why;
    *out = std::chrono::milliseconds(ms);
    return std::nullopt;
}

// The keys of the file and the command line, each with its check, which
// stores the value.
struct Key {
    const char *name; // "section.key"
    Check check;
};

const Key kKeys[] = {
    {"gateway.name", set_name},
    {"gateway.tags", [](const std::string &v, GateConfig *c) { return text(v, &c->tags_path); }},
    {"gateway.writable", set_writable},
    {"gateway.refresh", [](const std::string &v, GateConfig *c) { return integer(v, 0, kMaxRefreshS, &c->refresh_s); }},
    {"gateway.buffer", [](const std::string &v, GateConfig *c) { return integer(v, 1, kMaxBuffer, &c->buffer); }},
    {"plc.host", [](const std::string &v, GateConfig *c) { return text(v, &c->plc_host); }},
    {"plc.port", [](const std::string &v, GateConfig *c) { return integer(v, 1, kMaxPort, &c->plc_port); }},
    {"plc.link", set_link},
    {"plc.timeout", [](const std::string &v, GateConfig *c) { return set_ms(v, 1, kMaxTimeoutMs, &c->host.timeout); }},
    {"plc.retries",
     [](const std::string &v, GateConfig *c) { return integer(v, 0, kMaxRetries, &c->host.retry_limit); }},
    {"plc.interval",
     [](const std::string &v, GateConfig *c) { return set_ms(v, 0, kMaxIntervalMs, &c->host.poll_interval); }},
    {"plc.endpoints", set_endpoints},
    {"mqtt.host", [](const std::string &v, GateConfig *c) { return text(v, &c->mqtt.host); }},
    {"mqtt.port", [](const std::string &v, GateConfig *c) { return integer(v, 1, kMaxPort, &c->mqtt.port); }},
    {"mqtt.client_id", [](const std::string &v, GateConfig *c) { return text(v, &c->mqtt.client_id); }},
    {"mqtt.username", [](const std::string &v, GateConfig *c) { return text(v, &c->mqtt.username); }},
    {"mqtt.password",
     [](const std::string &v, GateConfig *c) -> std::optional<std::string> {
         c->mqtt.password = v;
         return std::nullopt;
     }},
    {"mqtt.ca_file", [](const std::string &v, GateConfig *c) { return readable(v, &c->mqtt.ca_file); }},
    {"mqtt.cert_file", [](const std::string &v, GateConfig *c) { return readable(v, &c->mqtt.cert_file); }},
    {"mqtt.key_file", [](const std::string &v, GateConfig *c) { return readable(v, &c->mqtt.key_file); }},
    {"mqtt.keepalive", [](const std::string &v,
                          GateConfig *c) { return integer(v, kMinKeepaliveS, kMaxKeepaliveS, &c->mqtt.keepalive_s); }},
};

constexpr const char *kDeadbandSection = "deadband";

const Key *find_key(const std::string &name)
{
    for (const Key &k : kKeys)
        if (name == k.name)
            return &k;
    return nullptr;
}

std::optional<std::string> set_deadband(const std::string &tag, const std::string &value, GateConfig *c)
{
    const auto v = plctags::parse_non_negative(plctags::trim(value), 1e300);
    if (!v)
        return bad(value, "a number 0 or above");
    c->deadbands[tag] = *v;
    return std::nullopt;
}

std::string key_names()
{
    std::string names;
    for (const Key &k : kKeys)
        names += (names.empty() ? "" : " ") + std::string(k.name);
    return names + " " + kDeadbandSection + ".TAG";
}

// Whether "section.key" names a key; deadband keys name any tag.
bool known_key(const std::string &name)
{
    return find_key(name) || name.rfind(std::string(kDeadbandSection) + ".", 0) == 0;
}

std::string section_key_text(const std::string &name)
{
    const size_t dot = name.find('.');
    return "[" + name.substr(0, dot) + "] " + name.substr(dot + 1);
}

std::optional<std::string> apply(const std::string &name, const std::string &value, GateConfig *c)
{
    const std::string deadband = std::string(kDeadbandSection) + ".";
    if (name.rfind(deadband, 0) == 0)
        return set_deadband(name.substr(deadband.size()), value, c);
    return find_key(name)->check(value, c);
}

std::string read_file(const std::string &path, bool *ok)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    *ok = bool(in);
    return s.str();
}

// A QSettings value as its text: a value with commas comes back as a list.
std::string settings_text(const QSettings &settings, const QString &key)
{
    const QVariant v = settings.value(key);
    if (v.userType() == QMetaType::QStringList)
        return v.toStringList().join(QLatin1Char(',')).toStdString();
    return v.toString().toStdString();
}

// Every key the file gives, with its line: the file's text says where,
// QSettings what (it undoes quoting and escapes).
// A file named in the configuration file is looked for beside it, whatever
// folder plcgate runs in (systemd starts it in /). One given on the command
// line is taken as given, relative to the caller's folder as a shell user
// expects.
std::string beside_config(const std::string &config, const std::string &key, const std::string &value)
{
    static const std::set<std::string> file_keys{"gateway.tags", "mqtt.ca_file", "mqtt.cert_file", "mqtt.key_file"};
    const std::string v = plctags::trim(value);
    if (!file_keys.count(key) || v.empty() || v[0] == '/')
        return value;
    return QFileInfo(QString::fromStdString(config)).absolutePath().toStdString() + "/" + v;
}

Parsed<std::map<std::string, std::string>> file_values(const std::string &path, GateConfig *c)
{
    bool ok = false;
    const std::string content = read_file(path, &ok);
    if (!ok)
        return refuse("cannot read the configuration " + path);
    const auto lines = scan_ini(content);
    if (!lines.ok())
        return refuse(path + ":" + lines.why());
    QSettings settings(QString::fromStdString(path), QSettings::IniFormat);
    std::map<std::string, std::string> values;
    for (const auto &entry : lines.value()) {
        const std::string where = path + ":" + std::to_string(entry.second);
        if (!known_key(entry.first))
            return refuse(where + ": unknown key " + section_key_text(entry.first) + " (keys: " + key_names() + ")");
        QString key = QString::fromStdString(entry.first);
        key.replace(key.indexOf(QLatin1Char('.')), 1, QLatin1Char('/'));
        values[entry.first] = beside_config(path, entry.first, settings_text(settings, key));
        c->origins[entry.first] = where;
    }
    return values;
}

// [plc] host and port make the one endpoint unless endpoints are given.
std::optional<std::string> apply_plc_address(GateConfig *c)
{
    const int port = c->plc_port ? c->plc_port : plchost::default_port(c->host.link_mode);
    if (!c->host.endpoints.empty()) {
        if (c->origins.count("plc.host") || c->origins.count("plc.port"))
            return key_origin(*c, c->origins.count("plc.host") ? "plc.host" : "plc.port") +
                   ": give either [plc] host and port or [plc] endpoints, not both";
        return std::nullopt;
    }
    plchost::Endpoint e;
    e.host = c->plc_host.empty() ? std::string("127.0.0.1") : c->plc_host;
    e.port = uint16_t(port);
    c->host.endpoints.push_back(e);
    return std::nullopt;
}

std::optional<std::string> check_complete(GateConfig *c)
{
    if (c->name.empty())
        return std::string("[gateway] name is not given (the gateway's topic level: plcgate/NAME/...)");
    if (c->tags_path.empty())
        return std::string("[gateway] tags is not given (the tag file)");
    if (c->mqtt.cert_file.empty() != c->mqtt.key_file.empty())
        return key_origin(*c, c->mqtt.cert_file.empty() ? "mqtt.key_file" : "mqtt.cert_file") +
               ": a client certificate needs both [mqtt] cert_file and key_file";
    if (!c->mqtt.cert_file.empty() && c->mqtt.ca_file.empty())
        return key_origin(*c, "mqtt.cert_file") + ": a client certificate needs TLS, which needs [mqtt] ca_file";
    if (c->mqtt.client_id.empty())
        c->mqtt.client_id = "plcgate-" + c->name;
    if (auto why = apply_plc_address(c))
        return why;
    return std::nullopt;
}

bool is_option(const std::string &arg, const char *name)
{
    return arg == name || arg.rfind(std::string(name) + "=", 0) == 0;
}

} // namespace

std::string key_origin(const GateConfig &config, const std::string &section_key)
{
    const auto where = config.origins.find(section_key);
    if (where == config.origins.end())
        return section_key_text(section_key);
    if (where->second.rfind("--", 0) == 0)
        return where->second;
    return where->second + ": " + section_key_text(section_key);
}

Parsed<Invocation> parse_arguments(const std::vector<std::string> &args)
{
    Invocation inv;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &arg = args[i];
        if (arg == "--help" || arg == "-h") {
            inv.help = true;
            continue;
        }
        const size_t eq = arg.find('=');
        const std::string name = arg.substr(0, eq);
        if (name.rfind("--", 0) != 0 || (name != "--config" && !known_key(name.substr(2))))
            return refuse("unknown option '" + arg + "' (options: --config FILE, --SECTION.KEY VALUE for the keys " +
                          key_names() + "; see --help)");
        if (eq == std::string::npos && i + 1 == args.size())
            return refuse("option " + name + " needs a value");
        const std::string value = eq == std::string::npos ? args[++i] : arg.substr(eq + 1);
        if (is_option(name, "--config"))
            inv.config_path = value;
        else
            inv.overrides[name.substr(2)] = value;
    }
    return inv;
}

Parsed<GateConfig> load_config(const Invocation &inv)
{
    GateConfig c;
    std::string path = inv.config_path;
    if (path.empty() && ::access(kDefaultConfig, F_OK) == 0)
        path = kDefaultConfig;
    std::map<std::string, std::string> values;
    if (!path.empty()) {
        auto read = file_values(path, &c);
        if (!read.ok())
            return refuse(read.why());
        values = std::move(read).value();
    }
    for (const auto &o : inv.overrides) {
        values[o.first] = o.second;
        c.origins[o.first] = "--" + o.first;
    }
    for (const auto &v : values)
        if (auto why = apply(v.first, v.second, &c))
            return refuse(key_origin(c, v.first) + ": " + *why);
    if (auto why = check_complete(&c))
        return refuse(*why);
    return c;
}

const char *usage_text()
{
    return R"(Usage: plcgate [--config FILE] [--SECTION.KEY VALUE]...

Publishes PLC tags to an MQTT broker and takes writes from it.

  --config FILE          the configuration (INI); default /etc/plcgate/plcgate.conf
                         when it exists
  --SECTION.KEY VALUE    a key of the configuration, winning over the file
                         (also --SECTION.KEY=VALUE), e.g. --mqtt.port 1884
  --help                 this text

Keys:
  [gateway] name tags writable refresh buffer
  [plc]     host port link timeout retries interval endpoints
  [mqtt]    host port client_id username password ca_file cert_file key_file keepalive
  [deadband] TAG = AMOUNT   publish a number only when it moved by more than AMOUNT

Topics (NAME is [gateway] name):
  plcgate/NAME/status          online, or offline (retained; the last will)
  plcgate/NAME/tags/TAG        {"value": V, "ts": MS, "quality": "good"|"bad", "seq": N}
  plcgate/NAME/tags/TAG/set    a JSON value, or {"value": V, "id": "..."}
  plcgate/NAME/tags/TAG/ack    {"id": ..., "result": "ok"|"failed"|"refused", "code": C, "error": "..."}
  plcgate/NAME/stats           the link statistics (JSON), every few seconds

Signals: SIGTERM or SIGINT stops (status offline), SIGHUP reads the tag file again.
Exit status: 0 after a stop, 1 on a runtime error, 2 on a bad configuration.
)";
}

} // namespace plcgate
