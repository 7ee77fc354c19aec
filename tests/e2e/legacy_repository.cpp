// A repository as Corvane stored it before stored packs, for the conversion tests: every object
// of a bare git repository whole, in pack records named by the first digits of the ids (version
// 2), with its heads and tags. Usage: legacy_repository NAME GIT_DIR, with the environment of
// the daemon whose store it writes; NAME must exist and be empty.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "app/command_support.h"
#include "storage/backend.h"

namespace {

std::FILE* gitOutput(const std::string& gitDir, const std::string& arguments) {
    std::string command = "git --git-dir='" + gitDir + "' " + arguments;
    std::FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) throw corvane::Error("cannot run " + command);
    return pipe;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: legacy_repository NAME GIT_DIR\n");
        return 2;
    }
    try {
        corvane::CommandSession session;
        corvane::Backend& backend = session.backend();
        auto repository = backend.fetchRepository(argv[1], "__defaultOwner__");
        corvane::Repository::ContentUpdate update(*repository);
        auto& content = update.content();

        std::vector<std::string> ids;
        std::FILE* objects = gitOutput(argv[2], "cat-file --batch-all-objects --batch");
        char id[41];
        char type[16];
        unsigned long size = 0;
        while (std::fscanf(objects, "%40s %15s %lu", id, type, &size) == 3) {
            std::fgetc(objects);  // the line's end
            corvane::Bytes data(size);
            if (std::fread(data.data(), 1, size, objects) != size) throw corvane::Error("short");
            std::fgetc(objects);  // the newline after the data
            corvane::Object object(*corvane::objectTypeFromName(type), std::move(data));
            backend.store().putObject(object);
            corvane::summarise(object, content);
            ids.push_back(object.id());
        }
        ::pclose(objects);

        std::FILE* refs = gitOutput(argv[2],
                                    "for-each-ref --format='%(objectname) %(refname)' "
                                    "refs/heads refs/tags");
        char name[4096];
        while (std::fscanf(refs, "%40s %4095s", id, name) == 2)
            content.refs[name] = id;
        ::pclose(refs);

        auto sizes = backend.savePacks(ids, *repository, content, [](const auto&) {});
        content.packs.insert(sizes.begin(), sizes.end());
        backend.saveRepository(repository, update);
        std::printf("%zu objects in %zu packs\n", ids.size(), sizes.size());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
