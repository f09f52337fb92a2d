// Who may talk to the broker: passwords (mosquitto's password file, no
// anonymous clients) and TLS (certificates made here with openssl: the
// broker's checked against the CA file, a client certificate when the
// broker asks for one), each accepted and refused as configured.
#include "harness.h"

namespace gatetest {
namespace {

// A gateway beside the site's that the broker should not let in: started,
// and waited for until it reports a failed connection; by then it must
// not have connected, nor have been seen online.
struct Intruder {
    Site &site;
    GateSetup setup;
    std::unique_ptr<Gate> gate;

    Intruder(Site &s, const std::string &name, const std::string &mqtt) : site(s), setup(s.setup)
    {
        setup.name = name;
        setup.mqtt_extra = mqtt;
        gate = std::make_unique<Gate>(site.dir, name, setup.text());
    }

    // "" when it was kept out, else what went wrong.
    std::string kept_out()
    {
        if (!gate->start())
            return "plcgate did not start";
        const std::string failure = "plcgate: broker 127.0.0.1:" + std::to_string(setup.mqtt_port) + ": ";
        if (!eventually([&] { return gate->log().find(failure) != std::string::npos || !gate->running(); }))
            return "no failed connection reported: " + gate->log();
        if (!gate->running())
            return "plcgate ended: " + gate->log();
        if (gate->log().find("connected to broker") != std::string::npos)
            return "it connected: " + gate->log();
        if (!site.consumer->payloads(Site::topic_of(setup.name, "status")).empty())
            return "its status reached the consumer";
        return "";
    }
};

std::string passwords(const TempDir &dir, const std::vector<std::pair<std::string, std::string>> &users)
{
    std::string error;
    bool first = true;
    for (const auto &u : users) {
        std::vector<std::string> argv = {"mosquitto_passwd", "-b", dir.file("passwd"), u.first, u.second};
        if (first)
            argv.insert(argv.begin() + 1, "-c");
        first = false;
        const Ran r = run(argv, dir.path(), "mosquitto_passwd");
        if (r.status != 0)
            error += r.err;
    }
    return error;
}

TEST(GatewaySecurity, PasswordsAcceptedAndRefused)
{
    GATE_REQUIRE_BROKER();
    GATE_REQUIRE_TOOLS("mosquitto_passwd");
    Site site("allow_anonymous false\npassword_file @DIR@/passwd\n", {"-u", "reader", "-P", "reader-secret"});
    ASSERT_EQ(passwords(site.dir, {{"reader", "reader-secret"}, {"gate", "gate;secret"}}), "");
    site.setup.mqtt_extra = "username = gate\npassword = \"gate;secret\"\n";
    ASSERT_EQ(site.start("words,4,0,1,2\n"), "");
    EXPECT_TRUE(site.wait_tag("words", [](const TagMessage &m) { return m.quality == "good"; }));

    Intruder wrong(site, "wrongpassword", "username = gate\npassword = gate\n");
    EXPECT_EQ(wrong.kept_out(), "");
    EXPECT_NE(wrong.gate->log().find("not authorised"), std::string::npos) << wrong.gate->log();
    Intruder anonymous(site, "anonymous", "");
    EXPECT_EQ(anonymous.kept_out(), "");
    Intruder unknown(site, "unknownuser", "username = mallory\npassword = \"gate;secret\"\n");
    EXPECT_EQ(unknown.kept_out(), "");
}

// A site whose broker listens with TLS only: its certificate from the CA
// "ca", a client certificate required or not.
struct TlsSite : Site {
    explicit TlsSite(bool require_client)
        : Site("allow_anonymous true\ncafile @DIR@/ca.crt\ncertfile @DIR@/ca-server.crt\n"
               "keyfile @DIR@/ca-server.key\nrequire_certificate " +
               std::string(require_client ? "true" : "false") + "\n")
    {
        ca = make_certificates(dir.path(), "ca");
        other = make_certificates(dir.path(), "other");
        if (ca)
            client = {"--cafile", ca->ca, "--cert", ca->client, "--key", ca->client_key};
    }
    // The gateway's [mqtt] lines for TLS with the CA `c`, and its client
    // certificate when `with_client` is set.
    static std::string tls(const Certificates &c, bool with_client)
    {
        std::string lines = "ca_file = " + c.ca + "\n";
        if (with_client)
            lines += "cert_file = " + c.client + "\nkey_file = " + c.client_key + "\n";
        return lines;
    }
    // The site with its gateway over TLS (CA "ca", with its client
    // certificate or not); "" once a good value came through.
    std::string start_tls(bool with_client)
    {
        if (!ca || !other)
            return "openssl made no certificates: " + slurp(dir.file("openssl.log"));
        setup.mqtt_extra = tls(*ca, with_client);
        if (auto error = start("words,4,0,1,2\n"); !error.empty())
            return error;
        if (!wait_tag("words", [](const TagMessage &m) { return m.quality == "good"; }))
            return "no good value over TLS: " + gate->log();
        return "";
    }
    std::optional<Certificates> ca, other;
};

TEST(GatewaySecurity, TheBrokersCertificateIsCheckedAgainstTheCaFile)
{
    GATE_REQUIRE_BROKER();
    GATE_REQUIRE_TOOLS("openssl");
    TlsSite site(false);
    ASSERT_EQ(site.start_tls(false), "");

    Intruder wrong_ca(site, "wrongca", TlsSite::tls(*site.other, false));
    EXPECT_EQ(wrong_ca.kept_out(), "");
    EXPECT_NE(wrong_ca.gate->log().find("certificate verify failed"), std::string::npos) << wrong_ca.gate->log();
    Intruder plain(site, "plain", "");
    EXPECT_EQ(plain.kept_out(), "");
}

TEST(GatewaySecurity, AClientCertificateWhenTheBrokerAsksForOne)
{
    GATE_REQUIRE_BROKER();
    GATE_REQUIRE_TOOLS("openssl");
    TlsSite site(true);
    ASSERT_EQ(site.start_tls(true), "");

    Intruder without(site, "nocertificate", TlsSite::tls(*site.ca, false));
    EXPECT_EQ(without.kept_out(), "");
    // A client certificate of another CA, with the right CA for the broker's.
    Certificates foreign = *site.ca;
    foreign.client = site.other->client;
    foreign.client_key = site.other->client_key;
    Intruder stranger(site, "foreigncertificate", TlsSite::tls(foreign, true));
    EXPECT_EQ(stranger.kept_out(), "");
}

} // namespace
} // namespace gatetest
