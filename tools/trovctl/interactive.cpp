// The interactive loop: on a terminal, readline's callback interface over a poll of standard
// input and the Ctrl-C descriptor, with completion from the command table and history in
// ~/.trovctl_history; otherwise the lines of standard input, read the same way. A Ctrl-C cancels
// the line being typed; on an empty line it says how to leave, and a second one leaves.
#include <poll.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "interrupt.h"
#include "platform/wstr.h"
#include "shell.h"

namespace trovctl {

namespace {

constexpr const char* kLeaveHint = "(Ctrl-C again or Ctrl-D to leave)";

// Readline's callbacks are plain functions: the state of the one loop that runs.
Shell* g_shell = nullptr;
bool g_lineReady = false;
bool g_endOfInput = false;
std::string g_line;

void OnLine(char* raw) {
    g_lineReady = true;
    g_endOfInput = raw == nullptr;
    g_line = raw ? raw : "";
    std::free(raw);
    // The handler goes before the command runs, so that its output is not taken for input.
    rl_callback_handler_remove();
}

std::vector<std::string> g_offer;

char* NextOffer(const char*, int state) {
    static size_t i;
    if (state == 0) i = 0;
    return i < g_offer.size() ? strdup(g_offer[i++].c_str()) : nullptr;
}

char** Complete(const char* text, int start, int) {
    std::vector<std::string> before;
    std::string err;
    SplitLine(std::string(rl_line_buffer, static_cast<size_t>(start)), &before, &err);
    g_offer = Completions(before, text, g_shell);
    rl_attempted_completion_over = 1;  // no file names
    return rl_completion_matches(text, NextOffer);
}

// Waits until standard input or the Ctrl-C descriptor is readable: 1 input, 2 Ctrl-C, -1 error.
int WaitInput() {
    for (;;) {
        if (interrupt::Pending()) return 2;
        pollfd p[2] = {{STDIN_FILENO, POLLIN, 0}, {interrupt::WakeFd(), POLLIN, 0}};
        int r = poll(p, interrupt::WakeFd() >= 0 ? 2 : 1, -1);
        if (r < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (p[1].revents & POLLIN) return 2;
        if (p[0].revents & (POLLIN | POLLHUP | POLLERR)) return 1;
    }
}

std::string Prompt(const Shell& sh) {
    std::string prompt = "trovctl";
    if (const Object* s = sh.selection())
        prompt += std::string(" ") + KindName(s->kind) + " " + GuidToString(s->id).substr(0, 8);
    return prompt + "> ";
}

}  // namespace

int Shell::RunInteractive() {
    interrupt::SetInteractive(true);
    interrupt::Clear();
    int rc = isatty(STDIN_FILENO) ? RunTerminal() : RunLines();
    interrupt::SetInteractive(false);
    return rc;
}

int Shell::RunTerminal() {
    int rc = kOk;
    const char* home = std::getenv("HOME");
    std::string history = home ? std::string(home) + "/.trovctl_history" : std::string();
    // Saved line by line; append_history needs the file to exist.
    if (!history.empty() && read_history(history.c_str()) != 0) write_history(history.c_str());
    g_shell = this;
    rl_catch_signals = 0;  // the signal thread takes Ctrl-C and resizes (interrupt.h)
    rl_catch_sigwinch = 0;
    rl_attempted_completion_function = Complete;
    bool armed = false;  // a Ctrl-C on an empty line came: the next one leaves
    bool installed = false;
    while (!quit_ && !interrupt::Ending()) {
        if (!installed) {
            g_lineReady = false;
            rl_callback_handler_install(Prompt(*this).c_str(), OnLine);
            installed = true;
        }
        int what = WaitInput();
        if (what < 0) break;
        if (what == 2 && !interrupt::Pending()) {  // no Ctrl-C: the terminal's size changed
            interrupt::Drain();
            if (interrupt::TakeResize()) rl_resize_terminal();
            continue;
        }
        if (what == 2) {
            interrupt::Clear();
            if (interrupt::Ending()) break;
            bool empty = rl_end == 0;
            if (empty && armed) {
                rl_crlf();  // the caller's prompt comes on a line of its own
                break;
            }
            armed = empty;
            // The line is dropped and a fresh prompt drawn below it.
            rl_callback_sigcleanup();
            rl_replace_line("", 0);
            rl_crlf();
            if (empty) render_.out() << kLeaveHint << std::endl;
            rl_on_new_line();
            rl_redisplay();
            continue;
        }
        armed = false;
        rl_callback_read_char();
        if (!g_lineReady) continue;
        installed = false;
        if (g_endOfInput) {
            render_.out() << std::endl;
            break;
        }
        if (!g_line.empty()) {
            add_history(g_line.c_str());
            if (!history.empty()) append_history(1, history.c_str());
        }
        rc = ExecuteLine(g_line);
        if (rc == kInterrupted) render_.out() << std::endl;  // the terminal echoed ^C where the output was
        render_.out().flush();
        interrupt::Clear();
    }
    if (installed) rl_callback_handler_remove();
    g_shell = nullptr;
    return rc;
}

int Shell::RunLines() {
    int rc = kOk;
    bool armed = false;
    std::string buffer;
    bool eof = false;
    while (!quit_ && !interrupt::Ending()) {
        size_t nl = buffer.find('\n');
        if (nl == std::string::npos && !eof) {
            int what = WaitInput();
            if (what < 0) break;
            if (what == 2 && !interrupt::Pending()) {
                interrupt::Drain();
                continue;
            }
            if (what == 2) {
                interrupt::Clear();
                if (interrupt::Ending() || armed) break;
                armed = true;
                render_.Note(std::string("interrupted ") + kLeaveHint);
                continue;
            }
            char chunk[4096];
            ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0)
                eof = true;
            else
                buffer.append(chunk, static_cast<size_t>(n));
            continue;
        }
        if (nl == std::string::npos && buffer.empty()) break;  // the end of input
        std::string line = nl == std::string::npos ? buffer : buffer.substr(0, nl);
        buffer.erase(0, nl == std::string::npos ? buffer.size() : nl + 1);
        armed = false;
        rc = ExecuteLine(line);
        render_.out().flush();
        interrupt::Clear();
    }
    return rc;
}

}  // namespace trovctl
