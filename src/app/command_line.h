// The command line: `corvane serve [--port N]` and the other subcommands. Returns the process's
// exit status; failures print the error's message on stderr.
#pragma once

namespace corvane {

int runCommandLine(int argc, char** argv);

}  // namespace corvane
