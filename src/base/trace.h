// trace: the one log facility. Written categories go to stderr as "<mark> <message>" (errors as
// the message alone), one whole line per call. Callable from any thread; lines never interleave.
#pragma once

#include <functional>
#include <string_view>

namespace corvane {

enum class TraceModule { request, response, gitRequest, gitReply, info, error };

// The mark that starts a line of the category: ">>", "<<", ">", "<", "*", "!".
std::string_view traceMark(TraceModule module);

// Only request, response, info and error are written; the git categories are dropped before
// any formatting happens, so tracing every pkt-line costs nothing.
bool isTraceWritten(TraceModule module);

void trace(TraceModule module, std::string_view message);

// A sink takes the lines instead of stderr (tests capture the log; commands that print their
// result drop it unless asked for it); an empty function restores stderr.
using TraceSink = std::function<void(std::string_view line)>;
void setTraceSink(TraceSink sink);

}  // namespace corvane
