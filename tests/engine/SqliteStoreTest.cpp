// The SQLite store keeps its state across closing and reopening: clients in
// their order, cursors, waiting events in theirs, sequences; and refuses a file
// of another layout.
#include "engine/SqliteStore.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>

namespace {

using namespace Arvant::Net::AvQuorvel::Engine;
using Lines = std::vector<std::string>;

class SqliteStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/quorvel-sqlite-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::permissions(directory, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(directory, ignored);
    }
    Lines take(Store& store, const std::string& client) {
        std::vector<StoredEvent> events;
        store.read("S", client, std::nullopt, events);
        if (!events.empty()) {
            store.acknowledge("S", client, events.back().sequence);
        }
        Lines shown;
        for (const StoredEvent& event : events) {
            shown.push_back(event.sender + "|" + std::to_string(event.sequence) + "|" +
                            *event.text);
        }
        return shown;
    }

    std::string directory;
};

TEST_F(SqliteStoreTest, StateSurvivesReopening) {
    ServiceLimits limits;
    limits.maxQueuedEventsPerClient = 4;
    Lines clients;
    {
        SqliteStore store(directory, limits);
        for (const char* client : {"c", "a", "b"}) {
            store.registerClient("S", client, clients);
        }
        store.post("S", "a", "one", "", clients);
        store.post("S", "c", "two", "", clients);
        std::vector<StoredEvent> unacknowledged;
        store.read("S", "b", std::nullopt, unacknowledged);
        store.acknowledge("S", "c", 1);
        store.post("S", "a", "three", "", clients);
        store.post("S", "a", "four", "", clients);
    }
    {
        SqliteStore store(directory, limits);
        store.clients("S", clients);
        EXPECT_EQ(clients, (Lines{"c", "a", "b"}));
        EXPECT_EQ(store.stats().waitingEvents, 4u + 2u + 1u);
        Lines none;
        EXPECT_THROW(store.post("S", "a", "over", "", none), Failure);  // b's limit held
    }
    SqliteStore store(directory, limits);
    EXPECT_EQ(take(store, "b"), (Lines{"a|1|one", "c|2|two", "a|3|three", "a|4|four"}));
    EXPECT_EQ(take(store, "c"), (Lines{"a|3|three", "a|4|four"}));
    store.post("S", "b", "six", "", clients);  // the sequence goes on
    EXPECT_EQ(take(store, "a"), (Lines{"c|2|two", "b|5|six"}));
    const StoreStats stats = store.stats();
    EXPECT_EQ(stats.registeredClients, 3u);
    EXPECT_EQ(stats.waitingEvents, 1u);  // c: six
}

// A directory that cannot be made is a Limit failure naming the cause.
TEST_F(SqliteStoreTest, AFileInTheWayIsAClearFailure) {
    const std::string file = directory + "/file";
    {
        FILE* f = fopen(file.c_str(), "w");
        ASSERT_NE(f, nullptr);
        fclose(f);
    }
    try {
        SqliteStore store(file, ServiceLimits{});
        ADD_FAILURE() << "a store in place of a file";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.kind, FailureKind::Limit);
        EXPECT_NE(failure.message.find("its store failed"), std::string::npos) << failure.message;
    }
}

// The store's files are its owner's alone: a directory it makes is 0700, the
// database and its -wal file 0600, and a database found wider is narrowed. A
// file of another layout (one written before layouts had versions, or by a
// later build) is refused, naming the file, its version and what to do.
TEST_F(SqliteStoreTest, FilesArePrivateAndOtherLayoutsAreRefused) {
    auto mode = [](const std::string& path) {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 0777;
    };
    const std::string made = directory + "/made";
    const std::string file = SqliteStore::databasePath(made);
    Lines clients;
    {
        SqliteStore store(made, ServiceLimits());
        store.registerClient("S", "a", clients);
        store.registerClient("S", "b", clients);
        store.post("S", "a", "x", "", clients);
        EXPECT_EQ(mode(made), 0700u);
        for (const std::string& path : {file, file + "-wal"}) {  // no -shm: exclusive mode
            EXPECT_EQ(mode(path), 0600u) << path;
        }
    }
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    {
        SqliteStore store(made, ServiceLimits());
        EXPECT_EQ(mode(file), 0600u);
        EXPECT_EQ(store.stats().waitingEvents, 1u);
    }
    for (const char* version : {"0", "3"}) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, (std::string("PRAGMA user_version = ") + version).c_str(),
                               nullptr, nullptr, nullptr),
                  SQLITE_OK);
        sqlite3_close(db);
        try {
            SqliteStore store(made, ServiceLimits());
            ADD_FAILURE() << "version " << version << " opened";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.kind, FailureKind::Limit);
            for (const std::string& part :
                 {file + " has layout version " + version, std::string("move it aside")}) {
                EXPECT_NE(failure.message.find(part), std::string::npos) << failure.message;
            }
        }
    }
}

}  // namespace
