#include "platform/registry/SqliteRegistryStore.h"

#include "platform/string/String.h"

#include <sqlite3.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace VEQ {
namespace {

// Writers of other processes (veqctl, a second service instance) hold the lock for a few
// milliseconds; waiting this long only matters when a disk stalls.
constexpr int kBusyTimeoutMs = 5000;
constexpr int kSchemaVersion = 1;

// Value types keep the Windows numbers, so a dump reads like a .reg export.
constexpr int kTypeString = 1;  // REG_SZ
constexpr int kTypeDword = 4;   // REG_DWORD

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kMachineFileMode = 0644;
constexpr mode_t kUserFileMode = 0600;

// NOCASE folds ASCII letters only, which is the comparison the registry's callers expect.
// A key's path is its parent's path, a backslash and its own name as first written.
constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS keys(
    id     INTEGER PRIMARY KEY,
    path   TEXT NOT NULL UNIQUE COLLATE NOCASE,
    parent INTEGER REFERENCES keys(id) ON DELETE CASCADE
);
CREATE INDEX IF NOT EXISTS keys_parent ON keys(parent);
CREATE TABLE IF NOT EXISTS key_values(
    key_id       INTEGER NOT NULL REFERENCES keys(id) ON DELETE CASCADE,
    name         TEXT NOT NULL COLLATE NOCASE,
    type         INTEGER NOT NULL,
    string_value TEXT,
    dword_value  INTEGER,
    PRIMARY KEY(key_id, name)
);
PRAGMA user_version = 1;
)sql";

template <typename Result, typename Body>
Result Guarded(Result fallback, Body&& body) noexcept
{
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}

// Backslash separates keys; '/' is accepted as well, and empty segments are dropped, so
// "\Software//Tavrin\" is "Software\Tavrin". An empty result names no key.
std::string NormalisedPath(const std::wstring& keyPath)
{
    std::string path;
    std::wstring segment;
    auto flush = [&]() {
        if (!segment.empty()) {
            if (!path.empty()) {
                path += '\\';
            }
            path += String::UTF16ToUTF8(segment);
            segment.clear();
        }
    };
    for (wchar_t c : keyPath) {
        if (c == L'\\' || c == L'/') {
            flush();
        } else {
            segment += c;
        }
    }
    flush();
    return path;
}

std::string LastSegment(const std::string& path)
{
    const size_t separator = path.rfind('\\');
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

// Creates the missing directories of an absolute or relative path. Only directories made
// here get their mode set; existing ones are the administrator's business.
bool MakeDirectories(const std::string& directory)
{
    if (directory.empty()) {
        return true;
    }
    size_t position = 0;
    while (position != std::string::npos) {
        position = directory.find('/', position + 1);
        const std::string prefix = directory.substr(0, position);
        if (::mkdir(prefix.c_str(), kDirectoryMode) == 0) {
            if (::chmod(prefix.c_str(), kDirectoryMode) != 0) {  // umask must not narrow it
                return false;
            }
            continue;
        }
        struct stat status {};
        if (errno != EEXIST || ::stat(prefix.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            return false;
        }
    }
    return true;
}

class Connection {
public:
    static std::unique_ptr<Connection> Open(const std::string& path, bool readOnly);

    ~Connection()
    {
        for (auto& [sql, statement] : statements_) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(db_);
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Statements are kept for the connection's life; sql must be a literal.
    sqlite3_stmt* Prepare(const char* sql)
    {
        if (auto found = statements_.find(sql); found != statements_.end()) {
            return found->second;
        }
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
            sqlite3_finalize(statement);
            return nullptr;  // e.g. a read-only file that has no tables yet; tried again next call
        }
        statements_.emplace(sql, statement);
        return statement;
    }

    bool Exec(const char* sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

    int Changes() const { return sqlite3_changes(db_); }

private:
    explicit Connection(sqlite3* db) : db_(db) {}

    int UserVersion();
    bool CreateSchema();

    sqlite3* db_;
    std::unordered_map<const char*, sqlite3_stmt*> statements_;
};

// One use of a cached statement; resets it when done so that its locks are released.
class Query {
public:
    Query(Connection& db, const char* sql) : statement_(db.Prepare(sql)) {}
    ~Query()
    {
        if (statement_ != nullptr) {
            sqlite3_reset(statement_);
            sqlite3_clear_bindings(statement_);
        }
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& Bind(int index, const std::string& text)
    {
        Check(statement_ != nullptr && sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                                                         SQLITE_TRANSIENT) == SQLITE_OK);
        return *this;
    }
    Query& Bind(int index, int64_t number)
    {
        Check(statement_ != nullptr && sqlite3_bind_int64(statement_, index, number) == SQLITE_OK);
        return *this;
    }
    Query& BindNull(int index)
    {
        Check(statement_ != nullptr && sqlite3_bind_null(statement_, index) == SQLITE_OK);
        return *this;
    }

    // SQLITE_ROW, SQLITE_DONE, or an error.
    int Step() { return statement_ == nullptr || failed_ ? SQLITE_ERROR : sqlite3_step(statement_); }
    bool Run() { return Step() == SQLITE_DONE; }

    int Type(int column) { return sqlite3_column_type(statement_, column); }
    int64_t Integer(int column) { return sqlite3_column_int64(statement_, column); }
    std::string Text(int column)
    {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
        return text == nullptr ? std::string() : std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
    }

private:
    void Check(bool ok) { failed_ = failed_ || !ok; }

    sqlite3_stmt* statement_;
    bool failed_ = false;
};

// IMMEDIATE takes the write lock up front: a deferred transaction that reads first and
// then writes can be refused with SQLITE_BUSY without the busy timeout ever running.
class WriteTransaction {
public:
    explicit WriteTransaction(Connection& db) : db_(db), open_(Query(db, "BEGIN IMMEDIATE").Run()) {}
    ~WriteTransaction()
    {
        if (open_) {
            Query(db_, "ROLLBACK").Run();
        }
    }
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;

    bool IsOpen() const { return open_; }
    bool Commit()
    {
        if (!open_ || !Query(db_, "COMMIT").Run()) {
            return false;
        }
        open_ = false;
        return true;
    }

private:
    Connection& db_;
    bool open_;
};

int Connection::UserVersion()
{
    Query query(*this, "PRAGMA user_version");
    return query.Step() == SQLITE_ROW ? static_cast<int>(query.Integer(0)) : -1;
}

bool Connection::CreateSchema()
{
    WriteTransaction transaction(*this);
    if (!transaction.IsOpen()) {
        return false;
    }
    const int version = UserVersion();  // another process may have been first
    if (version < 0 || (version < kSchemaVersion && !Exec(kSchema))) {
        return false;
    }
    return transaction.Commit();
}

std::unique_ptr<Connection> Connection::Open(const std::string& path, bool readOnly)
{
    sqlite3* db = nullptr;
    const int flags = (readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE) | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return nullptr;
    }
    std::unique_ptr<Connection> connection(new Connection(db));
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    if (!connection->Exec("PRAGMA foreign_keys = ON")) {
        return nullptr;
    }
    // A file that isn't a database fails here, on its first read.
    const int version = connection->UserVersion();
    if (version < 0) {
        return nullptr;
    }
    // SQLite opens a file it may not write read-only without saying so; such a connection
    // still serves reads, and its writes fail.
    if (readOnly || sqlite3_db_readonly(db, "main") != 0) {
        return connection;
    }
    // A rollback journal, not WAL: readers then need no write access to the directory or a -shm file.
    if (!connection->Exec("PRAGMA journal_mode = DELETE") || !connection->Exec("PRAGMA synchronous = FULL")) {
        return nullptr;
    }
    if (version < kSchemaVersion && !connection->CreateSchema()) {
        return nullptr;
    }
    return connection;
}

std::optional<int64_t> FindKey(Connection& db, const std::string& path)
{
    Query query(db, "SELECT id FROM keys WHERE path = ?1");
    query.Bind(1, path);
    if (query.Step() != SQLITE_ROW) {
        return std::nullopt;
    }
    return query.Integer(0);
}

// Inside a write transaction: the key's id, creating it and its missing parents.
std::optional<int64_t> EnsureKey(Connection& db, const std::string& path)
{
    if (auto existing = FindKey(db, path)) {
        return existing;
    }
    std::optional<int64_t> parent;
    std::string parentPath;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('\\', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        const std::string segment = path.substr(start, end - start);
        start = end + 1;
        // Under an existing parent the child's path starts with the parent's spelling.
        std::string childPath = parentPath.empty() ? segment : parentPath + '\\' + segment;
        std::optional<int64_t> child = FindKey(db, childPath);
        if (child) {
            Query query(db, "SELECT path FROM keys WHERE id = ?1");
            query.Bind(1, *child);
            if (query.Step() != SQLITE_ROW) {
                return std::nullopt;
            }
            childPath = query.Text(0);
        } else {
            Query insert(db, "INSERT INTO keys(path, parent) VALUES(?1, ?2)");
            insert.Bind(1, childPath);
            if (parent) {
                insert.Bind(2, *parent);
            } else {
                insert.BindNull(2);
            }
            if (!insert.Run()) {
                return std::nullopt;
            }
            child = FindKey(db, childPath);
            if (!child) {
                return std::nullopt;
            }
        }
        parent = child;
        parentPath = std::move(childPath);
    }
    return parent;
}

// An empty root would put the hives at the top of the file system; it names none instead.
std::string FileBelow(const std::string& root, const std::string& name)
{
    return root.empty() ? std::string() : root + "/" + name;
}

std::optional<unsigned> ParseUid(const std::wstring& userId)
{
    // The id becomes part of a file name: digits only, and one spelling per uid.
    const std::string text = String::UTF16ToUTF8(userId);
    unsigned uid = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, uid);
    if (text.empty() || error != std::errc() || stop != end || uid == static_cast<unsigned>(-1)) {
        return std::nullopt;
    }
    return uid;
}

}  // namespace

class SqliteRegistryStore::HiveFile {
public:
    HiveFile(std::string path, mode_t mode, std::optional<uid_t> owner, bool readOnly)
        : path_(std::move(path)), mode_(mode), owner_(owner), readOnly_(readOnly)
    {
    }

    const std::string& Path() const { return path_; }

    // Runs body with the open connection, under the hive's mutex. create: make the file
    // when it is missing, for writes; reads of a missing file just find nothing.
    template <typename Result, typename Body>
    Result Use(bool create, Result fallback, Body&& body)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Connection* db = Opened(create && !readOnly_);
        if (db == nullptr) {
            return fallback;
        }
        return body(*db);
    }

private:
    Connection* Opened(bool create)
    {
        if (!connection_ && !path_.empty()) {
            struct stat status {};
            const bool exists = ::stat(path_.c_str(), &status) == 0;
            if (!exists && (!create || !CreateFile())) {
                return nullptr;
            }
            // A file that fails to open stays closed, and the next call tries again.
            connection_ = Connection::Open(path_, readOnly_);
        }
        return connection_.get();
    }

    // Made here rather than by SQLite so that the mode and owner are right from the start.
    bool CreateFile()
    {
        if (!MakeDirectories(path_.substr(0, path_.rfind('/')))) {
            return false;
        }
        const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode_);
        if (fd < 0) {
            return errno == EEXIST;  // another store was first
        }
        bool ok = ::fchmod(fd, mode_) == 0;
        if (ok && owner_ && ::geteuid() == 0) {
            ok = ::fchown(fd, *owner_, static_cast<gid_t>(-1)) == 0;
        }
        ::close(fd);
        if (!ok) {
            ::unlink(path_.c_str());
        }
        return ok;
    }

    const std::string path_;
    const mode_t mode_;
    const std::optional<uid_t> owner_;
    const bool readOnly_;
    std::mutex mutex_;
    std::unique_ptr<Connection> connection_;
};

SqliteRegistryStore::SqliteRegistryStore(std::wstring rootDir) : SqliteRegistryStore(std::move(rootDir), false) {}

SqliteRegistryStore::SqliteRegistryStore(std::wstring rootDir, bool readOnly)
    : root_(String::UTF16ToUTF8(rootDir)), readOnly_(readOnly),
      machine_(std::make_unique<HiveFile>(FileBelow(root_, "machine.db"), kMachineFileMode, std::nullopt, readOnly))
{
}

std::unique_ptr<SqliteRegistryStore> SqliteRegistryStore::OpenReadOnly(std::wstring rootDir)
{
    return std::unique_ptr<SqliteRegistryStore>(new SqliteRegistryStore(std::move(rootDir), true));
}

SqliteRegistryStore::~SqliteRegistryStore() = default;

SqliteRegistryStore::HiveFile& SqliteRegistryStore::FileOf(Hive hive)
{
    return hive == Hive::LocalMachine ? *machine_ : UserFile(::geteuid());
}

SqliteRegistryStore::HiveFile& SqliteRegistryStore::UserFile(unsigned uid)
{
    std::lock_guard<std::mutex> lock(usersMutex_);
    auto& file = users_[uid];
    if (!file) {
        file = std::make_unique<HiveFile>(FileBelow(root_, "users/" + std::to_string(uid) + ".db"), kUserFileMode, uid, readOnly_);
    }
    return *file;
}

std::string SqliteRegistryStore::HiveFilePath(Hive hive)
{
    return FileOf(hive).Path();
}

bool SqliteRegistryStore::CreateKey(Hive hive, const std::wstring& keyPath)
{
    return Guarded(false, [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (readOnly_ || path.empty()) {
            return false;
        }
        return FileOf(hive).Use(true, false, [&](Connection& db) {
            WriteTransaction transaction(db);
            return transaction.IsOpen() && EnsureKey(db, path) && transaction.Commit();
        });
    });
}

bool SqliteRegistryStore::KeyExists(Hive hive, const std::wstring& keyPath)
{
    return Guarded(false, [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (path.empty()) {
            return false;
        }
        return FileOf(hive).Use(false, false, [&](Connection& db) { return FindKey(db, path).has_value(); });
    });
}

namespace {

bool WriteValue(Connection& db, const std::string& path, const std::string& name, int type, const std::string* text,
                std::optional<uint32_t> dword)
{
    WriteTransaction transaction(db);
    if (!transaction.IsOpen()) {
        return false;
    }
    const std::optional<int64_t> key = EnsureKey(db, path);
    if (!key) {
        return false;
    }
    {
        // The name keeps its first spelling; the type and data are replaced.
        Query upsert(db,
                     "INSERT INTO key_values(key_id, name, type, string_value, dword_value) VALUES(?1, ?2, ?3, ?4, ?5) "
                     "ON CONFLICT(key_id, name) DO UPDATE SET type = excluded.type, "
                     "string_value = excluded.string_value, dword_value = excluded.dword_value");
        upsert.Bind(1, *key).Bind(2, name).Bind(3, static_cast<int64_t>(type));
        if (text != nullptr) {
            upsert.Bind(4, *text);
        } else {
            upsert.BindNull(4);
        }
        if (dword) {
            upsert.Bind(5, static_cast<int64_t>(*dword));
        } else {
            upsert.BindNull(5);
        }
        if (!upsert.Run()) {
            return false;
        }
    }
    return transaction.Commit();
}

// The row of one value: type, string_value, dword_value.
constexpr const char* kSelectValue =
    "SELECT v.type, v.string_value, v.dword_value FROM key_values v JOIN keys k ON v.key_id = k.id "
    "WHERE k.path = ?1 AND v.name = ?2";

}  // namespace

bool SqliteRegistryStore::SetString(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                                    const std::wstring& value)
{
    return Guarded(false, [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (readOnly_ || path.empty()) {
            return false;
        }
        const std::string name = String::UTF16ToUTF8(valueName);
        const std::string text = String::UTF16ToUTF8(value);
        return FileOf(hive).Use(true, false, [&](Connection& db) {
            return WriteValue(db, path, name, kTypeString, &text, std::nullopt);
        });
    });
}

bool SqliteRegistryStore::SetDword(Hive hive, const std::wstring& keyPath, const std::wstring& valueName, uint32_t value)
{
    return Guarded(false, [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (readOnly_ || path.empty()) {
            return false;
        }
        const std::string name = String::UTF16ToUTF8(valueName);
        return FileOf(hive).Use(true, false, [&](Connection& db) {
            return WriteValue(db, path, name, kTypeDword, nullptr, value);
        });
    });
}

std::optional<std::wstring> SqliteRegistryStore::GetString(Hive hive, const std::wstring& keyPath,
                                                           const std::wstring& valueName)
{
    using Result = std::optional<std::wstring>;
    return Guarded(Result(), [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (path.empty()) {
            return Result();
        }
        const std::string name = String::UTF16ToUTF8(valueName);
        return FileOf(hive).Use(false, Result(), [&](Connection& db) {
            Query query(db, kSelectValue);
            query.Bind(1, path).Bind(2, name);
            if (query.Step() != SQLITE_ROW || query.Integer(0) != kTypeString) {
                return Result();
            }
            return Result(String::UTF8ToUTF16(query.Text(1)));
        });
    });
}

std::optional<uint32_t> SqliteRegistryStore::GetDword(Hive hive, const std::wstring& keyPath,
                                                      const std::wstring& valueName)
{
    using Result = std::optional<uint32_t>;
    return Guarded(Result(), [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (path.empty()) {
            return Result();
        }
        const std::string name = String::UTF16ToUTF8(valueName);
        return FileOf(hive).Use(false, Result(), [&](Connection& db) {
            Query query(db, kSelectValue);
            query.Bind(1, path).Bind(2, name);
            if (query.Step() != SQLITE_ROW || query.Integer(0) != kTypeDword || query.Type(2) != SQLITE_INTEGER) {
                return Result();
            }
            // Rows written from the shell may hold anything; out of range is no DWORD.
            const int64_t number = query.Integer(2);
            if (number < 0 || number > static_cast<int64_t>(UINT32_MAX)) {
                return Result();
            }
            return Result(static_cast<uint32_t>(number));
        });
    });
}

bool SqliteRegistryStore::DeleteValue(Hive hive, const std::wstring& keyPath, const std::wstring& valueName)
{
    return Guarded(false, [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (readOnly_ || path.empty()) {
            return false;
        }
        const std::string name = String::UTF16ToUTF8(valueName);
        return FileOf(hive).Use(false, false, [&](Connection& db) {
            Query remove(db, "DELETE FROM key_values WHERE key_id = (SELECT id FROM keys WHERE path = ?1) AND name = ?2");
            remove.Bind(1, path).Bind(2, name);
            return remove.Run() && db.Changes() > 0;
        });
    });
}

namespace {

// Subkeys and values go with the key through the ON DELETE CASCADE references.
bool RemoveKey(Connection& db, const std::string& path)
{
    Query remove(db, "DELETE FROM keys WHERE path = ?1");
    remove.Bind(1, path);
    return remove.Run() && db.Changes() > 0;
}

}  // namespace

bool SqliteRegistryStore::DeleteKey(Hive hive, const std::wstring& keyPath)
{
    return Guarded(false, [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (readOnly_ || path.empty()) {
            return false;
        }
        return FileOf(hive).Use(false, false, [&](Connection& db) { return RemoveKey(db, path); });
    });
}

bool SqliteRegistryStore::DeleteUserKey(const std::wstring& userId, const std::wstring& keyPath)
{
    return Guarded(false, [&]() {
        const std::string path = NormalisedPath(keyPath);
        const std::optional<unsigned> uid = ParseUid(userId);
        if (readOnly_ || path.empty() || !uid) {
            return false;
        }
        return UserFile(*uid).Use(false, false, [&](Connection& db) { return RemoveKey(db, path); });
    });
}

std::vector<std::wstring> SqliteRegistryStore::ValueNames(Hive hive, const std::wstring& keyPath)
{
    using Result = std::vector<std::wstring>;
    return Guarded(Result(), [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (path.empty()) {
            return Result();
        }
        return FileOf(hive).Use(false, Result(), [&](Connection& db) {
            Result names;
            Query query(db, "SELECT v.name FROM key_values v JOIN keys k ON v.key_id = k.id WHERE k.path = ?1 "
                            "ORDER BY v.name");
            query.Bind(1, path);
            while (query.Step() == SQLITE_ROW) {
                names.push_back(String::UTF8ToUTF16(query.Text(0)));
            }
            return names;
        });
    });
}

std::vector<std::wstring> SqliteRegistryStore::SubKeys(Hive hive, const std::wstring& keyPath)
{
    using Result = std::vector<std::wstring>;
    return Guarded(Result(), [&]() {
        const std::string path = NormalisedPath(keyPath);
        if (path.empty()) {
            return Result();
        }
        return FileOf(hive).Use(false, Result(), [&](Connection& db) {
            Result names;
            Query query(db, "SELECT c.path FROM keys c JOIN keys p ON c.parent = p.id WHERE p.path = ?1 "
                            "ORDER BY c.path");
            query.Bind(1, path);
            while (query.Step() == SQLITE_ROW) {
                names.push_back(String::UTF8ToUTF16(LastSegment(query.Text(0))));
            }
            return names;
        });
    });
}

}  // namespace VEQ
