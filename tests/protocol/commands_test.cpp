// UploadPack and ReceivePack byte for byte: what each writes for given client lines, over a
// real store and object cache.
#include <gtest/gtest.h>

#include <zlib.h>

#include <future>

#include "objects/sha1.h"
#include "objects/zlib.h"
#include "protocol/pack_writer.h"
#include "protocol/receive_pack.h"
#include "protocol/upload_pack.h"
#include "socket_pair.h"
#include "storage/cloud_fixture.h"
#include "storage/stored_pack.h"
#include "support/deltas.h"
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

// The entries of a pack as (type, the base a ref-delta names), read the way a client does.
std::vector<std::pair<int, std::string>> packEntries(const std::string& pack) {
    std::vector<std::pair<int, std::string>> entries;
    auto bytes = asBytes(pack);
    std::size_t at = 12;
    for (std::uint32_t count = (bytes[8] << 24) | (bytes[9] << 16) | (bytes[10] << 8) | bytes[11];
         count > 0; --count) {
        std::uint8_t byte = bytes[at++];
        int type = (byte >> 4) & 7;
        while (byte & 0x80)
            byte = bytes[at++];
        std::string base;
        if (type == 6) {
            while (bytes[at++] & 0x80) {
            }
        } else if (type == 7) {
            base = hexString(bytes.subspan(at, 20));
            at += 20;
        }
        z_stream stream{};
        inflateInit(&stream);
        std::uint8_t out[4096];
        stream.next_in = const_cast<std::uint8_t*>(bytes.data() + at);
        stream.avail_in = static_cast<uInt>(bytes.size() - at);
        int status = Z_OK;
        while (status == Z_OK) {
            stream.next_out = out;
            stream.avail_out = sizeof out;
            status = inflate(&stream, Z_NO_FLUSH);
        }
        EXPECT_EQ(status, Z_STREAM_END);
        at += stream.total_in;
        inflateEnd(&stream);
        entries.emplace_back(type, base);
    }
    return entries;
}

TEST_F(Commands, StoredDeltasGoOutAsTheClientAsked) {
    // A push whose new blob is a delta on the blob the repository has (a thin pack).
    auto repository = storedRepository();
    Object changed(ObjectType::blob, toBytes("hello\nworld\n"));
    Object changedTree(ObjectType::tree, treeWith(changed));
    Object next(ObjectType::commit,
                toBytes("tree " + changedTree.id() + "\nparent " + commit.id() +
                        "\nauthor A <a@x> 2 +0000\ncommitter A <a@x> 2 +0000\n\nsecond\n"));
    std::string pack("PACK\0\0\0\2\0\0\0\3", 12);
    for (const auto* object : {&next, &changedTree}) {
        pack += asText(packEntryHeader(object->type(), object->data().size()));
        pack += asText(zlibDeflate(object->data()));
    }
    Bytes delta = testing::makeDelta(blob, changed);
    pack += asText(packEntryHeader(ObjectType::refDelta, delta.size()));
    pack += asText(digestOfId(blob.id()));
    pack += asText(zlibDeflate(delta));
    pack += std::string(20, '\0');
    auto [pushed, refused] = exchange(
        receivePack(repository),
        pktLine(commit.id() + " " + next.id() + " refs/heads/main" + '\0' + "report-status") +
            "0000" + pack);
    ASSERT_EQ(refused, "");
    auto stored = backend.fetchRepository("tools", "__defaultOwner__");

    auto fetch = [&](const std::string& capabilities, bool withHave) {
        std::string client = pktLine("want " + next.id() + " " + capabilities + "\n") + "0000";
        if (withHave) client += pktLine("have " + commit.id() + "\n");
        auto [sent, error] = exchange(uploadPack(stored), client + pktLine("done\n"));
        EXPECT_EQ(error, "");
        auto start = sent.find("PACK");
        return start == std::string::npos ? decltype(packEntries(sent)){}
                                          : packEntries(sent.substr(start));
    };
    auto deltaOf = [](const auto& entries) {
        std::pair<int, std::string> found{0, ""};
        for (const auto& entry : entries) {
            if (entry.first >= 6) found = entry;
        }
        return found;
    };
    // A whole clone: the delta follows its base, pointing back at it, or naming it.
    auto clone = fetch("ofs-delta", false);
    EXPECT_EQ(clone.size(), 6u);
    EXPECT_EQ(deltaOf(clone).first, 6);
    EXPECT_EQ(deltaOf(fetch("", false)), (std::pair<int, std::string>{7, blob.id()}));
    // A fetch from the first commit: thin, the delta names the base the client has; not thin,
    // the blob goes whole.
    auto thin = fetch("ofs-delta thin-pack", true);
    EXPECT_EQ(thin.size(), 3u);
    EXPECT_EQ(deltaOf(thin), (std::pair<int, std::string>{7, blob.id()}));
    auto whole = fetch("ofs-delta", true);
    EXPECT_EQ(whole.size(), 3u);
    EXPECT_EQ(deltaOf(whole).first, 0);
}

TEST_F(Commands, ReceivePackReportsTheUploadOnBandTwo) {
    auto repository = storedRepository();
    Object added(ObjectType::blob, toBytes("new content\n"));
    std::string pack("PACK\0\0\0\2\0\0\0\1", 12);
    pack += asText(packEntryHeader(ObjectType::blob, added.data().size()));
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
