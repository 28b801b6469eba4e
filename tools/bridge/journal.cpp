// SPDX-License-Identifier: Apache-2.0
#include "bridge/journal.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <future>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "posix/files.h"
#include "posix/mutex.h"

namespace jovu_bridge {
namespace {

constexpr int kVersion = 1;
/// "JvBr", so that another program's database is not taken for a journal.
constexpr int kApplication = 0x4a764272;
/// Entries between two removals of old ones.
constexpr unsigned kPruneEvery = 500;

struct CloseDatabase {
    void operator()(sqlite3* database) const noexcept { sqlite3_close_v2(database); }
};
struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};

/// One connection to the database.
class Database {
public:
    Database(std::string file, int flags) : file_(std::move(file)) {
        sqlite3* opened = nullptr;
        const int result = sqlite3_open_v2(file_.c_str(), &opened, flags, nullptr);
        database_.reset(opened);
        if (result != SQLITE_OK) {
            fail("cannot open the journal");
        }
        sqlite3_extended_result_codes(opened, 1);
        sqlite3_busy_timeout(opened, 5000);
    }

    sqlite3* get() const noexcept { return database_.get(); }

    void run(const char* sql) const {
        if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
            fail("cannot use the journal");
        }
    }

    [[noreturn]] void fail(const std::string& what) const {
        throw JournalError(what + " " + file_ + ": " +
                           (database_ ? sqlite3_errmsg(database_.get()) : "out of memory"));
    }

private:
    const std::string file_;
    std::unique_ptr<sqlite3, CloseDatabase> database_;
};

/// A prepared statement, which is ready again when a Run of it ends.
class Statement {
public:
    Statement(const Database& database, std::string_view sql) : database_(database) {
        sqlite3_stmt* prepared = nullptr;
        if (sqlite3_prepare_v3(database.get(), sql.data(), static_cast<int>(sql.size()),
                               SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) != SQLITE_OK) {
            database.fail("cannot use the journal");
        }
        statement_.reset(prepared);
    }

    /// One execution.
    class Run {
    public:
        explicit Run(const Statement& statement) : statement_(statement) {}
        ~Run() {
            sqlite3_reset(statement_.statement_.get());
            sqlite3_clear_bindings(statement_.statement_.get());
        }
        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;

        /// @param value outlives this object.
        Run& bind(const std::string& value) {
            check(sqlite3_bind_text64(get(), ++bound_, value.data(), value.size(), SQLITE_STATIC,
                                      SQLITE_UTF8));
            return *this;
        }
        Run& bind(std::int64_t value) {
            check(sqlite3_bind_int64(get(), ++bound_, value));
            return *this;
        }
        /// @return whether there is a row.
        bool step() {
            const int result = sqlite3_step(get());
            if (result != SQLITE_ROW && result != SQLITE_DONE) {
                statement_.database_.fail("cannot use the journal");
            }
            return result == SQLITE_ROW;
        }
        std::string text(int column) const {
            const auto* const bytes =
                reinterpret_cast<const char*>(sqlite3_column_text(get(), column));
            return bytes == nullptr
                       ? std::string()
                       : std::string(bytes,
                                     static_cast<std::size_t>(sqlite3_column_bytes(get(), column)));
        }
        std::int64_t whole(int column) const { return sqlite3_column_int64(get(), column); }
        bool null(int column) const { return sqlite3_column_type(get(), column) == SQLITE_NULL; }

    private:
        sqlite3_stmt* get() const noexcept { return statement_.statement_.get(); }
        void check(int result) const {
            if (result != SQLITE_OK) {
                statement_.database_.fail("cannot use the journal");
            }
        }

        const Statement& statement_;
        int bound_ = 0;
    };

private:
    const Database& database_;
    std::unique_ptr<sqlite3_stmt, FinalizeStatement> statement_;
};

std::int64_t now_milliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/// Keeps other processes from the journal. Creates the folder if it is missing; its parent exists.
jovu_cli::FileDescriptor lock_folder(const std::string& folder) {
    if (::mkdir(folder.c_str(), 0700) == -1 && errno != EEXIST) {
        throw JournalError("cannot create " + folder + ": " +
                           std::generic_category().message(errno));
    }
    const std::string file = folder + "/lock";
    jovu_cli::FileDescriptor lock(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (lock.get() == -1) {
        throw JournalError("cannot create " + file + ": " + std::generic_category().message(errno));
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        throw JournalError(errno == EWOULDBLOCK
                               ? "another jovu-bridge uses the state folder " + folder
                               : "cannot lock " + file + ": " +
                                     std::generic_category().message(errno));
    }
    return lock;
}

int pragma(const Database& database, const char* sql) {
    const Statement statement(database, sql);
    Statement::Run run(statement);
    return run.step() ? static_cast<int>(run.whole(0)) : 0;
}

/// Opens the database for changes and creates its table.
Database open_database(const std::string& file) {
    Database database(file, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX);
    const int version = pragma(database, "PRAGMA user_version");
    const int application = pragma(database, "PRAGMA application_id");
    if (version > kVersion || (application != 0 && application != kApplication)) {
        throw JournalError(file + " is not a journal of this version of jovu-bridge; move it away");
    }
    {
        const Statement statement(database, "PRAGMA quick_check(1)");
        Statement::Run run(statement);
        if (run.step() && run.text(0) != "ok") {
            throw JournalError("the journal " + file + " is damaged (" + run.text(0) +
                               "); move it away, and expect that repeated requests are carried "
                               "out again");
        }
    }
    // A transaction is on disk when it ends, also when the computer loses its power.
    database.run(
        "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
        "BEGIN IMMEDIATE;"
        "CREATE TABLE IF NOT EXISTS requests("
        " number INTEGER PRIMARY KEY, device TEXT NOT NULL, id TEXT NOT NULL,"
        " digest TEXT NOT NULL, started INTEGER NOT NULL, response TEXT,"
        " UNIQUE(device, id)) STRICT;"
        "PRAGMA application_id=1249264242; PRAGMA user_version=1;"
        "COMMIT");
    static_assert(kApplication == 1249264242 && kVersion == 1, "as in the statement above");
    return database;
}

/// Creates the file with access for its owner only.
std::string private_file(const std::string& folder) {
    std::string file = folder + "/journal.sqlite";
    const jovu_cli::FileDescriptor created(
        ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (created.get() == -1) {
        throw JournalError("cannot write the journal " + file + ": " +
                           std::generic_category().message(errno));
    }
    return file;
}

}  // namespace

class Journal::Parts {
public:
    Parts(const std::string& folder, const Limits& limits)
        : lock_(lock_folder(folder)), file_(private_file(folder)), limits_(limits) {
        writer_ = std::thread([this] { write_all(); });
    }

    ~Parts() {
        {
            const jovu_cli::MutexLock lock(mutex_);
            ended_ = true;
        }
        wake_.notify_all();
        writer_.join();
    }
    Parts(const Parts&) = delete;
    Parts& operator=(const Parts&) = delete;

    void set_limits(const Limits& limits) {
        const jovu_cli::MutexLock lock(mutex_);
        limits_ = limits;
    }

    Entry find(const std::string& device, const std::string& id) {
        const jovu_cli::MutexLock lock(read_mutex_);
        Statement::Run run(find_);
        if (!run.bind(device).bind(id).step()) {
            return {};
        }
        return {run.null(1) ? State::started : State::done, run.text(0), run.text(1)};
    }

    /// A change, which waits for the thread.
    struct Change {
        std::string device;
        std::string id;
        std::string value;  ///< The digest of a start, the response of an end.
        bool starts = false;
        std::promise<void> made;
    };

    void change(Change change) {
        std::future<void> made = change.made.get_future();
        {
            const jovu_cli::MutexLock lock(mutex_);
            changes_.push_back(std::move(change));
        }
        wake_.notify_all();
        made.get();
    }

    Size size() {
        const jovu_cli::MutexLock lock(read_mutex_);
        Statement::Run run(count_);
        run.step();
        struct stat info {};
        static_cast<void>(::stat(file_.c_str(), &info));
        return {static_cast<std::uint64_t>(run.whole(0)), static_cast<std::uint64_t>(info.st_size)};
    }

private:
    void write_all() {
        for (;;) {
            std::vector<Change> changes;
            Limits limits;
            {
                const jovu_cli::MutexLock lock(mutex_);
                while (!ended_ && changes_.empty()) {
                    wake_.wait(mutex_);
                }
                if (changes_.empty()) {
                    return;
                }
                changes.swap(changes_);
                limits = limits_;
            }
            write(changes, limits);
        }
    }

    /// Makes changes in one transaction. Each waiting thread learns of its failure.
    void write(std::vector<Change>& changes, const Limits& limits) {
        std::vector<std::exception_ptr> failures(changes.size());
        try {
            database_.run("BEGIN IMMEDIATE");
            for (std::size_t i = 0; i < changes.size(); ++i) {
                try {
                    write(changes[i]);
                } catch (const JournalError&) {
                    failures[i] = std::current_exception();
                }
            }
            written_ += static_cast<unsigned>(changes.size());
            if (written_ >= kPruneEvery) {
                written_ = 0;
                prune(limits);
            }
            database_.run("COMMIT");
        } catch (const JournalError&) {
            std::fill(failures.begin(), failures.end(), std::current_exception());
            if (sqlite3_get_autocommit(database_.get()) == 0) {
                sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
            }
        }
        for (std::size_t i = 0; i < changes.size(); ++i) {
            if (failures[i]) {
                changes[i].made.set_exception(failures[i]);
            } else {
                changes[i].made.set_value();
            }
        }
    }

    void write(const Change& change) {
        if (change.starts) {
            Statement::Run run(start_);
            run.bind(change.device).bind(change.id).bind(change.value).bind(now_milliseconds());
            run.step();
        } else {
            Statement::Run run(finish_);
            run.bind(change.value).bind(now_milliseconds()).bind(change.device).bind(change.id);
            run.step();
        }
    }

    void prune(const Limits& limits) {
        Statement::Run(prune_age_)
            .bind(now_milliseconds() - std::int64_t{limits.max_age.count()})
            .bind(opened_)
            .step();
        Statement::Run(prune_count_).bind(static_cast<std::int64_t>(limits.max_entries)).step();
    }

    const jovu_cli::FileDescriptor lock_;
    const std::string file_;

    /// Of the writing thread.
    const Database database_ = open_database(file_);
    const Statement start_{database_,
                           "INSERT INTO requests(device,id,digest,started) VALUES(?,?,?,?)"};
    // From now on the response can be had for max_age, however long the request has taken.
    const Statement finish_{database_,
                            "UPDATE requests SET response=?,started=? WHERE device=? AND id=?"};
    // What has no response may be in progress, unless another process began it.
    const Statement prune_age_{
        database_, "DELETE FROM requests WHERE started<? AND (response IS NOT NULL OR started<?)"};
    const std::int64_t opened_ = now_milliseconds();
    const Statement prune_count_{
        database_,
        "DELETE FROM requests WHERE response IS NOT NULL AND number<=(SELECT number FROM requests"
        " ORDER BY number DESC LIMIT 1 OFFSET ?)"};
    unsigned written_ = kPruneEvery;  ///< Since entries were removed. The first change removes.

    jovu_cli::Mutex read_mutex_;
    const Database reader_{file_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX};
    const Statement find_{reader_, "SELECT digest,response FROM requests WHERE device=? AND id=?"};
    const Statement count_{reader_, "SELECT count(*) FROM requests"};

    jovu_cli::Mutex mutex_;
    std::condition_variable_any wake_;
    Limits limits_ JOVU_GUARDED_BY(mutex_);
    std::vector<Change> changes_ JOVU_GUARDED_BY(mutex_);
    bool ended_ JOVU_GUARDED_BY(mutex_) = false;
    std::thread writer_;
};

Journal::Journal(const std::string& folder, const Limits& limits)
    : parts_(std::make_unique<Parts>(folder, limits)) {}

Journal::~Journal() = default;

void Journal::set_limits(const Limits& limits) {
    parts_->set_limits(limits);
}

Journal::Entry Journal::find(const std::string& device, const std::string& id) {
    return parts_->find(device, id);
}

void Journal::start(const std::string& device, const std::string& id, const std::string& digest) {
    parts_->change({device, id, digest, true, {}});
}

void Journal::finish(const std::string& device, const std::string& id,
                     const std::string& response) {
    parts_->change({device, id, response, false, {}});
}

Journal::Size Journal::size() {
    return parts_->size();
}

}  // namespace jovu_bridge
