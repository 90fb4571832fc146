// SPDX-License-Identifier: Apache-2.0
// The shipped broker configuration and access list, run as they are but for port and paths.
#include "BrokerFixture.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace OrvTest {

namespace {

constexpr const char* PASSWORD = "a password with # and =";

/// The shipped file with each text replaced; a text that is not there once makes the test fail.
std::string Shipped(const std::vector<std::pair<std::string, std::string>>& replacements) {
    std::ostringstream read;
    read << std::ifstream(ORV_SHIPPED_CONFIG "/mosquitto.conf").rdbuf();
    std::string text = read.str();
    for (const auto& [from, to] : replacements) {
        const std::size_t at = text.find("\n" + from + "\n");
        if (at == std::string::npos)
            throw std::runtime_error("the shipped mosquitto.conf has no line \"" + from + "\"");
        text.replace(at + 1, from.size(), to);
    }
    return text;
}

/// Makes the password file as the shipped configuration says, for every user of the access list.
class Passwords {
public:
    Passwords() {
        std::ifstream list(ORV_SHIPPED_CONFIG "/acl");
        std::ofstream file(path);
        for (std::string word; list >> word;) {
            std::string name;
            if (word == "user" && list >> name)
                file << name << ":" << PASSWORD << "\n";
        }
        file.close();
        Hash();
    }
    ~Passwords() { std::filesystem::remove(path); }

    const std::string path =
        (std::filesystem::temp_directory_path() / ("orv-passwords-" + std::to_string(getpid()))).string();

private:
    void Hash() const {
        const std::string tool = UnpackedTool("usr/bin/mosquitto_passwd");
        const pid_t child = fork();
        if (child == 0) {
            execl(tool.c_str(), tool.c_str(), "-U", path.c_str(), nullptr);
            _exit(127);
        }
        int status = -1;
        waitpid(child, &status, 0);
        if (status != 0)
            throw std::runtime_error("mosquitto_passwd \"" + tool + "\" failed");
    }
};

struct GatewayBrokerHolder {
    Passwords passwords;
    MosquittoBroker broker{Shipped({
        {"# listener 0 /run/orv-broker/mqtt.sock", "listener 0 @FOLDER@/mqtt.sock"},
        {"listener 1883 127.0.0.1", "listener @PORT@ 127.0.0.1"},
        {"password_file /etc/mosquitto/orv.passwd", "password_file " + passwords.path},
        {"acl_file /etc/mosquitto/orv.acl", "acl_file " ORV_SHIPPED_CONFIG "/acl"},
        {"persistence_location /var/lib/mosquitto/", "persistence_location @FOLDER@/"},
        {"log_dest syslog", ""},
    })};
};

} // namespace

class AGatewaysBroker : private GatewayBrokerHolder, public BrokerTest {
protected:
    AGatewaysBroker() : BrokerTest(broker.Port()) {
        BrokerSettings().username = "orv-application";
        BrokerSettings().password = PASSWORD;
    }

    using GatewayBrokerHolder::broker;

    RawClient As(const std::string& user, const std::string& password = PASSWORD) {
        MqttConnect connect;
        connect.clientId = "raw-" + std::to_string(++count);
        connect.username = user;
        connect.password = password;
        return RawClient(broker.Port(), connect);
    }

    /// What a new reader of that topic is told: the retained payload, or "(nothing)".
    std::string Seen(const std::string& user, const std::string& topic) {
        RawClient reader = As(user);
        // The acknowledgement of a qos 1 message comes after the retained message of the subscription before it.
        if (!reader.Subscribe(topic) || !reader.Publish({"fence", "", 1, false, false, 0}))
            return "(no answer)";
        const auto message = reader.NextMessage(0ms);
        return message ? message->payload : "(nothing)";
    }

    static constexpr const char* LED = "/orv/led/connected_services_green";

private:
    int count = 0;
};

TEST_F(AGatewaysBroker, LetsAnApplicationSwitchAnLed) {
    TestClient application("ORV_Stack");
    ASSERT_TRUE(application.Connect());
    ASSERT_EQ(application.PublishRetainedMessage(LED, "Blink", true), 0);
    ASSERT_TRUE(WaitUntil([&] { return !application.Delivered().empty(); }));
    EXPECT_EQ(Seen("orv-led", LED), "Blink");
}

TEST_F(AGatewaysBroker, LetsNobodyElseSwitchAnLed) {
    for (const char* user : {"orv-led", "orv-panel", "orv-modem", "orv-network", "orv-diagnostics"}) {
        RawClient other = As(user);
        ASSERT_EQ(other.Answer(), 0) << user;
        ASSERT_TRUE(other.Publish({LED, "On", 1, true, false, 0}));
        EXPECT_EQ(Seen("orv-led", LED), "(nothing)") << user;
    }
}

// As orv-status comes, where the access list is in force.
TEST_F(AGatewaysBroker, LetsTheDiagnosticsUserReadWhatIsRetainedUnderOrvAndPublishNothing) {
    TestClient application("ORV_Stack");
    ASSERT_TRUE(application.Connect());
    for (const std::string topic : {LED, "/orv/apps_control/features/Ent/status/EntCon",
                                    "/orv/apps_control/features/alarm/available", "/orv/network/wan/inhibit_dns"}) {
        ASSERT_EQ(application.PublishRetainedMessage(topic, "as it was", true), 0);
        ASSERT_TRUE(WaitUntil([&] { return Seen("orv-diagnostics", topic) == "as it was"; })) << topic;
        RawClient diagnostics = As("orv-diagnostics");
        ASSERT_TRUE(diagnostics.Publish({topic, "forged", 1, true, false, 0})) << "acknowledged, and dropped";
        EXPECT_EQ(Seen("orv-diagnostics", topic), "as it was") << topic;
    }
}

TEST_F(AGatewaysBroker, LetsNobodyInWithoutAName) {
    constexpr int notAuthorised = 5;
    EXPECT_EQ(RawClient(broker.Port()).Answer(), notAuthorised);
    EXPECT_EQ(As("orv-application", "wrong").Answer(), notAuthorised);
    EXPECT_EQ(As("somebody").Answer(), notAuthorised);
    BrokerSettings().username.clear();
    TestClient application("ORV_Stack");
    EXPECT_FALSE(application.Connect());
    EXPECT_EQ(Logged("refused by the broker: not authorised; set [broker] username and password"), 1U);
}

TEST_F(AGatewaysBroker, ListensOnLoopbackOnly) {
    EXPECT_TRUE(ConnectToLoopback(broker.Port()));
    EXPECT_FALSE(ConnectToLoopback(broker.Port(), "127.0.0.2"));
}

TEST_F(AGatewaysBroker, LetsAnApplicationInByItsSocketWithNameAndPasswordOnly) {
    BrokerSettings().socket = broker.Folder() + "/mqtt.sock";
    TestClient application("ORV_Stack");
    EXPECT_TRUE(application.Connect());
    BrokerSettings().password = "wrong";
    TestClient stranger("ORV_Stack");
    EXPECT_FALSE(stranger.Connect());
}

TEST_F(AGatewaysBroker, TellsAnApplicationWhatPanelAndModemSay) {
    TestClient application("ORV_Stack");
    ASSERT_TRUE(application.Connect());
    for (const char* filter :
         {"/orv/apps_control/features/#", "/orv/panel/guid", "/orv/panel/connection_status", "/orv/modem/imei",
          "/orv/modem/sim/iccid", "/orv/modem/sim/technology", "/orv/modem/sim/provider", "/orv/modem/sim/strength"})
        ASSERT_TRUE(application.Subscribe(filter, 1));
    RawClient panel = As("orv-panel");
    ASSERT_TRUE(panel.Publish({"/orv/panel/guid", "1234", 1, true, false, 0}));
    ASSERT_TRUE(panel.Publish({"/orv/panel/connection_status", "UP", 1, true, false, 0}));
    RawClient modem = As("orv-modem");
    for (const char* topic : {"/orv/modem/imei", "/orv/modem/sim/iccid", "/orv/modem/sim/technology",
                              "/orv/modem/sim/provider", "/orv/modem/sim/strength"})
        ASSERT_TRUE(modem.Publish({topic, "x", 1, true, false, 0}));
    EXPECT_TRUE(WaitUntil([&] { return application.ReceivedCount() == 7; }));
}

TEST_F(AGatewaysBroker, TakesWhatAnApplicationSays) {
    RawClient panel = As("orv-panel");
    ASSERT_TRUE(panel.Subscribe("/orv/panel/event/command/+"));
    RawClient modem = As("orv-modem");
    ASSERT_TRUE(modem.Subscribe("/orv/modem/sim/conn_status"));
    TestClient application("ORV_Stack");
    ASSERT_TRUE(application.Connect());
    application.PublishMessage("/orv/panel/event/command/DoReset", "1", false);
    application.PublishMessage("/orv/modem/sim/conn_status", "up", false);
    application.PublishRetainedMessage("/orv/network/wan/inhibit_dns", "inhibit", true);
    EXPECT_TRUE(panel.NextMessage());
    EXPECT_TRUE(modem.NextMessage());
    EXPECT_TRUE(WaitUntil([&] { return Seen("orv-network", "/orv/network/wan/inhibit_dns") == "inhibit"; }));
}

TEST_F(AGatewaysBroker, SpeaksTheLastWillOfAnApplication) {
    constexpr const char* topic = "/orv/apps_control/features/Example/available";
    {
        TestClient application("ORV_Stack");
        ASSERT_TRUE(application.Connect(topic, "false", true));
    }
    EXPECT_TRUE(WaitUntil([&] { return Seen("orv-application", topic) == "false"; }));
}

TEST_F(AGatewaysBroker, KeepsIdentityOfTheSimFromOtherPrograms) {
    ASSERT_TRUE(As("orv-modem").Publish({"/orv/modem/sim/iccid", "8949", 1, true, false, 0}));
    EXPECT_EQ(Seen("orv-diagnostics", "/orv/modem/sim/iccid"), "8949");
    EXPECT_EQ(Seen("orv-led", "/orv/modem/sim/iccid"), "(nothing)");
}

TEST_F(AGatewaysBroker, KeepsRetainedStateOverItsOwnRestart) {
    ASSERT_TRUE(As("orv-application").Publish({LED, "On", 1, true, false, 0}));
    broker.Stop();
    broker.Start();
    EXPECT_EQ(Seen("orv-led", LED), "On");
}

} // namespace OrvTest
