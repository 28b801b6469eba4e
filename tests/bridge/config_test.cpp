// SPDX-License-Identifier: Apache-2.0
#include "bridge/config.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "bridge_test.h"

namespace jovu_bridge {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

std::vector<std::string> problems_of(const std::vector<ConfigProblem>& problems) {
    std::vector<std::string> lines;
    for (const ConfigProblem& problem : problems) {
        lines.push_back(to_string(problem));
    }
    return lines;
}

TEST(Configuration, ReportsEachMistakeWithItsPlaceAndWhatIsPossible) {
    struct Row {
        const char* text;
        std::vector<const char*> expected;  ///< A part of each message.
    };
    const std::vector<Row> rows{
        {"log_level = \"info\"\n[broker]\nport = 1", {"c.toml:3:1: broker.port: is no key"}},
        {"[brokr]\nurl = 1",
         {"c.toml:1:2: brokr: is no key of the configuration: did you mean broker?"}},
        {"[broker]\npasword_file = \"x\"",
         {"c.toml:2:1: broker.pasword_file: is no key of the configuration: did you mean "
          "password_file?"}},
        {"broker = 3", {"c.toml:1:1: broker: must be a table: [broker]"}},
        {"log_level = \"loud\"",
         {"c.toml:1:13: log_level: 'loud': must be \"error\", \"warning\""}},
        {"[requests]\nmax_lines = 0",
         {"2:13: requests.max_lines: 0: must be a whole number from 1"}},
        {"[requests]\nmax_lines = -1", {"requests.max_lines: -1: must be"}},
        {"[requests]\nmax_lines = 1.5", {"requests.max_lines: 1.5: must be"}},
        {"[requests]\nmax_lines = \"9\"", {"requests.max_lines: '9': must be"}},
        {"[requests]\nmax_payload = 9223372036854775807", {"must be bytes from 1024 to 1048576"}},
        {"[requests]\nmax_payload = 9223372036854775808", {"c.toml:2:"}},
        {"[devices]\nstatus_interval = 0.05", {"0.05: must be seconds from 0.1 to 3600"}},
        {"[devices]\nstatus_interval = nan", {"nan: must be seconds"}},
        {"[devices]\nstatus_interval = inf", {"inf: must be seconds"}},
        {"[devices]\nserials = \"*\"", {"devices.serials: '*': must be a list of patterns"}},
        {"[devices]\nserials = [\"*\", 3]", {"devices.serials: [ '*', 3 ]: must be a list"}},
        {"[jobs]\nfolders = [\"jobs\"]", {"jobs.folders: [ 'jobs' ]: must be a list of absolute"}},
        {"[jobs]\nfolders = [\"//\"]", {"which would permit every file"}},
        {"[metrics]\naddress = \"localhost:1\"",
         {"metrics.address: 'localhost:1': must be ADDRESS:PORT"}},
        {"[metrics]\naddress = \"127.0.0.1:65536\"", {"metrics.address"}},
        {"[broker]\nprefix = \"a//b\"", {"broker.prefix: 'a//b': must be levels"}},
        {"[broker]\nprefix = \"a/+\"", {"broker.prefix"}},
        {"[broker]\nurl = \"http://x\"", {"broker.url: 'http://x': must be mqtt://HOST"}},
        {"[broker]\nurl = \"mqtt://h:0\"", {"broker.url"}},
        {"[broker]\nurl = \"mqtt://h/prefix\"", {"broker.url"}},
        {"[broker]\nurl = \"mqtt://u:hunter2@h\"",
         {"broker.url: must have no user and no password"}},
        {"[broker]\nurl = \"mqtt://far.example\"",
         {"2:7: broker.url: the connection to mqtt://far.example:1883 would not be encrypted"}},
        {"[broker]\nurl = \"mqtt://127.0.0.1.example\"", {"would not be encrypted"}},
        {"[broker]\nurl = \"mqtt://far.example\"\nallow_plain_text = true",
         {"neither encrypted nor authenticated: give a user and a password file, or permit it by "
          "broker.allow"}},
        {"[broker]\nuser = \"x\"", {"2:8: broker.user: needs broker.password_file"}},
        {"[broker]\npassword_file = \"x\"", {"broker.password_file: needs broker.user"}},
        {"[broker]\nurl = \"mqtts://h\"\nkey_file = \"x\"",
         {"broker.key_file: needs the other one, broker.cert"}},
        {"[broker]\nca_file = \"x\"", {"broker.ca_file: has no effect without TLS"}},
        {"log_level = ", {"c.toml:1:"}},
        {"log_level = \"\xff\"", {"c.toml:1:"}},
        // All mistakes of a file, in its order.
        {"name = 1\nlog_level = 2\n[jobs]\nmax_size = 0\nfoldes = []",
         {"1:8: name: 1", "2:13: log_level: 2", "4:12: jobs.max_size: 0", "5:1: jobs.foldes"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        const std::vector<std::string> problems =
            problems_of(parse_config(row.text, "c.toml").problems);
        ASSERT_THAT(problems, SizeIs(row.expected.size()));
        for (std::size_t i = 0; i < problems.size(); ++i) {
            EXPECT_THAT(problems[i], HasSubstr(row.expected[i]));
            EXPECT_THAT(problems[i], Not(HasSubstr("hunter2")));
        }
    }
}

TEST(Configuration, AcceptsABrokerByWhatProtectsIt) {
    const std::vector<const char*> accepted{
        "url = \"mqtt://localhost\"",
        "url = \"mqtt://127.3.2.1:1884/\"",
        "url = \"mqtt://[::1]\"",
        "url = \"mqtts://far.example:8884\"",
        "url = \"mqtt://far.example\"\nallow_plain_text = true\nallow_anonymous = true",
        "url = \"mqtt://far.example\"\nallow_plain_text = true\nuser = \"a\"\npassword_file = "
        "\"b\"",
    };
    for (const char* text : accepted) {
        const ReadConfig read = parse_config(std::string("[broker]\n") + text, "c.toml");
        EXPECT_THAT(problems_of(read.problems), IsEmpty()) << text;
    }
}

TEST(Configuration, ExampleHasEveryKeyWithItsDefault) {
    std::ifstream file(JOVU_SOURCES "/packaging/bridge/jovu-bridge.toml");
    std::stringstream text;
    text << file.rdbuf();
    const std::string enabled =
        std::regex_replace(text.str(), std::regex("^#([a-z_]+ = )", std::regex::multiline), "$1");
    const ReadConfig read = parse_config(enabled, "example");
    std::vector<std::string> given;
    for (const auto& [key, place] : read.places) {
        given.push_back(key);
    }
    // What is empty by default is a key without the other that it needs: none of these is a
    // mistake.
    EXPECT_THAT(problems_of(read.problems), Not(Contains(HasSubstr("must be"))));
    EXPECT_THAT(given, ::testing::UnorderedElementsAreArray(config_keys()));
    EXPECT_THAT(changes(Config{}, read.config), IsEmpty());
    EXPECT_THAT(problems_of(parse_config(text.str(), "example").problems), IsEmpty());

    // The keys that the comments mark are those that need a restart.
    Config other;
    other.name = "b";
    other.requests.max_lines = 7;
    other.metrics.address = "";
    EXPECT_THAT(changes_for_restart(Config{}, other), ElementsAre("name", "metrics.address"));
    EXPECT_THAT(changes(Config{}, other),
                UnorderedElementsAre("name", "metrics.address", "requests.max_lines"));
}

TEST(Configuration, ChecksTheFilesThatItNames) {
    const TemporaryFolder folder;
    make_certificate(folder.path("a"), "localhost");
    make_certificate(folder.path("b"), "localhost");
    folder.write("open", "secret\n", 0644);
    folder.write("password", "secret\nmore\n", 0600);
    folder.write("empty", "\n", 0600);
    const std::string tls = "[broker]\nurl = \"mqtts://h\"\n";
    struct Row {
        std::string text;
        const char* expected;  ///< Null: no mistake.
    };
    const std::string user = "[broker]\nuser = \"u\"\npassword_file = ";
    const std::vector<Row> rows{
        {user + "\"password\"", nullptr},
        {user + "\"missing\"", "c.toml:4:17: broker.password_file: "},
        {user + "\"open\"", "every user of this computer may read or change it"},
        {user + "\"empty\"", "its first line is empty"},
        {user + "\"/dev/null\"", "it is not a regular file"},
        {tls + "certificate_file = \"a.pem\"\nkey_file = \"a.key\"\nca_file = \"b.pem\"", nullptr},
        {tls + "certificate_file = \"a.pem\"\nkey_file = \"b.key\"",
         "does not belong to the certificate"},
        {tls + "certificate_file = \"a.key\"\nkey_file = \"a.key\"", "holds no certificate"},
        {tls + "certificate_file = \"a.pem\"\nkey_file = \"password\"", "holds no private key"},
        {tls + "ca_file = \"password\"", "broker.ca_file: "},
        {"state_folder = \"/proc/none/state\"",
         "state_folder: \"/proc/none/state\" cannot be used"},
        {"[jobs]\nfolders = [\"/none\"]", "jobs.folders: \"/none\" cannot be used"},
        {"[jobs]\nfolders = [\"/etc/passwd\"]", "is not a folder"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        const std::string state = "state_folder = \"" + folder.path("state") + "\"\n";
        folder.write("c.toml", row.text.rfind("state", 0) == 0 ? row.text : state + row.text, 0644);
        const ReadConfig read = read_config(folder.path("c.toml"));
        EXPECT_THAT(problems_of(read.problems), IsEmpty());
        const std::vector<std::string> problems = problems_of(check_files(read));
        if (row.expected == nullptr) {
            EXPECT_THAT(problems, IsEmpty());
        } else {
            EXPECT_THAT(problems, ElementsAre(HasSubstr(row.expected)));
        }
    }
}

TEST(Configuration, TakesAPasswordFromTheServiceManagerFirst) {
    const TemporaryFolder folder;
    const TemporaryFolder credentials;
    folder.write("password", "of the folder\n", 0600);
    ReadConfig read;
    read.file = folder.path("c.toml");
    EXPECT_EQ(read_password(read), "");
    read.config.broker.password_file = "password";
    ::setenv("CREDENTIALS_DIRECTORY", credentials.path("").c_str(), 1);
    EXPECT_EQ(read_password(read), "of the folder");
    credentials.write("password", "of the service\r\n", 0400);
    EXPECT_EQ(read_password(read), "of the service");
    ::unsetenv("CREDENTIALS_DIRECTORY");
    read.config.broker.password_file = "missing";
    try {
        read_password(read);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr(folder.path("missing")));
    }
}

TEST(Configuration, PatternsTakeAwayWhereverTheyStand) {
    const std::vector<std::string> commands = Config{}.requests.commands;
    EXPECT_TRUE(matches_any(commands, "heater_state_get"));
    EXPECT_FALSE(matches_any(commands, "Reset_printer"));
    EXPECT_FALSE(matches_any({"!Reset_*", "*"}, "Reset_printer"));
    EXPECT_TRUE(matches_any({"JVS00?1", "X"}, "JVS0011"));
    EXPECT_FALSE(matches_any({}, "JVS0031"));
}

}  // namespace
}  // namespace jovu_bridge
