#include "engine/SqliteStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <new>
#include <system_error>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

// Thrown inside the store when SQLite fails; a Failure at its edge.
struct SqliteError {
    std::string cause;
};

// What failed, in SQLite's words, with the step that failed for I/O errors and
// the system's reason when SQLite kept it.
std::string describe(sqlite3* db, int code) {
    if (db == nullptr) {
        return sqlite3_errstr(code);
    }
    std::string cause = sqlite3_errmsg(db);
    switch (sqlite3_extended_errcode(db)) {
        case SQLITE_IOERR_WRITE:
            cause += ", writing the file failed: is the disk full or the file too large?";
            break;
        case SQLITE_IOERR_FSYNC:
        case SQLITE_IOERR_DIR_FSYNC:
            cause += ", flushing the file to disk failed";
            break;
        case SQLITE_IOERR_READ:
        case SQLITE_IOERR_SHORT_READ:
            cause += ", reading the file failed";
            break;
        case SQLITE_IOERR_TRUNCATE:
            cause += ", truncating the file failed";
            break;
        default:
            break;
    }
    const int systemError = sqlite3_system_errno(db);
    if (systemError != 0) {
        char buffer[256];
        cause += std::string(" (") + strerror_r(systemError, buffer, sizeof buffer) + ")";
    }
    return cause;
}

// A post is one row, whatever the number of recipients: each client has a
// cursor, the sequence number up to which it has taken the server's events,
// and its queue is the server's events after its cursor that others posted,
// preceded by the events given back to it (table returned, in position order).
// Events every client's cursor has passed are deleted.
//
// The waiting counts come from running totals, so that a post writes the
// server's row, the sender's row and the event, and no row of a recipient:
// waiting = (posted - seen) - own + returned, where posted counts the
// server's stored events since it began, seen is posted when the client's
// cursor last moved, own counts the client's own posts since then. Bytes alike.
// Clients are rows in registration order (a new row's id is above every id in
// use).
const char* const kSchema = R"(
CREATE TABLE IF NOT EXISTS servers(
    name TEXT PRIMARY KEY,
    next_sequence INTEGER NOT NULL,
    posted_count INTEGER NOT NULL,
    posted_bytes INTEGER NOT NULL
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS clients(
    id INTEGER PRIMARY KEY,
    server TEXT NOT NULL,
    name TEXT NOT NULL,
    cursor INTEGER NOT NULL,
    seen_count INTEGER NOT NULL,
    seen_bytes INTEGER NOT NULL,
    own_count INTEGER NOT NULL DEFAULT 0,
    own_bytes INTEGER NOT NULL DEFAULT 0,
    returned_count INTEGER NOT NULL DEFAULT 0,
    returned_bytes INTEGER NOT NULL DEFAULT 0,
    registered_ms INTEGER NOT NULL DEFAULT 0,
    last_fetch_ms INTEGER NOT NULL DEFAULT 0,
    UNIQUE(server, name)
);
CREATE TABLE IF NOT EXISTS events(
    server TEXT NOT NULL,
    sequence INTEGER NOT NULL,
    sender INTEGER NOT NULL,
    sender_name TEXT NOT NULL,
    text BLOB NOT NULL,
    PRIMARY KEY(server, sequence)
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS returned(
    client INTEGER NOT NULL,
    position INTEGER NOT NULL,
    sender_name TEXT NOT NULL,
    sequence INTEGER NOT NULL,
    text BLOB NOT NULL,
    PRIMARY KEY(client, position)
) WITHOUT ROWID;
)";

// Databases written before clients had times lack their columns; their clients
// count as registered when the columns are added, so that none looks idle for
// as long as the database was closed.
const char* const kAddTimes = R"(
ALTER TABLE clients ADD COLUMN registered_ms INTEGER NOT NULL DEFAULT 0;
ALTER TABLE clients ADD COLUMN last_fetch_ms INTEGER NOT NULL DEFAULT 0;
)";

// What listClients and expireIdleClients tell of a client, from `clients c JOIN
// servers s`.
#define AVQVL_CLIENT_INFO                                              \
    "SELECT c.server, c.name, "                                        \
    "s.posted_count - c.seen_count - c.own_count + c.returned_count, " \
    "s.posted_bytes - c.seen_bytes - c.own_bytes + c.returned_bytes, " \
    "c.registered_ms, c.last_fetch_ms, c.id FROM clients c JOIN servers s ON s.name = c.server "

// A prepared statement, kept for the life of the connection.
class Statement {
public:
    Statement(sqlite3* db, const char* sql) : db(db) {
        const int code =
            sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
        if (code != SQLITE_OK) {
            throw SqliteError{describe(db, code)};
        }
    }
    ~Statement() { sqlite3_finalize(statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    sqlite3* const db;
    sqlite3_stmt* statement = nullptr;
};

// One use of a statement: bind, step, read; reset when it goes, so that no
// statement keeps a read open past its transaction. Strings bound must outlive
// the use.
class Query {
public:
    explicit Query(Statement& statement) : db(statement.db), statement(statement.statement) {}
    ~Query() {
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& text(int index, const std::string& value) {
        check(sqlite3_bind_text(statement, index, value.data(), static_cast<int>(value.size()),
                                SQLITE_STATIC));
        return *this;
    }
    Query& blob(int index, const std::string& value) {
        check(sqlite3_bind_blob64(statement, index, value.data(), value.size(), SQLITE_STATIC));
        return *this;
    }
    Query& number(int index, std::int64_t value) {
        check(sqlite3_bind_int64(statement, index, value));
        return *this;
    }
    // True with a row to read, false when done.
    bool step() {
        const int code = sqlite3_step(statement);
        if (code == SQLITE_ROW) {
            return true;
        }
        if (code != SQLITE_DONE) {
            throw SqliteError{describe(db, code)};
        }
        return false;
    }
    void run() {
        while (step()) {
        }
    }
    // The sum of the first column over every row (bytes a DELETE ... RETURNING removed).
    std::int64_t sum() {
        std::int64_t total = 0;
        while (step()) {
            total += number(0);
        }
        return total;
    }
    std::int64_t number(int column) { return sqlite3_column_int64(statement, column); }
    std::string text(int column) {
        const void* bytes = sqlite3_column_blob(statement, column);
        const int size = sqlite3_column_bytes(statement, column);
        return bytes == nullptr ? std::string()
                                : std::string(static_cast<const char*>(bytes), size);
    }

private:
    void check(int code) {
        if (code != SQLITE_OK) {
            throw SqliteError{describe(db, code)};
        }
    }

    sqlite3* const db;
    sqlite3_stmt* const statement;
};

void execute(sqlite3* db, const char* sql) {
    char* message = nullptr;
    const int code = sqlite3_exec(db, sql, nullptr, nullptr, &message);
    if (code != SQLITE_OK) {
        std::string cause = message != nullptr ? message : sqlite3_errstr(code);
        sqlite3_free(message);
        throw SqliteError{cause};
    }
}

// Owns the connection; the last member to go, after every statement on it.
struct Connection {
    explicit Connection(sqlite3* handle) : handle(handle) {}
    ~Connection() { sqlite3_close_v2(handle); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    sqlite3* const handle;
};

sqlite3* openDatabase(const std::string& path) {
    sqlite3* db = nullptr;
    const int code = sqlite3_open_v2(
        path.c_str(), &db,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,  // SqliteStore locks
        nullptr);
    if (code != SQLITE_OK) {
        const std::string cause = describe(db, code);
        sqlite3_close(db);
        throw SqliteError{cause};
    }
    sqlite3_extended_result_codes(db, 1);
    return db;
}

// The database file is made 0600 before SQLite opens it, so that SQLite, which
// gives its -wal and -shm files the database's mode, makes those 0600 too. A
// file found with wider modes is narrowed (with its -wal and -shm), on the
// ground that the store is the file's only user; when that is not allowed (the
// file is someone else's), it opens as it is.
void keepPrivate(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
        ::close(fd);  // an empty file is an empty database
        return;
    }
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const std::string file = path + suffix;
        struct stat status {};
        if (::stat(file.c_str(), &status) == 0 && (status.st_mode & 077) != 0) {
            ::chmod(file.c_str(), status.st_mode & 0700);
        }
    }
}

}  // namespace

struct SqliteStore::Database {
    Database(const std::string& path, Sync sync)
        : connection(openDatabase(path)),
          handle(connection.handle),
          ready(configure(handle, sync)),
          begin(handle, "BEGIN IMMEDIATE"),
          commit(handle, "COMMIT"),
          // A client as the server sees it: its row, what waits for it, and the
          // server's next sequence number.
          findClient(handle,
                     "SELECT c.id, "
                     "s.posted_count - c.seen_count - c.own_count + c.returned_count, "
                     "s.posted_count - c.seen_count - c.own_count, "
                     "s.next_sequence, c.cursor, c.returned_count "
                     "FROM clients c JOIN servers s ON s.name = c.server "
                     "WHERE c.server = ?1 AND c.name = ?2"),
          listClients(handle, "SELECT name FROM clients WHERE server = ?1 ORDER BY id"),
          countClients(handle, "SELECT count(*) FROM clients WHERE server = ?1"),
          addServer(handle,
                    "INSERT OR IGNORE INTO servers(name, next_sequence, posted_count, "
                    "posted_bytes) VALUES(?1, 1, 0, 0)"),
          addClient(handle,
                    "INSERT INTO clients(server, name, cursor, seen_count, seen_bytes, "
                    "registered_ms) SELECT ?1, ?2, next_sequence - 1, posted_count, "
                    "posted_bytes, ?3 FROM servers WHERE name = ?1"),
          removeClient(handle, "DELETE FROM clients WHERE id = ?1"),
          removeReturned(handle, "DELETE FROM returned WHERE client = ?1 RETURNING length(text)"),
          removeEmptyServer(handle,
                            "DELETE FROM servers WHERE name = ?1 AND NOT EXISTS "
                            "(SELECT 1 FROM clients WHERE server = ?1)"),
          removeServerEvents(handle,
                             "DELETE FROM events WHERE server = ?1 AND NOT EXISTS "
                             "(SELECT 1 FROM servers WHERE name = ?1) RETURNING length(text)"),
          dropTakenEvents(handle,
                          "DELETE FROM events WHERE server = ?1 AND sequence <= "
                          "(SELECT min(cursor) FROM clients WHERE server = ?1) "
                          "RETURNING length(text)"),
          clientsWaiting(handle,
                         "SELECT c.id, c.name, "
                         "s.posted_count - c.seen_count - c.own_count + c.returned_count, "
                         "s.posted_bytes - c.seen_bytes - c.own_bytes + c.returned_bytes "
                         "FROM clients c JOIN servers s ON s.name = c.server "
                         "WHERE c.server = ?1 ORDER BY c.id"),
          addEvent(handle,
                   "INSERT INTO events(server, sequence, sender, sender_name, text) "
                   "VALUES(?1, ?2, ?3, ?4, ?5)"),
          countPost(handle,
                    "UPDATE servers SET next_sequence = next_sequence + 1, "
                    "posted_count = posted_count + ?2, posted_bytes = posted_bytes + ?3 "
                    "WHERE name = ?1"),
          countOwnPost(handle,
                       "UPDATE clients SET own_count = own_count + 1, "
                       "own_bytes = own_bytes + ?2 WHERE id = ?1"),
          // The cursor to the server's newest event: all taken, or none waiting.
          catchUp(handle,
                  "UPDATE clients SET (cursor, seen_count, seen_bytes, own_count, own_bytes) = "
                  "(SELECT next_sequence - 1, posted_count, posted_bytes, 0, 0 FROM servers "
                  "WHERE name = clients.server) WHERE id = ?1"),
          markFetch(handle, "UPDATE clients SET last_fetch_ms = ?2 WHERE id = ?1"),
          clearReturned(handle,
                        "UPDATE clients SET returned_count = 0, returned_bytes = 0 WHERE id = ?1"),
          returnedEvents(handle,
                         "SELECT sender_name, sequence, text FROM returned WHERE client = ?1 "
                         "ORDER BY position"),
          waitingEvents(handle,
                        "SELECT sender_name, sequence, text FROM events WHERE server = ?1 AND "
                        "sequence > ?2 AND sender <> ?3 ORDER BY sequence"),
          headPosition(handle, "SELECT coalesce(min(position), 0) FROM returned WHERE client = ?1"),
          addReturned(handle,
                      "INSERT INTO returned(client, position, sender_name, sequence, text) "
                      "VALUES(?1, ?2, ?3, ?4, ?5)"),
          countReturned(handle,
                        "UPDATE clients SET returned_count = returned_count + ?2, "
                        "returned_bytes = returned_bytes + ?3 WHERE id = ?1"),
          totals(
              handle,
              "SELECT count(*), "
              "coalesce(sum(s.posted_count - c.seen_count - c.own_count + c.returned_count), 0), "
              "coalesce(sum(s.posted_bytes - c.seen_bytes - c.own_bytes + c.returned_bytes), 0) "
              "FROM clients c JOIN servers s ON s.name = c.server"),
          listInfo(handle,
                   AVQVL_CLIENT_INFO "WHERE ?1 = '' OR c.server = ?1 ORDER BY c.server, c.id"),
          probe(handle, "SELECT count(*) FROM (SELECT 1 FROM servers LIMIT 1)"),
          storedBytes(countStored(handle)) {}

    static bool configure(sqlite3* db, Sync sync) {
        // The file belongs to this connection until it closes: a second daemon
        // on the same directory waits this long at its start, then fails; and
        // SQLite takes no file lock per transaction.
        sqlite3_busy_timeout(db, 2000);
        execute(db, "PRAGMA locking_mode = EXCLUSIVE");
        execute(db, "PRAGMA journal_mode = WAL");
        execute(db,
                sync == Sync::Full ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
        execute(db, kSchema);
        if (!hasColumn(db, "clients", "registered_ms")) {
            execute(db, "BEGIN IMMEDIATE");
            execute(db, kAddTimes);
            Statement stamp(db, "UPDATE clients SET registered_ms = ?1");
            Query(stamp).number(1, epochMilliseconds()).run();
            execute(db, "COMMIT");
        }
        return true;
    }

    static bool hasColumn(sqlite3* db, const char* table, const char* column) {
        Statement columns(db, "SELECT 1 FROM pragma_table_info(?1) WHERE name = ?2");
        Query query(columns);
        return query.text(1, table).text(2, column).step();
    }

    // The bytes of event text held, each text once: an event row serves every
    // recipient, a given-back row one client.
    static std::int64_t countStored(sqlite3* db) {
        Statement stored(db,
                         "SELECT (SELECT coalesce(sum(length(text)), 0) FROM events) + "
                         "(SELECT coalesce(sum(length(text)), 0) FROM returned)");
        Query query(stored);
        query.step();
        return query.number(0);
    }

    // Removes the client row, what was given back to it, and the events no one
    // waits for any more (all of its server's, when it was the last client).
    void remove(std::int64_t client, const std::string& serverId) {
        fetchedMs.erase(client);  // row ids are used again
        storedBytes -= Query(removeReturned).number(1, client).sum();
        Query(removeClient).number(1, client).run();
        // The sequence restarts with the server's next first client.
        Query(removeEmptyServer).text(1, serverId).run();
        storedBytes -= Query(removeServerEvents).text(1, serverId).sum();
        storedBytes -= Query(dropTakenEvents).text(1, serverId).sum();
    }

    static ClientInfo readInfo(Query& query) {
        return ClientInfo{query.text(0),
                          query.text(1),
                          static_cast<std::uint64_t>(query.number(2)),
                          static_cast<std::uint64_t>(query.number(3)),
                          query.number(4),
                          query.number(5)};
    }

    void list(const std::string& serverId, ClientList& clients) {
        ClientList names;
        Query query(listClients);
        query.text(1, serverId);
        while (query.step()) {
            names.push_back(query.text(0));
        }
        clients.swap(names);
    }

    Connection connection;
    sqlite3* const handle;
    const bool ready;
    Statement begin, commit;
    Statement findClient, listClients, countClients, addServer, addClient, removeClient,
        removeReturned, removeEmptyServer, removeServerEvents, dropTakenEvents;
    Statement clientsWaiting, addEvent, countPost, countOwnPost, catchUp;
    Statement markFetch, clearReturned, returnedEvents, waitingEvents, headPosition, addReturned,
        countReturned, totals, listInfo, probe;
    // The store holds the file alone (exclusive locking), so the count kept
    // here stays true; transaction() puts it back when one rolls back.
    std::int64_t storedBytes;
    // Fetch times newer than the file's: an empty poll writes nothing (it must
    // go on working when the disk is full), so its time is kept here, by client
    // row. After the store opens again, every client counts as having fetched
    // when it opened (openedMs), so that none is expired for the downtime.
    std::map<std::int64_t, std::int64_t> fetchedMs;
    const std::int64_t openedMs = epochMilliseconds();

    // A listed client with its fetch time brought up to date; row is its row.
    ClientInfo current(Query& query, std::int64_t& row) {
        ClientInfo info = readInfo(query);
        row = query.number(6);
        auto fetched = fetchedMs.find(row);
        if (fetched != fetchedMs.end() && fetched->second > info.lastFetchMs) {
            info.lastFetchMs = fetched->second;
        }
        return info;
    }
};

std::string SqliteStore::databasePath(const std::string& directory) {
    return (std::filesystem::path(directory) / "quorvel.sqlite3").string();
}

SqliteStore::SqliteStore(const std::string& directory, const ServiceLimits& limits, Sync sync)
    : Store(limits), path(databasePath(directory)) {
    std::error_code error;
    if (std::filesystem::create_directories(directory, error)) {
        // The events are the clients' own: no one else on the machine reads them.
        std::filesystem::permissions(directory, std::filesystem::perms::owner_all, error);
    }
    if (error) {
        throw Failure{FailureKind::Limit,
                      storeFailedMessage("make the directory " + directory, error.message())};
    }
    try {
        keepPrivate(path);
        db = std::make_unique<Database>(path, sync);
    } catch (const SqliteError& failure) {
        throw Failure{FailureKind::Limit,
                      storeFailedMessage("open the database " + path, failure.cause)};
    }
}

SqliteStore::~SqliteStore() = default;

// Runs operation in one transaction under the lock. Whatever leaves it (a
// refusal, an SQLite failure, running out of memory) rolls everything back.
template <typename Operation>
void SqliteStore::transaction(const char* action, Operation operation) {
    std::lock_guard<std::mutex> lock(mutex);
    const std::int64_t storedBefore = db->storedBytes;
    struct Restore {
        Database& db;
        std::int64_t stored;
        bool committed = false;
        ~Restore() {
            if (!committed) {
                db.storedBytes = stored;
            }
        }
    } restore{*db, storedBefore};
    try {
        Query(db->begin).run();
        operation();
        Query(db->commit).run();
        restore.committed = true;
        return;
    } catch (const Failure&) {
        sqlite3_exec(db->handle, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    } catch (const SqliteError& failure) {
        // SQLite may have rolled back already (a full disk, an I/O error).
        if (!sqlite3_get_autocommit(db->handle)) {
            sqlite3_exec(db->handle, "ROLLBACK", nullptr, nullptr, nullptr);
        }
        throw Failure{FailureKind::Limit, storeFailedMessage(action, failure.cause)};
    } catch (const std::bad_alloc&) {
        sqlite3_exec(db->handle, "ROLLBACK", nullptr, nullptr, nullptr);
        throw Failure{FailureKind::Limit, outOfMemoryMessage()};
    }
}

// Columns of findClient.
enum ClientColumn { kRow, kWaiting, kWaitingFromOthers, kNextSequence, kCursor, kReturned };

void SqliteStore::registerClient(const std::string& serverId, const std::string& clientId,
                                 ClientList& clients) {
    transaction("register the client", [&] {
        Query known(db->findClient);
        if (!known.text(1, serverId).text(2, clientId).step()) {
            Query count(db->countClients);
            count.text(1, serverId).step();
            const auto registered = static_cast<std::size_t>(count.number(0));
            if (registered >= limits().maxClientsPerServer) {
                throw Failure{FailureKind::Limit,
                              tooManyClientsMessage(serverId, clientId, registered)};
            }
            Query(db->addServer).text(1, serverId).run();
            Query(db->addClient)
                .text(1, serverId)
                .text(2, clientId)
                .number(3, epochMilliseconds())
                .run();
        }
        db->list(serverId, clients);
    });
}

void SqliteStore::unregisterClient(const std::string& serverId, const std::string& clientId,
                                   ClientList& remaining) {
    transaction("unregister the client", [&] {
        Query known(db->findClient);
        if (known.text(1, serverId).text(2, clientId).step()) {
            db->remove(known.number(kRow), serverId);
        }
        db->list(serverId, remaining);
    });
}

void SqliteStore::clients(const std::string& serverId, ClientList& clients) {
    transaction("list the clients", [&] { db->list(serverId, clients); });
}

void SqliteStore::listCheckingLimits(const std::string& serverId, const std::string& senderId,
                                     std::int64_t senderRow, std::size_t textBytes,
                                     ClientList& clients) {
    const ServiceLimits& limit = limits();
    Query listed(db->clientsWaiting);
    listed.text(1, serverId);
    while (listed.step()) {
        clients.push_back(listed.text(1));
        if (listed.number(0) == senderRow) {
            continue;
        }
        const auto events = static_cast<std::size_t>(listed.number(2));
        const auto bytes = static_cast<std::size_t>(listed.number(3));
        if (events >= limit.maxQueuedEventsPerClient) {
            throw Failure{FailureKind::Limit,
                          tooManyEventsMessage(serverId, senderId, clients.back(), events)};
        }
        if (bytes + textBytes > limit.maxQueuedBytesPerClient) {
            throw Failure{FailureKind::Limit,
                          tooManyBytesMessage(serverId, senderId, clients.back(), bytes, textBytes,
                                              limit.maxQueuedBytesPerClient)};
        }
    }
}

void SqliteStore::post(const std::string& serverId, const std::string& senderId,
                       const std::string& text, ClientList& clients) {
    transaction("queue the event", [&] {
        Query sender(db->findClient);
        if (!sender.text(1, serverId).text(2, senderId).step()) {
            throw Failure{FailureKind::Refused, notRegisteredMessage(serverId, senderId)};
        }
        const std::int64_t senderRow = sender.number(kRow);
        const std::int64_t size = static_cast<std::int64_t>(text.size());
        const ServiceLimits& limit = limits();
        ClientList after;
        listCheckingLimits(serverId, senderId, senderRow, text.size(), after);
        const bool othersListen = after.size() > 1;  // else the number alone is used up
        const auto held = static_cast<std::size_t>(db->storedBytes);
        if (othersListen && held + text.size() > limit.maxStoredBytes) {
            throw Failure{FailureKind::Limit,
                          tooManyStoredBytesMessage(serverId, senderId, held, text.size(),
                                                    limit.maxStoredBytes)};
        }
        if (othersListen) {
            db->storedBytes += size;
            Query(db->addEvent)
                .text(1, serverId)
                .number(2, sender.number(kNextSequence))
                .number(3, senderRow)
                .text(4, senderId)
                .blob(5, text)
                .run();
        }
        Query(db->countPost)
            .text(1, serverId)
            .number(2, othersListen ? 1 : 0)
            .number(3, othersListen ? size : 0)
            .run();
        if (sender.number(kWaitingFromOthers) == 0) {
            // Nothing of others waits for the sender: its cursor follows its own
            // posts, so that a client that posts and never takes keeps no event.
            Query(db->catchUp).number(1, senderRow).run();
        } else {
            Query(db->countOwnPost).number(1, senderRow).number(2, size).run();
        }
        clients.swap(after);
    });
}

void SqliteStore::take(const std::string& serverId, const std::string& clientId,
                       std::vector<StoredEvent>& events) {
    transaction("take the events", [&] {
        Query known(db->findClient);
        if (!known.text(1, serverId).text(2, clientId).step()) {
            throw Failure{FailureKind::Refused, notRegisteredMessage(serverId, clientId)};
        }
        std::vector<StoredEvent> taken;
        const std::int64_t client = known.number(kRow);
        const std::int64_t now = epochMilliseconds();
        db->fetchedMs[client] = now;
        if (known.number(kWaiting) > 0) {  // an empty queue, the usual poll, writes nothing
            Query(db->markFetch).number(1, client).number(2, now).run();
            auto read = [&taken](Query& query) {
                while (query.step()) {
                    taken.push_back(
                        StoredEvent{query.text(0), static_cast<std::uint64_t>(query.number(1)),
                                    std::make_shared<const std::string>(query.text(2))});
                }
            };
            if (known.number(kReturned) > 0) {
                Query returned(db->returnedEvents);
                returned.number(1, client);
                read(returned);
                db->storedBytes -= Query(db->removeReturned).number(1, client).sum();
                Query(db->clearReturned).number(1, client).run();
            }
            Query waiting(db->waitingEvents);
            waiting.text(1, serverId).number(2, known.number(kCursor)).number(3, client);
            read(waiting);
            Query(db->catchUp).number(1, client).run();
            db->storedBytes -= Query(db->dropTakenEvents).text(1, serverId).sum();
        }
        events.swap(taken);
    });
}

void SqliteStore::restore(const std::string& serverId, const std::string& clientId,
                          const std::vector<StoredEvent>& events) {
    if (events.empty()) {
        return;
    }
    transaction("give back the events", [&] {
        Query known(db->findClient);
        if (!known.text(1, serverId).text(2, clientId).step()) {
            return;  // the client has left: its events went with it
        }
        const std::int64_t client = known.number(kRow);
        Query head(db->headPosition);
        head.number(1, client).step();
        std::int64_t position = head.number(0) - static_cast<std::int64_t>(events.size());
        std::int64_t bytes = 0;
        for (const StoredEvent& event : events) {
            Query(db->addReturned)
                .number(1, client)
                .number(2, position++)
                .text(3, event.sender)
                .number(4, static_cast<std::int64_t>(event.sequence))
                .blob(5, *event.text)
                .run();
            bytes += static_cast<std::int64_t>(event.text->size());
        }
        Query(db->countReturned)
            .number(1, client)
            .number(2, static_cast<std::int64_t>(events.size()))
            .number(3, bytes)
            .run();
        db->storedBytes += bytes;
    });
}

StoreStats SqliteStore::stats() {
    StoreStats stats;
    transaction("read its statistics", [&] {
        Query query(db->totals);
        query.step();
        stats.registeredClients = static_cast<std::uint64_t>(query.number(0));
        stats.waitingEvents = static_cast<std::uint64_t>(query.number(1));
        stats.waitingBytes = static_cast<std::uint64_t>(query.number(2));
    });
    return stats;
}

void SqliteStore::listClients(const std::string& serverId, std::vector<ClientInfo>& clients) {
    transaction("list the clients", [&] {
        std::vector<ClientInfo> listed;
        Query query(db->listInfo);
        query.text(1, serverId);
        std::int64_t row = 0;
        while (query.step()) {
            listed.push_back(db->current(query, row));
        }
        clients.swap(listed);
    });
}

void SqliteStore::expireIdleClients(std::int64_t idleBeforeMs, std::vector<ClientInfo>& expired) {
    transaction("expire idle clients", [&] {
        std::vector<ClientInfo> found;
        std::vector<std::int64_t> rows;
        {
            Query query(db->listInfo);
            query.text(1, std::string());
            std::int64_t row = 0;
            while (query.step()) {
                ClientInfo info = db->current(query, row);
                const std::int64_t seen = std::max(
                    info.lastFetchMs != 0 ? info.lastFetchMs : info.registeredMs, db->openedMs);
                if (seen < idleBeforeMs) {
                    found.push_back(std::move(info));
                    rows.push_back(row);
                }
            }
        }
        for (std::size_t i = 0; i < rows.size(); ++i) {
            db->remove(rows[i], found[i].serverId);
        }
        expired.swap(found);
    });
}

void SqliteStore::ping() {
    transaction("answer", [&] { Query(db->probe).run(); });
}

std::string SqliteStore::describe() const {
    return "SQLite " + path;
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
