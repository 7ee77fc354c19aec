// What git users do every day, against `corvane serve` and, for the same history in the same
// test, against `git daemon`: the two must answer alike.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "e2e/corvane_server.h"
#include "e2e/git_test_repo.h"

namespace corvane::testing {
namespace {

// A port nobody listens on now.
int freePort() {
    int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(probe);
    return ntohs(address.sin_port);
}

// git's own daemon, serving the bare repositories under its folder.
class GitDaemon {
  public:
    explicit GitDaemon(std::string root) : root_(std::move(root)), port_(freePort()) {
        process_ = std::make_unique<BackgroundProcess>(
            std::vector<std::string>{"git", "daemon", "--verbose", "--export-all", "--reuseaddr",
                                     "--listen=127.0.0.1", "--port=" + std::to_string(port_),
                                     "--base-path=" + root_, root_},
            kGitEnvironment);
        EXPECT_TRUE(process_->waitForOutput("Ready to rumble")) << process_->output();
    }
    std::string url(const std::string& name) const {
        return "git://127.0.0.1:" + std::to_string(port_) + "/" + name;
    }

  private:
    std::string root_;
    int port_;
    std::unique_ptr<BackgroundProcess> process_;
};

struct GitHabits : GitServerTest {
    // The same history in Corvane (as `name`) and in git's daemon (as name.git).
    void serveBoth(const std::string& name, const std::string& source) {
        create(name);
        sh(source, "git push -q " + server.url(name) + " 'refs/heads/*' 'refs/tags/*'");
        sh(dir("daemon"), "git clone -q --bare " + source + " " + name + ".git");
        if (!daemon) daemon = std::make_unique<GitDaemon>(work.path() + "/daemon");
    }
    std::unique_ptr<GitDaemon> daemon;
};

TEST_F(GitHabits, TagsArePeeledAndAPlainFetchFollowsNewOnes) {
    std::string source = dir("source");
    sh(source,
       "git init -q -b main && echo one > a && git add a && git commit -qm one && "
       "git tag light && git tag -a v1 -m 'version 1' && git tag -a v1-signed v1 -m outer && "
       "git tag -a tree-tag HEAD^{tree} -m 'a tree' && echo two > a && git commit -qam two");
    serveBoth("tags", source);
    std::string ours = sh(work.path(), "git ls-remote " + server.url("tags"));
    EXPECT_EQ(ours, sh(work.path(), "git ls-remote " + daemon->url("tags.git")));
    EXPECT_NE(ours.find("refs/tags/v1-signed^{}"), std::string::npos) << ours;

    // A clone, then a new commit with an annotated tag pushed elsewhere: a plain fetch of the
    // branch brings the tag, as from any git server, and a tag of history not fetched stays out.
    std::string clone = dir("clone");
    sh(clone, "git clone -q " + server.url("tags") + " .");
    sh(source,
       "echo three > a && git commit -qam three && git tag -a v3 -m 'version 3' && "
       "git checkout -q -b side HEAD~2 && echo side > s && git add s && git commit -qm side && "
       "git tag -a side-tag -m 'on a side branch' && git checkout -q main && "
       "git push -q " +
           server.url("tags") + " main side-tag v3");
    sh(clone, "git fetch -q && git fsck --no-progress");
    EXPECT_EQ(trimmed(sh(clone, "git cat-file -t v3")), "tag");
    EXPECT_EQ(sh(clone, "git rev-parse v3^{commit}"), sh(source, "git rev-parse main"));
    EXPECT_NE(shTry(clone, "git rev-parse -q --verify side-tag").status, 0);
}

}  // namespace
}  // namespace corvane::testing
