// The SQLite store keeps its state across closing and reopening: clients in
// their order, cursors, waiting events in theirs, sequences; and refuses a file
// of another layout.
#include "engine/SqliteStore.h"

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/stat.h>

#include "engine/StoreLines.h"
#include "support/TempDir.h"

namespace {

using namespace Arvant::Net::AvQuorvel::Engine;

class SqliteStoreTest : public ::testing::Test {
protected:
    // The client's events, acknowledged when take is set.
    static Lines events(Store& store, const std::string& client, bool take = true) {
        return readLines(store, "S", client, std::nullopt, take);
    }
    // Runs statements on the database file of a closed store.
    static void sql(const std::string& file, const std::string& statements) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, statements.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }

    TempDir scratch;
    const std::string directory = scratch.path;
};

TEST_F(SqliteStoreTest, StateSurvivesReopening) {
    ServiceLimits limits;
    limits.maxQueuedEventsPerClient = 4;
    Lines clients;
    {
        SqliteStore store(directory, limits);
        registerAll(store, "S", {"c", "a", "b"});
        store.post("S", "a", "one", "", clients);
        store.post("S", "c", "two", "", clients);
        events(store, "b", false);
        store.acknowledge("S", "c", 1);
        store.post("S", "a", "three", "", clients);
        store.post("S", "a", "four", "", clients);
    }
    SqliteStore store(directory, limits);
    store.clients("S", clients);
    EXPECT_EQ(clients, (Lines{"c", "a", "b"}));
    EXPECT_EQ(store.stats().waitingEvents, 4u + 2u + 1u);
    EXPECT_THROW(store.post("S", "a", "over", "", clients), Failure);  // b's limit held
    EXPECT_EQ(events(store, "b"), (Lines{"a|1|one", "c|2|two", "a|3|three", "a|4|four"}));
    EXPECT_EQ(events(store, "c"), (Lines{"a|3|three", "a|4|four"}));
    store.post("S", "b", "six", "", clients);  // the sequence goes on
    EXPECT_EQ(events(store, "a"), (Lines{"c|2|two", "b|5|six"}));
}

// Each operation is one transaction: a failure between its statements (a
// trigger of the test's own fails the second write of a post, and the event
// deletion that follows an acknowledgement's cursor move) leaves nothing of it.
TEST_F(SqliteStoreTest, AFailureBetweenStatementsLeavesTheStateWhole) {
    Lines clients;
    {
        SqliteStore store(directory, ServiceLimits{});
        registerAll(store, "S", {"a", "b"});
        store.post("S", "a", "one", "", clients);
    }
    // The store holds its file alone while it is open.
    sql(SqliteStore::databasePath(directory),
        "CREATE TRIGGER failPost BEFORE UPDATE ON servers WHEN EXISTS "
        "(SELECT 1 FROM events WHERE text = CAST('fail' AS BLOB)) BEGIN SELECT RAISE(ABORT, "
        "'injected'); END;"
        "CREATE TRIGGER failDrop BEFORE DELETE ON events WHEN OLD.text = CAST('one' AS BLOB) "
        "BEGIN SELECT RAISE(ABORT, 'injected'); END;");
    SqliteStore store(directory, ServiceLimits{});
    EXPECT_THROW(store.post("S", "a", "fail", "", clients), Failure);
    EXPECT_THROW(store.acknowledge("S", "b", 1), Failure);
    store.post("S", "a", "two", "", clients);
    EXPECT_EQ(events(store, "b", false), (Lines{"a|1|one", "a|2|two"}));
    EXPECT_EQ(store.stats().waitingEvents, 2u);
}

// The store's files are its owner's alone (its directory is the daemon's
// test): the database and its -wal file 0600, and a database found wider is narrowed. A
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
        registerAll(store, "S", {"a", "b"});
        store.post("S", "a", "x", "", clients);
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
    // Another layout, or a directory that cannot be made: a Limit failure naming the cause.
    for (const std::string version : {"0", "3", ""}) {
        if (!version.empty()) {
            sql(file, "PRAGMA user_version = " + version);
        }
        try {
            SqliteStore store(version.empty() ? scratch.file("file", "") : made, ServiceLimits());
            ADD_FAILURE() << "opened " << version;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.kind, FailureKind::Limit);
            EXPECT_NE(
                failure.message.find(version.empty() ? "its store failed"
                                                     : file + " has layout version " + version),
                std::string::npos)
                << failure.message;
        }
    }
}

}  // namespace
