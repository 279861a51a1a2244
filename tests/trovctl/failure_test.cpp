// trovctl when the array is not reached or the connection to it is lost: one line on standard
// error with the provider's reason, exit status 3, a listing that says it may be incomplete, the
// JSON error object; and the emulator's fault options as the cause, run as the user runs them.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "child.h"

using testchild::Child;

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/trovctl-failure.XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() { (void)!system(("rm -rf '" + path_ + "'").c_str()); }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// The emulator started with `args`, its kelvane.conf written to `conf`; its port.
std::string StartSim(Child& sim, const std::string& conf) {
    if (!sim.WaitFor("wrote " + conf, 10000)) return {};
    std::string text = ReadFile(conf);
    size_t at = text.find("port     :");
    return at == std::string::npos ? std::string() : text.substr(at + 10, text.find('\n', at) - at - 10);
}

// `text` with every "%p" replaced by `port`.
std::string WithPort(std::string text, const std::string& port) {
    for (size_t at; (at = text.find("%p")) != std::string::npos;) text.replace(at, 2, port);
    return text;
}

struct Case {
    const char* name;
    std::vector<std::string> simArgs;  // with no emulator: empty and `conf` says what is read
    const char* conf;                  // replaces the emulator's kelvane.conf when set
    const char* password;              // in the kelvane.conf written for the emulator
    std::vector<std::string> command;
    const char* line;                  // the line on standard error
    bool listed;                       // a listing is shown, and says it may be incomplete
};

std::vector<std::string> Trovctl(const std::string& conf, const std::vector<std::string>& words) {
    std::vector<std::string> argv = {TROVCTL_BIN, "--proxy-conf", conf};
    argv.insert(argv.end(), words.begin(), words.end());
    return argv;
}

}  // namespace

TEST(Failures, EachCauseIsOneLineWithTheProvidersReasonAndStatusThree) {
    const std::string conf = "version  :1\nipaddress:127.0.0.1\nusername :admin\npassword :%w\nport     :%p\n";
    const Case cases[] = {
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
        {"empty kelvane.conf", {}, "", nullptr, {"list", "luns"}, "trovctl: no array reached: no usable kelvane.conf", false},
        {"malformed kelvane.conf", {}, "address=127.0.0.1\nport=9000\n", nullptr, {"list", "luns"},
         "trovctl: no array reached: no usable kelvane.conf", false},
        {"connection lost during the load", {"--close-after", "10"}, nullptr, "!admin", {"list", "luns"},
         "trovctl: the connection to the proxy service was lost: the exchange with the proxy service failed at ",
         true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // A fresh emulator for each run: a fault such as close-after fires once.
        for (bool json : {false, true}) {
            TempDir dir;
            std::string port = "0";
            std::unique_ptr<Child> sim;
            if (c.conf == nullptr) {
                std::vector<std::string> args = {TROVSIM_BIN, "--port", "0", "--quiet", "--no-stdin",
                                                 "--write-conf", dir / "sim.conf"};
                args.insert(args.end(), c.simArgs.begin(), c.simArgs.end());
                sim = std::make_unique<Child>(args);
                port = StartSim(*sim, dir / "sim.conf");
                ASSERT_FALSE(port.empty()) << sim->err;
                std::string text = WithPort(conf, port);
                text.replace(text.find("%w"), 2, c.password);
                WriteFile(dir / "kelvane.conf", text);
            } else {
                WriteFile(dir / "kelvane.conf", c.conf);
            }
            std::vector<std::string> words = c.command;
            if (json) words.insert(words.begin(), "--json");
            Child run(Trovctl(dir / "kelvane.conf", words));
            ASSERT_TRUE(run.Finish(30000)) << "trovctl did not end";
            EXPECT_EQ(run.exitCode(), 3) << run.err;
            std::string line = WithPort(c.line, port);
            EXPECT_NE(run.err.find(line), std::string::npos) << run.err;
            // One line says it; the provider's event reports may come beside it, not the same again.
            EXPECT_EQ(run.err.find(line, run.err.find(line) + 1), std::string::npos) << run.err;
            EXPECT_EQ(run.err.find("may be incomplete") != std::string::npos, c.listed) << run.err;
            if (!json) {
                EXPECT_EQ(run.out.find("luns (") != std::string::npos, c.listed) << run.out;
                continue;
            }
            // The error object comes when the failure does (after the load), then the listing that
            // says in a field that it may be incomplete.
            std::istringstream docs(run.out);
            std::vector<nlohmann::json> parsed;
            while (docs >> std::ws && docs.peek() != EOF) {
                nlohmann::json j;
                try {
                    docs >> j;  // one document, the rest stays
                } catch (const nlohmann::json::parse_error&) {
                    break;
                }
                parsed.push_back(j);
            }
            ASSERT_EQ(parsed.size(), c.listed ? 2u : 1u) << run.out;
            if (c.listed) {
                EXPECT_EQ(parsed[1]["incomplete"], true);
                EXPECT_TRUE(parsed[1]["luns"].is_array());
            }
            EXPECT_EQ(parsed[0]["code"], 3);
            EXPECT_EQ(parsed[0]["error"], c.listed ? "CONNECTION_LOST" : "NO_ARRAY");
            // The message is the line: all of it where the case knows all of it.
            std::string message = "trovctl: " + parsed[0].value("message", std::string());
            if (line.back() == '\n')
                EXPECT_EQ(message + "\n", line);
            else
                EXPECT_EQ(message.rfind(line, 0), 0u) << message;
        }
    }
}

TEST(Failures, BadFileArgumentsAndTimeoutsAreBadCommandLines) {
    const struct {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
        {{"--proxy-conf", "/nonexistent/kelvane.conf", "info"},
         "trovctl: --proxy-conf /nonexistent/kelvane.conf: No such file or directory\n"},
        {{"--settings", "/nonexistent/settings.reg", "info"},
         "trovctl: --settings /nonexistent/settings.reg: No such file or directory\n"},
        {{"-f", "/tmp", "info"}, "trovctl: --file /tmp: is a directory\n"},
        {{"--timeout", "0", "info"}, "trovctl: --timeout takes 1 to 600 seconds, not 0\n"},
        {{"--timeout", "601", "info"}, "trovctl: --timeout takes 1 to 600 seconds, not 601\n"},
        {{"--timeout", "soon", "info"}, "--timeout"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> argv = {TROVCTL_BIN};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        Child run(argv);
        ASSERT_TRUE(run.Finish(10000));
        EXPECT_EQ(run.exitCode(), 2) << c.args[0] << " " << c.args[1] << ": " << run.err;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
    }
}
