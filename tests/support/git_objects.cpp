#include "support/git_objects.h"

#include <cstdio>
#include <stdexcept>

#include "support/process.h"

namespace corvane::testing {

namespace {

bool readLine(std::FILE* file, std::string& line) {
    line.clear();
    for (int c; (c = std::getc(file)) != EOF && c != '\n';)
        line += static_cast<char>(c);
    return !line.empty();
}

}  // namespace

void forEachBundleObject(
    const std::string& bundle, const std::string& folder,
    const std::function<void(const std::string&, std::string_view, const Bytes&)>& each) {
    std::string repo = folder + "/history.git";
    auto clone = runCommand({"git", "clone", "--mirror", "--quiet", bundle, repo},
                            {{"GIT_CONFIG_NOSYSTEM", "1"}, {"GIT_CONFIG_GLOBAL", "/dev/null"}});
    if (clone.status != 0) throw std::runtime_error("git clone failed: " + clone.out);
    // "<id> <type> <size>\n<contents>\n" for every object.
    std::string command = "git -C '" + repo + "' cat-file --batch-all-objects --batch --unordered";
    std::FILE* objects = ::popen(command.c_str(), "r");
    if (!objects) throw std::runtime_error("popen failed");
    std::setvbuf(objects, nullptr, _IOFBF, 1 << 20);
    std::string header;
    Bytes data;
    while (readLine(objects, header)) {
        char id[41] = {};
        char type[16] = {};
        std::size_t size = 0;
        if (std::sscanf(header.c_str(), "%40s %15s %zu", id, type, &size) != 3 ||
            std::fread((data.resize(size), data.data()), 1, size, objects) != size ||
            std::getc(objects) != '\n') {
            ::pclose(objects);
            throw std::runtime_error("unreadable cat-file output: " + header);
        }
        each(id, type, data);
    }
    ::pclose(objects);
}

}  // namespace corvane::testing
