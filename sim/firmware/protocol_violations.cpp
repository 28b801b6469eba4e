#include "firmware/protocol_violations.h"

#include <cstdio>
#include <utility>

namespace jovusim {

namespace {
constexpr std::size_t kRemembered = 8;
constexpr std::size_t kPendingLimit = 256;
constexpr std::size_t kExcerptLength = 120;
}  // namespace

void ProtocolViolations::add(std::string sentence) {
    ++count_;
    last_.push_back(sentence);
    if (last_.size() > kRemembered) last_.pop_front();
    // A host that floods the model with rubbish must not make it grow; the count stays exact.
    if (pending_.size() < kPendingLimit) pending_.push_back(std::move(sentence));
}

std::vector<std::string> ProtocolViolations::take() {
    return std::exchange(pending_, {});
}

Json ProtocolViolations::stats() const {
    return {{"count", count_}, {"last", last_}};
}

std::string excerpt(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (out.size() >= kExcerptLength) return out + "...";
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F) {
            out += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
            out += escaped;
        }
    }
    return out;
}

}  // namespace jovusim
