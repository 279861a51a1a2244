// trovctl when the array is not reached or the connection to it is lost, with the emulator's fault
// options as the cause, run as the user runs it: one line on standard error with the provider's
// reason, exit status 3, a listing that says it may be incomplete, the JSON error object.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "child.h"

using testchild::Child;
using Words = std::vector<std::string>;

namespace {

// `text` with every "%p" replaced by `port`.
std::string WithPort(std::string text, const std::string& port) {
    for (size_t at; (at = text.find("%p")) != std::string::npos;) text.replace(at, 2, port);
    return text;
}

// The documents of a stream of JSON documents.
std::vector<nlohmann::json> Documents(const std::string& text) {
    std::istringstream in(text);
    std::vector<nlohmann::json> docs;
    try {
        for (nlohmann::json j; in >> std::ws && in.peek() != EOF && (in >> j);) docs.push_back(j);
    } catch (const nlohmann::json::parse_error&) {
    }
    return docs;
}

}  // namespace

TEST(Failures, EachCauseIsOneLineWithTheProvidersReasonAndStatusThree) {
    const std::string conf = "version  :1\nipaddress:127.0.0.1\nusername :admin\npassword :%w\nport     :%p\n";
    const struct {
        const char* name;
        Words simArgs;         // none: no emulator, and `conf` is what is read
        const char* conf;      // the kelvane.conf when there is no emulator
        const char* password;  // in the kelvane.conf for the emulator
        Words command;
        const char* line;      // on standard error; all of it when it ends the line
        bool listed;           // a listing is shown, and says it may be incomplete
    } cases[] = {
        {"wrong password", {}, nullptr, "wrong", {"list", "luns"},
         "trovctl: no array reached: login refused by the proxy service at 127.0.0.1:%p: invalid password (status 5)\n",
         false},
        {"unknown user", {"--user", "operator"}, nullptr, "!admin", {"info"},
         "trovctl: no array reached: login refused by the proxy service at 127.0.0.1:%p: unknown user (status 2)\n",
         false},
        {"refused connection", {"--refuse", "600000"}, nullptr, "!admin", {"list", "drives"},
         "trovctl: no array reached: the proxy service at 127.0.0.1:%p cannot be reached: Connection refused\n", false},
        {"another protocol version", {"--do", "fault handshake-version 4"}, nullptr, "!admin", {"list", "luns"},
         "trovctl: no array reached: the proxy service at 127.0.0.1:%p speaks protocol version 4; this provider "
         "needs version 5\n",
         false},
        {"empty kelvane.conf", {}, "", nullptr, {"list", "luns"}, "trovctl: no array reached: no usable kelvane.conf",
         false},
        {"malformed kelvane.conf", {}, "address=127.0.0.1\nport=9000\n", nullptr, {"list", "luns"},
         "trovctl: no array reached: no usable kelvane.conf", false},
        {"connection lost during the load", {"--close-after", "10"}, nullptr, "!admin", {"list", "luns"},
         "trovctl: the connection to the proxy service was lost: the exchange with the proxy service failed at ",
         true},
    };
    const std::string path = "/tmp/trovctl-failure-" + std::to_string(getpid()) + ".conf";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (bool json : {false, true}) {
            // A fresh emulator for each run: a fault such as close-after fires once.
            std::string port = "0";
            std::unique_ptr<Child> sim;
            if (c.conf) {
                std::ofstream(path) << c.conf;
            } else {
                Words args = {TROVSIM_BIN, "--port", "0", "--no-stdin", "--quiet"};
                args.insert(args.end(), c.simArgs.begin(), c.simArgs.end());
                sim = std::make_unique<Child>(args);
                ASSERT_TRUE(sim->WaitFor("listening on 127.0.0.1:", 10000)) << sim->err;
                ASSERT_TRUE(sim->WaitFor("\n", 10000, sim->err.find("127.0.0.1:")));
                size_t at = sim->err.find("127.0.0.1:") + 10;
                port = sim->err.substr(at, sim->err.find('\n', at) - at);
                std::string text = WithPort(conf, port);
                std::ofstream(path) << text.replace(text.find("%w"), 2, c.password);
            }
            Words argv = {TROVCTL_BIN, "--proxy-conf", path};
            if (json) argv.push_back("--json");
            argv.insert(argv.end(), c.command.begin(), c.command.end());
            Child run(argv);
            ASSERT_TRUE(run.Finish(30000)) << "trovctl did not end";
            EXPECT_EQ(run.exitCode(), 3) << run.err;
            std::string line = WithPort(c.line, port);
            size_t at = run.err.find(line);
            EXPECT_NE(at, std::string::npos) << run.err;
            EXPECT_EQ(run.err.find(line, at + 1), std::string::npos) << "said once: " << run.err;
            EXPECT_EQ(run.err.find("may be incomplete") != std::string::npos, c.listed) << run.err;
            if (!json) {
                EXPECT_EQ(run.out.find("luns (") != std::string::npos, c.listed) << run.out;
                continue;
            }
            // The error object comes with the failure (after the load), then the listing, whose
            // rows sit in an object that says they may be incomplete.
            std::vector<nlohmann::json> docs = Documents(run.out);
            ASSERT_EQ(docs.size(), c.listed ? 2u : 1u) << run.out;
            EXPECT_EQ(docs[0]["code"], 3);
            EXPECT_EQ(docs[0]["error"], c.listed ? "CONNECTION_LOST" : "NO_ARRAY");
            std::string message = "trovctl: " + docs[0].value("message", std::string()) + "\n";
            EXPECT_EQ(line.back() == '\n' ? message : message.substr(0, line.size()), line);
            if (c.listed) {
                EXPECT_EQ(docs[1]["incomplete"], true);
                EXPECT_TRUE(docs[1]["luns"].is_array());
            }
        }
    }
    std::remove(path.c_str());
}

TEST(Failures, BadFileArgumentsAndTimeoutsAreBadCommandLines) {
    const struct {
        Words args;
        const char* message;
    } cases[] = {
        {{"--proxy-conf", "/nonexistent/kelvane.conf"},
         "trovctl: --proxy-conf /nonexistent/kelvane.conf: No such file or directory\n"},
        {{"--settings", "/nonexistent/settings.reg"},
         "trovctl: --settings /nonexistent/settings.reg: No such file or directory\n"},
        {{"-f", "/tmp"}, "trovctl: --file /tmp: is a directory\n"},
        {{"--timeout", "0"}, "trovctl: --timeout takes 1 to 600 seconds, not 0\n"},
        {{"--timeout", "601"}, "trovctl: --timeout takes 1 to 600 seconds, not 601\n"},
        {{"--timeout", "soon"}, "--timeout"},
    };
    for (const auto& c : cases) {
        Child run({TROVCTL_BIN, c.args[0], c.args[1], "info"});
        ASSERT_TRUE(run.Finish(10000));
        EXPECT_EQ(run.exitCode(), 2) << c.args[0] << " " << c.args[1] << ": " << run.err;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

TEST(Password, ComesFromTheEnvironmentInsteadOfTheFileAndItsCopyIsRemoved) {
    const std::string conf = "/tmp/trovctl-nopass-" + std::to_string(getpid()) + ".conf";
    Child sim({TROVSIM_BIN, "--port", "0", "--no-stdin", "--quiet", "--password", "from-env"});
    ASSERT_TRUE(sim.WaitFor("listening on 127.0.0.1:", 10000)) << sim.err;
    ASSERT_TRUE(sim.WaitFor("\n", 10000, sim.err.find("127.0.0.1:")));
    size_t at = sim.err.find("127.0.0.1:") + 10;
    std::string port = sim.err.substr(at, sim.err.find('\n', at) - at);
    std::ofstream(conf) << "version  :1\nipaddress:127.0.0.1\nusername :admin\nport     :" + port + "\n";
    auto copies = [] {  // the private copies trovctl has left in /tmp
        Child ls({"/bin/sh", "-c", "ls /tmp | grep -c '^trovctl-kelvane\\.'"});
        ls.Finish(5000);
        return ls.out;
    };
    std::string before = copies();
    const struct {
        std::vector<std::string> env;
        int status;
        const char* said;
    } cases[] = {
        {{"TROVCTL_PROXY_PASSWORD=from-env"}, 0, ""},
        {{"TROVCTL_PROXY_PASSWORD=wrong"}, 3, "invalid password (status 5)"},
        {{"TROVCTL_PROXY_PASSWORD=has:colon"}, 2, "the password contains a colon"},
        {{"-TROVCTL_PROXY_PASSWORD"}, 3, "no usable kelvane.conf"},  // the file has none
    };
    for (const auto& c : cases) {
        Child run({TROVCTL_BIN, "--proxy-conf", conf, "--json", "list", "drives"}, c.env);
        ASSERT_TRUE(run.Finish(30000));
        EXPECT_EQ(run.exitCode(), c.status) << c.env[0] << ": " << run.err;
        EXPECT_NE(run.err.find(c.said), std::string::npos) << c.env[0] << ": " << run.err;
        if (c.status == 0) EXPECT_EQ(nlohmann::json::parse(run.out).size(), 12u);
    }
    EXPECT_EQ(copies(), before) << "a private copy of the kelvane.conf was left behind";
    // Without --proxy-conf there is no file to fill in.
    Child bare({TROVCTL_BIN, "info"}, {"TROVCTL_PROXY_PASSWORD=x", "-TROVHWIPRV_SETTINGS"});
    ASSERT_TRUE(bare.Finish(10000));
    EXPECT_EQ(bare.exitCode(), 2);
    EXPECT_NE(bare.err.find("needs --proxy-conf"), std::string::npos) << bare.err;
    std::remove(conf.c_str());
}

TEST(CommandLine, AScriptUnderJsonWritesOneDocumentPerLine) {
    const std::string script = "/tmp/trovctl-ndjson-" + std::to_string(getpid()) + ".trov";
    std::ofstream(script) << "list controllers\ndetail drive 3SJ01204K\nname lun \"\" lun 0\n";
    Child run({TROVCTL_BIN, "--json", "-f", script}, {"-TROVHWIPRV_SETTINGS"});
    ASSERT_TRUE(run.Finish(30000));
    EXPECT_EQ(run.exitCode(), 2);  // the empty name
    std::istringstream lines(run.out);
    std::vector<nlohmann::json> docs;
    for (std::string line; std::getline(lines, line);) docs.push_back(nlohmann::json::parse(line, nullptr, false));
    ASSERT_EQ(docs.size(), 3u) << run.out;
    EXPECT_EQ(docs[0].size(), 2u);
    EXPECT_EQ(docs[0][0]["statusText"], "online");
    EXPECT_EQ(docs[1]["sSlotNumber"], 3);
    EXPECT_EQ(docs[2]["error"], "USAGE");
    EXPECT_EQ(docs[2]["message"], "a LUN name cannot be empty");
    std::remove(script.c_str());
}

TEST(CommandLine, OptionsAfterTheCommandVersionAndTerseOutput) {
    const struct {
        Words args;
        int status;
        const char* out;  // at the start of standard output
        const char* err;  // somewhere on standard error
    } cases[] = {
        {{"list", "drives", "--json"}, 2, "", "\"--json\" is an option of trovctl: options go before the command"},
        {{"--version"}, 0, "trovctl ", ""},
        {{"-t", "|", "list", "controllers"}, 0, "0||Controller A;IP=10.0.0.2|online|2|", ""},
        {{"-t", ",", "-H", "list", "controllers"}, 0, "#,!,NAME,STATE,PORTS,ID\n0,,Controller A", ""},
        {{"--no-header", "list", "subsystems"}, 0, "0    ", ""},
        {{"-t", ",", "--json", "info"}, 2, "", "--terse and --json do not go together"},
        {{"maintenance", "pulse", "1000", "drive", "1"}, 2, "", "takes a COUNT from 1 to 100, not \"1000\""},
    };
    for (const auto& c : cases) {
        Words argv = {TROVCTL_BIN};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        Child run(argv, {"-TROVHWIPRV_SETTINGS"});
        ASSERT_TRUE(run.Finish(30000));
        EXPECT_EQ(run.exitCode(), c.status) << c.args[0] << ": " << run.err;
        EXPECT_EQ(run.out.rfind(c.out, 0), 0u) << c.args[0] << ": " << run.out;
        EXPECT_NE(run.err.find(c.err), std::string::npos) << c.args[0] << ": " << run.err;
    }
}
