// The store that keeps the service's state in an SQLite database file, so that
// registrations, waiting events and sequence numbers outlive the process.
//
// Each operation is one transaction (BEGIN IMMEDIATE ... COMMIT), so an
// operation that returns is committed, and one that throws changed nothing. The
// database runs in WAL mode. With Sync::Normal a commit is written to the
// operating system before it returns: it survives the end of the process
// (kill -9 included) but not a power cut or a crash of the machine, which may
// take the last commits back (never a part of one). Sync::Full also waits for
// the disk at each commit and survives those, at a far lower rate.
//
// One store holds its database file alone (SQLite's exclusive locking mode): a
// second one opened on the same directory fails to open it. A post writes one
// row for the event whatever the number of recipients; each client's queue is
// the server's events past its cursor (SqliteStore.cpp explains the tables).
//
// A failure of the database (disk full, I/O error) is a FailureKind::Limit
// Failure naming the cause; the store serves again once the cause is
// gone. Thread-safe: one connection, one operation at a time.
#ifndef AVQVL_ENGINE_SQLITESTORE_H
#define AVQVL_ENGINE_SQLITESTORE_H

#include <memory>
#include <mutex>

#include "engine/Store.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

class SqliteStore : public Store {
public:
    enum class Sync { Normal, Full };

    // The file of a store kept in directory.
    static std::string databasePath(const std::string& directory);

    // Opens the store kept in directory, making the directory and the database
    // when they are missing. Throws Failure (Limit) when that fails.
    SqliteStore(const std::string& directory, const ServiceLimits& limits,
                Sync sync = Sync::Normal);
    ~SqliteStore() override;

    void registerClient(const std::string& serverId, const std::string& clientId,
                        ClientList& clients) override;
    void unregisterClient(const std::string& serverId, const std::string& clientId,
                          ClientList& remaining) override;
    void clients(const std::string& serverId, ClientList& clients) override;
    void post(const std::string& serverId, const std::string& senderId, const std::string& text,
              ClientList& clients) override;
    void take(const std::string& serverId, const std::string& clientId,
              std::vector<StoredEvent>& events) override;
    void restore(const std::string& serverId, const std::string& clientId,
                 const std::vector<StoredEvent>& events) override;
    StoreStats stats() override;
    void listClients(const std::string& serverId, std::vector<ClientInfo>& clients) override;
    void expireIdleClients(std::int64_t idleBeforeMs, std::vector<ClientInfo>& expired) override;
    void ping() override;
    std::string describe() const override;

private:
    const std::string path;
    struct Database;
    template <typename Operation>
    void transaction(const char* action, Operation operation);
    // The server's clients in their order into clients, each recipient checked
    // against the limits for a post of textBytes by the client in row senderRow.
    void listCheckingLimits(const std::string& serverId, const std::string& senderId,
                            std::int64_t senderRow, std::size_t textBytes, ClientList& clients);

    std::mutex mutex;  // one operation at a time on the connection
    std::unique_ptr<Database> db;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_SQLITESTORE_H
