/// @file
/// Calls that can fail, how they are counted, and the one that is made to fail.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace sweep {

/// The calls of the library that can fail, as far as they can be told apart from outside.
enum class Kind {
    init,
    list,
    descriptor,
    open,
    claim,
    release,
    alloc,
    submit,
    cancel,
    events,
    bulk,
    completion,  ///< No call but the result of a receive transfer.
    memory,
    thread,
    file_open,
    file_stat,
    file_stream,
    file_seek,
    file_read,
};
inline constexpr std::size_t kKinds = 19;

/// Whose call it is. Each thread's calls come in nearly the same order in every run, those of all
/// threads together do not.
enum class Role {
    app,      ///< The application's main thread,
    sender,   ///< and its others.
    watcher,  ///< The library's watcher,
    notice,   ///< and the threads of its notices.
};
inline constexpr std::size_t kRoles = 4;

/// What a call gives instead of its success.
struct Result {
    const char* name;
    int value;  ///< libusb's or errno's number, where the call has one.
};

/// @name Values of results that are no error numbers
/// @{
inline constexpr int kShort = 1;    ///< Half of it, and all is well.
inline constexpr int kPartial = 2;  ///< Half of it, and then out of time.
inline constexpr int kNothing = 3;  ///< Success that moved nothing.
inline constexpr int kEnded = 4;    ///< Half of it, and the file ends there.
inline constexpr int kBroken = 5;   ///< Half of it, and then an error.
/// @}

/// The name of a kind, as it stands in positions and tables.
const char* name(Kind kind) noexcept;
const char* name(Role role) noexcept;

/// Every result that a call of that kind is documented to give, but for success.
const std::vector<Result>& results(Kind kind);

/// One call of a scenario, by kind and thread, and what it gives.
struct Fault {
    Kind kind;
    Role role;
    unsigned position;  ///< Counted from 1.
    std::size_t result;
    bool always;  ///< From there on every call of the kind fails, on whatever thread.

    const Result& outcome() const { return results(kind)[result]; }
    /// "submit@watcher.2:no-device:once"
    std::string text() const;
    /// @return nothing when the text is not one that text() writes.
    static std::optional<Fault> parse(const std::string& text);
};

using Counts = std::array<std::array<unsigned, kRoles>, kKinds>;

/// Begins to count calls, and to let one fail if there is a fault.
void arm(const Fault* fault) noexcept;
/// Ends it: every call goes through again.
void disarm() noexcept;
/// @return whether the fault has struck.
bool fired() noexcept;
/// @return whether it struck on the watcher, or while received data was being handled.
bool fired_in_reception() noexcept;
/// @return whether every call of that kind fails now.
bool fails_for_good(Kind kind) noexcept;
Counts counts() noexcept;

/// Tells of a call that is about to be made.
/// @return what it is to give, null for what it gives by itself.
const Result* meet(Kind kind) noexcept;

/// While one of these lives, what the thread does is the test's own: not counted, and never failed.
class Shield {
public:
    Shield() noexcept;
    ~Shield();
    Shield(const Shield&) = delete;
    Shield& operator=(const Shield&) = delete;
};

/// While one of these lives, what the thread does is the library's, within a Shield.
class Exposed {
public:
    Exposed() noexcept;
    ~Exposed();
    Exposed(const Exposed&) = delete;
    Exposed& operator=(const Exposed&) = delete;

private:
    const int depth_;
};

bool shielded() noexcept;

/// @name The calling thread's role, and that of the threads that the library starts on it
/// @{
extern thread_local Role role;
extern thread_local Role role_of_started;
/// @}

}  // namespace sweep
