// Ctrl-C and SIGTERM for trovctl.
//
// Install() blocks SIGINT and SIGTERM in the calling thread - call it in main before any thread
// starts, so that every thread (the provider's included) inherits the mask and no blocking call
// of the provider is cut short by EINTR - and starts one thread that takes both with sigwait. A
// signal raises a flag that trovctl's own waits and loops look at (Pending) and makes WakeFd()
// readable, so that the shell's line reader wakes. A call into the provider cannot be cut
// short: a command notices the Ctrl-C when the call returns.
//
// In the shell (SetInteractive(true)) a Ctrl-C interrupts the running command or the line being
// typed and the shell goes on; a Ctrl-C that comes while an earlier one is still unanswered, or
// SIGTERM, ends the program. Elsewhere a Ctrl-C ends the program. Ending: the main thread leaves
// its command, unloads the provider and calls ExitAsSignalled(); should it not get there within
// kGraceMs (a call into the provider that does not return), the program ends without it. Either
// way it ends as by the signal, as a shell expects of an interrupted program.
//
// SIGWINCH is taken the same way, so that no signal handler runs on a provider thread.
// Without Install() nothing is taken and Pending() stays false; Sleep() still sleeps.
#pragma once

#include <string>

namespace trovctl::interrupt {

constexpr int kGraceMs = 3000;

void Install();
void SetInteractive(bool interactive);
// A Ctrl-C that nothing has answered yet.
bool Pending();
// Answers it.
void Clear();
// Readable while a Ctrl-C is pending (or after a resize).
int WakeFd();
// Empties WakeFd() without answering a Ctrl-C: a reader that checks Pending() before it waits
// loses none.
void Drain();
// Waits `ms` of real time, or less when a Ctrl-C comes; false when interrupted.
bool Sleep(int ms);
// The program is to end (SIGTERM, a Ctrl-C outside the shell, a second unanswered Ctrl-C).
bool Ending();
// Ends the program as by the signal that ended it; returns when none did.
void ExitAsSignalled();
// A file or (empty) folder of this run that the program removes should it end without
// unwinding (the grace time ran out); the owner removes it as usual otherwise.
void RemoveIfCutShort(const std::string& path);
// True once after the terminal's size changed (SIGWINCH, taken by the same thread): the shell
// lets its line editor know. The change also makes WakeFd() readable, without a Ctrl-C.
bool TakeResize();

}  // namespace trovctl::interrupt
