#include "base/trace.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace corvane {

namespace {

std::mutex& traceMutex() {
    static std::mutex mutex;
    return mutex;
}

TraceSink& traceSink() {
    static TraceSink sink;
    return sink;
}

}  // namespace

std::string_view traceMark(TraceModule module) {
    switch (module) {
        case TraceModule::request:
            return ">>";
        case TraceModule::response:
            return "<<";
        case TraceModule::gitRequest:
            return ">";
        case TraceModule::gitReply:
            return "<";
        case TraceModule::info:
            return "*";
        case TraceModule::error:
            return "!";
    }
    return "?";
}

bool isTraceWritten(TraceModule module) {
    return module != TraceModule::gitRequest && module != TraceModule::gitReply;
}

void trace(TraceModule module, std::string_view message) {
    if (!isTraceWritten(module)) return;
    std::string line;
    if (module != TraceModule::error) {
        line.append(traceMark(module));
        line.push_back(' ');
    }
    line.append(message);

    // One lock around the whole write keeps lines from different threads whole.
    std::lock_guard lock(traceMutex());
    if (traceSink()) {
        traceSink()(line);
        return;
    }
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

void setTraceSink(TraceSink sink) {
    std::lock_guard lock(traceMutex());
    traceSink() = std::move(sink);
}

}  // namespace corvane
