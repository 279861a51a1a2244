// trovproxy-sim: the proxy service and the array behind it, standalone.
//
//   trovproxy-sim --scenario demo|max|FILE --port N --user U --password P [--state FILE]
//                 [--write-conf PATH] [options]
//
// Logs one line per request to standard error, takes control lines (sim/README.md) on standard
// input, and stops cleanly on SIGINT or SIGTERM.
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "sim/control.h"
#include "sim/sim.h"

int main(int argc, char** argv) {
    CLI::App app{"trovproxy-sim: emulator of the TROV Proxy service and of the array behind it"};
    trovsim::Options opt;
    std::string scenario = "demo", conf;
    std::vector<std::string> actions;
    uint32_t closeAfter = 0;
    std::vector<std::string> delays, fails, closeAt, shortHeader, wrongOpcode, hugeDataLen, randomBytes;
    uint64_t refuse = 0;
    bool neverAnswer = false, quiet = false, noStdin = false;
    std::vector<std::string> events, offlineControllers, offlineDrives;
    int heartbeat = -1;

    app.add_option("--scenario", scenario, "demo, max, or a scenario file")->capture_default_str();
    app.add_option("--port", opt.port, "TCP port to listen on (0: any free one)")->capture_default_str();
    app.add_option("--bind", opt.bindAddress, "address to listen on")->capture_default_str();
    app.add_option("--user", opt.user, "the user a client logs in as")->capture_default_str();
    app.add_option("--password", opt.password, "that user's password")->capture_default_str();
    app.add_option("--state", opt.stateFile, "save the model here after every change, load it from here at start");
    app.add_option("--write-conf", conf, "write a kelvane.conf that points at this emulator");
    app.add_option("--heartbeat", heartbeat, "milliseconds between heartbeats (0: none)");
    app.add_flag("--quiet", quiet, "no line per request");
    app.add_flag("--no-stdin", noStdin, "don't read control lines from standard input");
    app.add_option("--do", actions, "a control line to run at start (repeatable)");
    app.add_option("--event", events, "raise an event at start: HANDLE:CODE[:PARAM]");
    app.add_option("--controller-offline", offlineControllers, "take a controller offline at start: HANDLE[:STATE]");
    app.add_option("--drive-offline", offlineDrives, "take a drive offline at start: SERIAL");
    app.add_option("--close-after", closeAfter, "close the connection after N commands");
    app.add_option("--close-at-opcode", closeAt, "close the connection at this opcode");
    app.add_option("--delay", delays, "delay the reply to an opcode: OP:MS");
    app.add_option("--fail", fails, "answer an opcode with an error: OP:CODE[:COUNT]");
    app.add_option("--short-header", shortHeader, "answer an opcode with a short header");
    app.add_option("--wrong-opcode", wrongOpcode, "answer an opcode under another opcode");
    app.add_option("--huge-datalen", hugeDataLen, "answer an opcode with a DataLen larger than any buffer");
    app.add_option("--random-bytes", randomBytes, "answer an opcode with random bytes: OP[:N]");
    app.add_flag("--never-answer", neverAnswer, "accept requests and never answer them");
    app.add_option("--refuse", refuse, "refuse connections for this many milliseconds at start");
    CLI11_PARSE(app, argc, argv);

    if (heartbeat >= 0) opt.heartbeatIntervalMs = static_cast<uint32_t>(heartbeat);
    opt.logRequests = !quiet;

    // Signals are taken by the main thread alone, with sigwait.
    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGINT);
    sigaddset(&sigs, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &sigs, nullptr);

    trovsim::Server server(opt);
    std::string err;
    if (!server.LoadScenario(scenario, &err)) {
        std::cerr << "trovproxy-sim: " << err << "\n";
        return 2;
    }
    if (!server.Start(&err)) {
        std::cerr << "trovproxy-sim: " << err << "\n";
        return 2;
    }
    if (!conf.empty()) {
        if (!server.WriteKelvaneConf(conf, &err)) {
            std::cerr << "trovproxy-sim: " << err << "\n";
            server.Stop();
            return 2;
        }
        server.LogLine("wrote " + conf);
    }

    auto colon = [](const std::string& s) {
        std::string out = s;
        for (char& ch : out)
            if (ch == ':') ch = ' ';
        return out;
    };
    std::vector<std::string> lines;
    for (auto& e : events) lines.push_back("event " + colon(e));
    for (auto& c : offlineControllers) {
        std::string w = colon(c);
        auto sp = w.find(' ');
        lines.push_back("controller " + (sp == std::string::npos ? w + " offline" : w.substr(0, sp) + " offline" + w.substr(sp)));
    }
    for (auto& d : offlineDrives) lines.push_back("drive " + d + " offline");
    if (closeAfter) lines.push_back("fault close-after " + std::to_string(closeAfter));
    for (auto& o : closeAt) lines.push_back("fault close-at " + o);
    for (auto& d : delays) lines.push_back("fault delay " + colon(d));
    for (auto& f : fails) lines.push_back("fault fail " + colon(f));
    for (auto& o : shortHeader) lines.push_back("fault short-header " + o);
    for (auto& o : wrongOpcode) lines.push_back("fault wrong-opcode " + o);
    for (auto& o : hugeDataLen) lines.push_back("fault huge-datalen " + o);
    for (auto& o : randomBytes) lines.push_back("fault random-bytes " + colon(o));
    if (neverAnswer) lines.push_back("fault never-answer on");
    if (refuse) lines.push_back("refuse " + std::to_string(refuse));
    for (auto& a : actions) lines.push_back(a);
    for (auto& l : lines) {
        std::string answer = trovsim::RunControl(server, l);
        server.LogLine(l + ": " + answer);
        if (answer.rfind("error: ", 0) == 0) {
            server.Stop();
            return 2;
        }
    }

    // Control lines from standard input, read with poll and read rather than stdio: a reader
    // blocked inside stdio holds the stream's lock, and the exit would wait for it. "quit" stops
    // the emulator; the end of input leaves it running until a signal comes.
    int wake = eventfd(0, EFD_CLOEXEC);
    std::thread reader;
    if (!noStdin && wake >= 0) {
        reader = std::thread([&server, wake] {
            std::string buffer;
            char chunk[4096];
            for (;;) {
                pollfd p[2] = {{STDIN_FILENO, POLLIN, 0}, {wake, POLLIN, 0}};
                if (poll(p, 2, -1) < 0) {
                    if (errno == EINTR) continue;
                    return;
                }
                if (p[1].revents & POLLIN) return;
                ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
                if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
                bool end = n <= 0;
                if (end && !buffer.empty()) buffer += '\n';  // a last line without its newline
                if (!end) buffer.append(chunk, static_cast<size_t>(n));
                for (size_t nl; (nl = buffer.find('\n')) != std::string::npos;) {
                    std::string line = buffer.substr(0, nl);
                    buffer.erase(0, nl + 1);
                    if (!line.empty() && line.back() == '\r') line.pop_back();
                    if (line == "quit" || line == "exit") {
                        kill(getpid(), SIGTERM);
                        return;
                    }
                    std::string answer = trovsim::RunControl(server, line);
                    if (!answer.empty()) std::cout << answer << std::endl;
                }
                if (end) return;
            }
        });
    }

    int sig = 0;
    sigwait(&sigs, &sig);
    server.LogLine(sig == SIGINT ? "SIGINT, stopping" : "SIGTERM, stopping");
    if (reader.joinable()) {
        uint64_t one = 1;
        (void)!write(wake, &one, sizeof one);
        reader.join();
    }
    if (wake >= 0) close(wake);
    server.Stop();
    std::cout.flush();
    return 0;
}
