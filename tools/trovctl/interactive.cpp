// The interactive loop: on a terminal, readline's callback interface over a poll of standard
// input, the Ctrl-C descriptor and the descriptor that says a notification waits, with
// completion from the command table and history in ~/.trovctl_history (saved line by line; a
// line that carries a secret is kept out of it); otherwise the lines of standard input, read the
// same way. A Ctrl-C cancels the line being typed; on an empty line it says how to leave, and a
// second one leaves. A notification that comes while a line is typed is printed above it, and
// the prompt and the line are drawn again.
#include <poll.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstdio>
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

// Waits until standard input, the Ctrl-C descriptor or `kept` (when not -1) is readable:
// 1 input, 2 Ctrl-C, 3 a notification to print, -1 error.
int WaitInput(int kept = -1) {
    for (;;) {
        if (interrupt::Pending()) return 2;
        pollfd p[3] = {{STDIN_FILENO, POLLIN, 0}, {interrupt::WakeFd(), POLLIN, 0}, {kept, POLLIN, 0}};
        int r = poll(p, 3, -1);
        if (r < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (p[1].revents & POLLIN) return 2;
        if (p[2].revents & POLLIN) return 3;
        if (p[0].revents & (POLLIN | POLLHUP | POLLERR)) return 1;
    }
}

// True when the line must stay out of the history.
bool Secret(const std::string& line) {
    std::vector<std::string> words;
    std::string err;
    return SplitLine(line, &words, &err) && CarriesSecret(words);
}

std::string Prompt(const Shell& sh) {
    std::string prompt = "trovctl";
    // The selection by its number, as the listings show it (its id only when it has none).
    if (const Object* s = sh.selection())
        prompt += std::string(" ") + KindName(s->kind) + " " +
                  (s->number >= 0 ? std::to_string(s->number) : GuidToString(s->id).substr(0, 8));
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
    if (keptFd_ < 0) keptFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    auto editing = [this](bool on) {
        std::lock_guard<std::mutex> g(notifyMu_);
        editing_ = on;
    };
    while (!quit_ && !interrupt::Ending()) {
        if (!installed) {
            g_lineReady = false;
            rl_callback_handler_install(Prompt(*this).c_str(), OnLine);
            installed = true;
            editing(true);
        }
        int what = WaitInput(keptFd_);
        if (what < 0) break;
        if (what == 3) {
            uint64_t n;
            (void)!read(keptFd_, &n, sizeof n);
            // Printed above the line being typed; then the prompt and the line come again.
            char* line = rl_copy_text(0, rl_end);
            int point = rl_point;
            rl_save_prompt();
            rl_replace_line("", 0);
            rl_redisplay();
            std::fputs("\r", rl_outstream ? rl_outstream : stdout);
            PrintKept();
            rl_restore_prompt();
            rl_replace_line(line, 0);
            rl_point = point;
            rl_forced_update_display();
            std::free(line);
            continue;
        }
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
        editing(false);
        PrintKept();  // what came while the line was finished
        if (g_endOfInput) {
            render_.out() << std::endl;
            break;
        }
        if (!g_line.empty() && !Secret(g_line)) {
            add_history(g_line.c_str());
            if (!history.empty()) append_history(1, history.c_str());
        }
        rc = ExecuteLine(g_line);
        if (rc == kInterrupted) render_.out() << std::endl;  // the terminal echoed ^C where the output was
        render_.out().flush();
        interrupt::Clear();
    }
    if (installed) rl_callback_handler_remove();
    editing(false);
    PrintKept();
    g_shell = nullptr;
    return rc;
}

void Shell::PrintKept() {
    std::deque<VDS_NOTIFICATION> kept;
    {
        std::lock_guard<std::mutex> g(notifyMu_);
        kept.swap(kept_);
    }
    for (const VDS_NOTIFICATION& n : kept) PrintNotification(n);
}

// Reads what is typed up to Enter into *line (at most about `limit` characters). True when the
// line ended with Enter; false on Ctrl-C, the end of input or the limit.
static bool ReadTerminalLine(std::string* line, size_t limit) {
    bool done = false;
    while (!done && (limit == std::string::npos || line->size() < limit)) {
        if (WaitInput() != 1) break;
        char buf[256];
        ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        for (ssize_t i = 0; i < n && !done; ++i) {
            if (buf[i] == '\n' || buf[i] == '\r')
                done = true;
            else
                *line += buf[i];
        }
    }
    return done;
}

bool Shell::AskSecret(const std::string& prompt, std::string* secret) {
    secret->clear();
    if (!mayAsk_ || !isatty(STDIN_FILENO)) return false;
    termios old{};
    if (tcgetattr(STDIN_FILENO, &old) != 0) return false;
    termios quiet = old;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ICANON;
    render_.out().flush();
    // Echo goes off before the prompt shows, so that nothing typed after it is echoed.
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    std::cerr << prompt << std::flush;
    std::string line;
    bool done = ReadTerminalLine(&line, std::string::npos);  // Ctrl-C: nothing is taken
    tcsetattr(STDIN_FILENO, TCSANOW, &old);
    std::cerr << "\n" << std::flush;  // the Enter was not echoed
    if (done) secret->swap(line);
    std::fill(line.begin(), line.end(), '\0');
    return true;
}

bool Shell::Confirm(const std::string& question) {
    if (assumeYes_ || inScript_ || !mayAsk_ || !isatty(STDIN_FILENO)) return true;
    termios old{};
    if (tcgetattr(STDIN_FILENO, &old) != 0) return true;
    termios plain = old;
    plain.c_lflag |= ICANON | ECHO;
    render_.out().flush();
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &plain);
    std::cerr << question << " [y/N] " << std::flush;
    std::string line;
    bool done = ReadTerminalLine(&line, 64);  // Ctrl-C: no answer is no
    tcsetattr(STDIN_FILENO, TCSANOW, &old);
    if (!done) std::cerr << "\n" << std::flush;
    std::string answer = Lower(line);
    answer.erase(0, answer.find_first_not_of(" \t"));
    answer.erase(answer.find_last_not_of(" \t") + 1);
    return done && (answer == "y" || answer == "yes");
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
