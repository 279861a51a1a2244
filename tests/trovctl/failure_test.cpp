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
