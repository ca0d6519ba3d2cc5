#include "host/sysdb/store.h"

#include <array>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr const char *PERSISTENT_FOLDER = "/var/data/sysdb";
constexpr const char *VOLATILE_FOLDER = "/var/volatile/sysdb";
constexpr const char *FILE_NAME = "/sysdb.sqlite";
constexpr int BUSY_TIMEOUT_MS = 2000;

constexpr std::array<std::string_view, 3> VOLATILE_KEYS = {"CELL_CONNECTED", "SIM_IN_USE", "SYS_JOB_COUNT"};

struct closer {
    void operator()(sqlite3 *database) const { sqlite3_close_v2(database); }
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using statement_ptr = std::unique_ptr<sqlite3_stmt, closer>;

// One open file of the two.
class database {
public:
    database(const std::string &path, int flags) {
        sqlite3 *opened = nullptr;
        const int rc = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
        handle.reset(opened);
        if (rc != SQLITE_OK)
            throw std::runtime_error("sqlite3_open_v2");
        sqlite3_busy_timeout(handle.get(), BUSY_TIMEOUT_MS);
    }

    void execute(const std::string &sql) {
        if (sqlite3_exec(handle.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
            throw std::runtime_error(sql);
    }

    statement_ptr prepared(const char *sql, std::initializer_list<std::string_view> values = {}) {
        sqlite3_stmt *statement = nullptr;
        if (sqlite3_prepare_v2(handle.get(), sql, -1, &statement, nullptr) != SQLITE_OK)
            throw std::runtime_error(sql);
        statement_ptr owned(statement);
        int index = 0;
        for (std::string_view value : values)
            sqlite3_bind_text(statement, ++index, value.data(), static_cast<int>(value.size()),
                              SQLITE_TRANSIENT);
        return owned;
    }

private:
    std::unique_ptr<sqlite3, closer> handle;
};

// True when there is a row; throws on failure.
bool next_row(const statement_ptr &statement) {
    const int rc = sqlite3_step(statement.get());
    if (rc != SQLITE_ROW && rc != SQLITE_DONE)
        throw std::runtime_error("sqlite3_step");
    return rc == SQLITE_ROW;
}

std::string column(const statement_ptr &statement, int index) {
    const void *text = sqlite3_column_blob(statement.get(), index);
    const int size = sqlite3_column_bytes(statement.get(), index);
    return text == nullptr ? std::string()
                           : std::string(static_cast<const char *>(text), static_cast<size_t>(size));
}

const char *folder_of(const std::string &key) {
    return is_volatile_key(key) ? VOLATILE_FOLDER : PERSISTENT_FOLDER;
}

// For reading: opened for writing too, because a reader that comes first after a power cut has to roll
// the interrupted write back.
database existing(const char *folder) {
    return database(std::string(folder) + FILE_NAME, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX);
}

// A rollback journal leaves no file of its own behind a reader. The persistent file is flushed with
// each write; what lives in memory needs no flush, its journal survives a killed writer anyway.
database writable(const char *folder) {
    mkdir(folder, 0755);
    database file(std::string(folder) + FILE_NAME,
                  SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX);
    file.execute(folder == VOLATILE_FOLDER ? "PRAGMA synchronous = OFF" : "PRAGMA synchronous = EXTRA");
    file.execute("CREATE TABLE IF NOT EXISTS pair (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID");
    return file;
}

void add_pairs(const char *folder, std::map<std::string, std::string> &pairs) try {
    database file = existing(folder);
    const statement_ptr rows = file.prepared("SELECT key, value FROM pair");
    while (next_row(rows))
        pairs[column(rows, 0)] = column(rows, 1);
} catch (const std::runtime_error &) {
    // Not made yet, or unreadable: no pairs from here.
}

} // namespace

bool is_volatile_key(const std::string &key) {
    for (std::string_view name : VOLATILE_KEYS)
        if (name == key)
            return true;
    return false;
}

std::optional<std::string> read_pair(const std::string &key) noexcept try {
    database file = existing(folder_of(key));
    const statement_ptr row = file.prepared("SELECT value FROM pair WHERE key = ?", {key});
    if (!next_row(row))
        return std::nullopt;
    return column(row, 0);
} catch (...) {
    return std::nullopt;
}

bool write_pair(const std::string &key, const std::string &value) noexcept try {
    if (read_pair(key) == value)
        return true;
    database file = writable(folder_of(key));
    const statement_ptr row =
        file.prepared("INSERT INTO pair VALUES (?, ?) ON CONFLICT (key) DO UPDATE SET value = excluded.value",
                      {key, value});
    next_row(row);
    return true;
} catch (...) {
    return false;
}

std::map<std::string, std::string> all_pairs() noexcept {
    std::map<std::string, std::string> pairs;
    add_pairs(PERSISTENT_FOLDER, pairs);
    add_pairs(VOLATILE_FOLDER, pairs);
    return pairs;
}
