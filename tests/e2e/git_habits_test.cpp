// What git users do every day, against `corvane serve` and, for the same history in the same
// test, against `git daemon`: the two must answer alike.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "e2e/corvane_server.h"
#include "e2e/git_test_repo.h"
#include "support/tcp_client.h"

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
    using GitServerTest::dir;
    // The same history in Corvane (as `name`) and in git's daemon (as name.git).
    void serveBoth(const std::string& name, const std::string& source) {
        create(name);
        sh(source, "git push -q " + server.url(name) + " 'refs/heads/*' 'refs/tags/*'");
        sh(dir("daemon"), "git clone -q --bare " + source + " " + name + ".git && git -C " + name +
                              ".git config uploadpack.allowFilter true && git -C " + name +
                              ".git config uploadpack.allowAnySHA1InWant true");
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

// Eight commits on main, with a two-commit topic branch merged in the middle: depths are
// counted along the shortest way, and the merge is the oldest commit since 1500000300.
std::string makeHistory(GitHabits& test) {
    std::string source = test.dir("source");
    // A minute between commits from a fixed time, so that --shallow-since cuts between them.
    sh(source,
       "at() { n=$(git rev-list --all 2> /dev/null | wc -l); "
       "GIT_COMMITTER_DATE=\"$((1500000000 + 60 * n)) +0000\" \"$@\"; } && "
       "git init -q -b main && for i in 1 2 3; do echo $i > m && git add m && "
       "at git commit -qm main$i; done && git checkout -q -b topic HEAD~1 && for i in 1 2; do "
       "echo $i > t && git add t && at git commit -qm topic$i; done && git checkout -q main && "
       "at git merge -q --no-ff -m merge topic && for i in 4 5 6 7; do echo $i > m && "
       "at git commit -qam main$i; done");
    return source;
}

// What a clone holds: its shallow boundary, then every commit, checked whole by fsck.
std::string state(const std::string& clone) {
    return sh(clone,
              "git fsck --no-progress && (sort .git/shallow 2> /dev/null || true) && "
              "echo -- && git rev-list --all | sort");
}

TEST_F(GitHabits, ShallowClonesDeepenAndUnshallowAsFromGitDaemon) {
    std::string source = makeHistory(*this);
    serveBoth("deep", source);
    // Each cuts the history somewhere (the clone has a boundary), as git's daemon does.
    const std::pair<const char*, std::string> steps[] = {
        {"clone --depth 1", "git clone -q --depth 1 URL ."},
        {"clone --depth 3, then --deepen 2",
         "git clone -q --depth 3 URL . && git fetch -q --deepen 2"},
        {"clone --shallow-exclude", "git clone -q --shallow-exclude=topic URL ."},
        {"clone --shallow-since", "git clone -q --shallow-since=@1500000300 URL ."},
        {"clone --depth 2 --no-single-branch", "git clone -q --depth 2 --no-single-branch URL ."},
    };
    int n = 0;
    for (const auto& [what, script] : steps) {
        auto run = [&](const std::string& url) {
            std::string clone = dir("clone" + std::to_string(n++));
            std::string command = script;
            command.replace(command.find("URL"), 3, url);
            sh(clone, command);
            return state(clone);
        };
        std::string ours = run(server.url("deep"));
        EXPECT_EQ(ours, run(daemon->url("deep.git"))) << what;
        EXPECT_FALSE(ours.starts_with("--")) << what << ": no boundary";
    }
    // Unshallowed, a clone has the whole history and no boundary.
    std::string full = dir("full");
    sh(full, "git clone -q --depth 1 " + server.url("deep") + " . && git fetch -q --unshallow");
    EXPECT_EQ(state(full), "--\n" + sh(source, "git rev-list --all | sort"));
}

TEST_F(GitHabits, PartialClonesLeaveOutWhatTheirFilterSaysAndFetchItLater) {
    std::string source = dir("source");
    sh(source,
       "git init -q -b main && mkdir -p src/deep && echo small > src/a && "
       "head -c 3000 /dev/zero | tr '\\0' x > src/deep/big && git add . && git commit -qm one && "
       "git checkout -q -b other && echo other > src/b && head -c 5000 /dev/zero | tr '\\0' y "
       "> big2 && git add . && git commit -qm two && git checkout -q main && echo more >> src/a "
       "&& git commit -qam three");
    serveBoth("partial", source);
    // What a clone holds and lacks ("?" before an id it left out), and that it is sound.
    auto objects = [&](const std::string& clone) {
        return sh(clone,
                  "git fsck --no-progress && git rev-list --all --objects --missing=print | "
                  "sort");
    };
    int n = 0;
    for (const char* filter : {"blob:none", "blob:limit=1k", "tree:0"}) {
        auto run = [&](const std::string& url) {
            std::string clone = dir("partial" + std::to_string(n++));
            sh(clone, std::string("git clone -q --filter=") + filter + " " + url + " .");
            std::string cloned = objects(clone);
            // Another branch's files come when it is checked out.
            sh(clone, "git checkout -q other && test \"$(cat src/b)\" = other");
            return std::make_pair(cloned, objects(clone));
        };
        auto ours = run(server.url("partial"));
        EXPECT_EQ(ours, run(daemon->url("partial.git"))) << filter;
        EXPECT_NE(ours.first.find('?'), std::string::npos) << filter << ": nothing left out";
    }
}

TEST_F(GitHabits, BadDepthsAndFiltersAreRefusedWithAnErrorAndServingGoesOn) {
    std::string source = makeHistory(*this);
    create("deep");
    sh(source, "git push -q " + server.url("deep") + " main");
    std::string head = trimmed(sh(source, "git rev-parse main"));
    const std::pair<std::string, std::string> requests[] = {
        {"deepen 0", "ERR Invalid deepen: deepen 0"},
        {"deepen -3", "ERR Invalid deepen: deepen -3"},
        {"deepen 99999999999", "ERR Invalid deepen: deepen 99999999999"},
        {"deepen two", "ERR Invalid deepen: deepen two"},
        {"shallow 123", "ERR Invalid shallow line: shallow 123"},
        {"shallow " + std::string(40, 'a'),
         "ERR Shallow commit " + std::string(40, 'a') + " not found on server"},
        {"deepen-not refs/heads/nothing", "ERR deepen-not is not a ref: refs/heads/nothing"},
        {"deepen-since yesterday", "ERR Invalid deepen-since: deepen-since yesterday"},
        {"deepen-since 4000000000", "ERR No commits selected for shallow requests"},
        {"filter blob:nothing", "ERR Invalid filter 'blob:nothing'"},
        {"filter blob:limit=-1", "ERR Invalid filter 'blob:limit=-1'"},
        {"filter tree:1", "ERR Invalid filter 'tree:1'"},
    };
    for (const auto& [line, error] : requests) {
        TcpClient client;
        client.connect(server.port());
        client.sendPktLine(std::string("git-upload-pack /deep") + '\0' + "host=localhost" + '\0');
        client.sendPktLine("want " + head + " side-band-64k shallow\n");
        client.sendPktLine(line + "\n");
        client.send("0000");
        std::string answer = client.readAll();
        EXPECT_NE(answer.find(pktLine(error + "\n")), std::string::npos) << line << ": " << answer;
    }
    // The daemon still serves, and a real client shows the server's words.
    auto refused = shTry(dir("refused"),
                         "git clone --shallow-exclude=nothing " + server.url("deep") + " . 2>&1");
    EXPECT_NE(refused.status, 0);
    EXPECT_NE(refused.out.find("remote error: deepen-not is not a ref: nothing"), std::string::npos)
        << refused.out;
    sh(dir("after"), "git clone -q --depth 1 " + server.url("deep") + " .");
}

}  // namespace
}  // namespace corvane::testing
