#include "failure.h"

#include "output.h"

namespace jovu_cli {

void print_failure(const Failure& failure) {
    const std::string what = failure.what();
    if (what.empty()) {
        return;
    }
    const std::string hint = failure.hint().empty() ? "" : " (" + failure.hint() + ")";
    print_error("jovu: " + what + hint);
}

}  // namespace jovu_cli
