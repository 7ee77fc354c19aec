// UploadPack and ReceivePack byte for byte: what each writes for given client lines, over a
// real store and object cache.
#include <gtest/gtest.h>

#include <future>

#include "objects/sha1.h"
#include "objects/zlib.h"
#include "protocol/pack_writer.h"
#include "protocol/receive_pack.h"
#include "protocol/upload_pack.h"
#include "socket_pair.h"
#include "storage/cloud_fixture.h"
#include "storage/stored_pack.h"
#include "support/error_message.h"
#include "support/process.h"
#include "support/tcp_client.h"

namespace corvane {
namespace {

using testing::pktLine;

std::string band(char channel, const std::string& data) {
    return pktLine(std::string(1, channel) + data);
}

struct Commands : testing::CloudFixture {
    Object blob{ObjectType::blob, toBytes("hello\n")};
    Object tree{ObjectType::tree, treeWith(blob)};
    Object commit{ObjectType::commit,
                  toBytes("tree " + tree.id() +
                          "\nauthor A <a@x> 1 +0000\ncommitter A <a@x> 1 +0000\n\nfirst\n")};

    static Bytes treeWith(const Object& object) {
        Bytes entry = toBytes("100644 hello.txt");
        entry.push_back(0);
        auto id = digestOfId(object.id());
        entry.insert(entry.end(), id.begin(), id.end());
        return entry;
    }

    // A stored repository holding the commit on main, its objects in the cache.
    std::shared_ptr<Repository> storedRepository() {
        auto repository = create("tools");
        Repository::ContentUpdate update(*repository);
        for (const auto* object : {&blob, &tree, &commit}) {
            store.putObject(*object);
            summarise(*object, update.content());
        }
        update.content().refs["refs/heads/main"] = commit.id();
        backend.saveRepository(repository, update);
        return repository;
    }

    // Runs the command `make` builds on a fresh connection against the client's bytes; returns
    // what it wrote and its error text.
    template <typename Make>
    std::pair<std::string, std::string> exchange(Make make, const std::string& client) {
        testing::SocketPair pair;
        auto command = make(*pair.socket);
        pair.peerWrite(client);
        ::shutdown(pair.peer, SHUT_WR);
        auto written = std::async(std::launch::async, [&] { return pair.peerReadAll(); });
        std::string error;
        try {
            command.run();
        } catch (const std::exception& failure) {
            error = failure.what();
        }
        pair.endWrites();
        return {written.get(), error};
    }
    auto uploadPack(std::shared_ptr<Repository> repository) {
        return [this, repository](GitSocket& socket) {
            return UploadPack(socket, repository, backend.fetcher());
        };
    }
    auto receivePack(std::shared_ptr<Repository> repository) {
        return [this, repository](GitSocket& socket) {
            return ReceivePack(socket, repository, backend);
        };
    }
};

TEST_F(Commands, UploadPackAdvertisesNegotiatesAndSendsOnePack) {
    auto repository = storedRepository();
    auto head = std::optional<std::string>("refs/heads/main");
    auto [advertised, error] = exchange(uploadPack(repository), "0000");
    EXPECT_EQ(advertised,
              pktLine(commit.id() + " HEAD" + '\0' + UploadPack::capabilityText(head) + "\n") +
                  pktLine(commit.id() + " refs/heads/main\n") + "0000");
    EXPECT_EQ(error, "");
    EXPECT_NE(UploadPack::capabilityText(head).find("side-band-64k"), std::string::npos);

    // An unknown have, a flush, then done: NAK for the batch, NAK at the end, then the pack.
    std::string client = pktLine("want " + commit.id() + " side-band-64k\n") + "0000" +
                         pktLine("have " + std::string(40, 'e') + "\n") + "0000" +
                         pktLine("done\n");
    auto [sent, failure] = exchange(uploadPack(repository), client);
    EXPECT_EQ(failure, "");
    auto afterAdvertisement = sent.substr(advertised.size());
    ASSERT_TRUE(afterAdvertisement.starts_with(pktLine("NAK\n") + pktLine("NAK\n")))
        << afterAdvertisement.substr(0, 40);
    auto pack = afterAdvertisement.substr(2 * pktLine("NAK\n").size());
    EXPECT_EQ(pack.substr(4, 13), std::string("\x01PACK\0\0\0\2\0\0\0\3", 13));
    EXPECT_TRUE(pack.ends_with("0000"));

    // A have the repository knows is acknowledged at once.
    auto [acked, none] =
        exchange(uploadPack(repository), pktLine("want " + commit.id() + "\n") + "0000" +
                                             pktLine("have " + commit.id() + "\n") + "0000" +
                                             pktLine("done\n"));
    EXPECT_TRUE(acked.substr(advertised.size()).starts_with(pktLine("ACK " + commit.id() + "\n")))
        << acked.substr(advertised.size(), 60);

    // A want the repository does not have.
    std::string missing(40, 'd');
    auto [nothing, why] = exchange(uploadPack(repository),
                                   pktLine("want " + missing + "\n") + "0000" + pktLine("done\n"));
    EXPECT_EQ(why, "Commit " + missing + " not found on server");
}

TEST_F(Commands, ReceivePackAdvertisesReportsAndRefusesStalePushes) {
    std::string capabilities =
        "report-status delete-refs side-band-64k quiet atomic " + agentCapability();
    auto repository = storedRepository();
    std::string emptyPack("PACK\0\0\0\2\0\0\0\0", 12);

    // A new branch at a commit the repository has: an empty pack, the report as plain lines.
    auto [written, error] =
        exchange(receivePack(repository),
                 pktLine(zeroId + " " + commit.id() + " refs/heads/dev" + '\0' + "report-status") +
                     "0000" + emptyPack);
    EXPECT_EQ(error, "");
    std::string advertisement =
        pktLine(commit.id() + " refs/heads/main" + '\0' + capabilities + "\n") + "0000";
    EXPECT_EQ(written, advertisement + pktLine("unpack ok\n") + pktLine("ok refs/heads/dev\n") +
                           "0000" + "0000");
    auto reloaded = backend.fetchRepository("tools", "__defaultOwner__");
    EXPECT_EQ(reloaded->content()->refs.at("refs/heads/dev"), commit.id());
    auto before = backend.fetchRepository("tools", "__defaultOwner__");

    // With a side-band the report travels on band 1; a delete needs no pack at all.
    auto [banded, none] =
        exchange(receivePack(reloaded), pktLine(commit.id() + " " + zeroId + " refs/heads/dev" +
                                                '\0' + "report-status side-band-64k agent=git/2") +
                                            "0000");
    EXPECT_EQ(none, "");
    EXPECT_EQ(
        banded.substr(banded.find("0000") + 4),
        band('\x01', pktLine("unpack ok\n") + pktLine("ok refs/heads/dev\n") + "0000") + "0000");

    // A push from a copy read before that delete passes its own check, is refused by the store,
    // and fails against the repository as stored. An empty repository advertises no reference.
    auto [refused, why] = exchange(
        receivePack(before),
        pktLine(commit.id() + " " + zeroId + " refs/heads/dev" + '\0' + "report-status") + "0000");
    EXPECT_EQ(why, "Remote repository has been updated");

    auto [offered, bad] = exchange(receivePack(std::make_shared<Repository>("empty")),
                                   pktLine("0123 4567 refs/heads/x") + "0000");
    EXPECT_EQ(offered, pktLine(zeroId + " capabilities^{}" + '\0' + capabilities + "\n") + "0000");
    EXPECT_EQ(bad, "Invalid receive-pack command");
}

TEST_F(Commands, ReceivePackReportsTheUploadOnBandTwo) {
    auto repository = storedRepository();
    Object added(ObjectType::blob, toBytes("new content\n"));
    std::string pack("PACK\0\0\0\2\0\0\0\1", 12);
    pack += asText(PackWriter::entryHeader(ObjectType::blob, added.data().size()));
    pack += asText(zlibDeflate(added.data()));
    pack += std::string(20, '\0');  // the trailer is not checked: every object is, by its id
    auto [written, error] =
        exchange(receivePack(repository), pktLine(zeroId + " " + added.id() + " refs/heads/blob" +
                                                  '\0' + "report-status side-band-64k") +
                                              "0000" + pack);
    EXPECT_EQ(error, "");
    auto afterAdvertisement = written.substr(written.find("0000") + 4);
    EXPECT_EQ(afterAdvertisement,
              band('\x02', "Uploading 1 objects to the cloud \r") +
                  band('\x02', "Uploading 1 objects to the cloud: 100%  \r") +
                  band('\x02', "Uploading 1 objects to the cloud: done\n") +
                  band('\x01', pktLine("unpack ok\n") + pktLine("ok refs/heads/blob\n") + "0000") +
                  "0000");
    auto stored = backend.fetchRepository("tools", "__defaultOwner__");
    EXPECT_EQ(stored->content()->blobs.at(added.id()), 12);
    // Kept as it came, in one stored pack.
    ASSERT_EQ(stored->content()->packs.size(), 1u);
    EXPECT_TRUE(isStoredPackName(stored->content()->packs.begin()->first));
}

}  // namespace
}  // namespace corvane
