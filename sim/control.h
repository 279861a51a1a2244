// The emulator's control language: one line, one action on a running server. The standalone
// program reads these lines from its standard input and takes them from its command line;
// tests and trovctl may use them as well. The words are listed in sim/README.md.
#pragma once

#include <string>

namespace trovsim {

class Server;

// Runs one control line. Returns the answer text; an answer that begins with "error: " says the
// line was refused and nothing happened.
std::string RunControl(Server& server, const std::string& line);

}  // namespace trovsim
