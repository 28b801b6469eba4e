// SPDX-License-Identifier: Apache-2.0
#include "json/json_tree.h"

#include <yajl/yajl_parse.h>

#include <array>
#include <cerrno>
#include <cfloat>
#include <charconv>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "json/arena.h"

namespace jovu {
namespace {

/// As strtod() of the "C" locale.
double read_double(const char* digits) noexcept {
    // Made once and kept; null if the C library cannot make it, and then the application's locale
    // decides.
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return locale == nullptr ? std::strtod(digits, nullptr) : ::strtod_l(digits, nullptr, locale);
}

/// Reads a number as yajl's own tree does: the integer when the number is written as one and its
/// magnitude fits, else the limit on its side; the floating-point number in any case.
/// @param digits a JSON number of @p length, followed by a NUL; the node refers to it.
void set_number(yajl_val_s& node, char* digits, std::size_t length) noexcept {
    auto& number = node.u.number;
    const bool negative = *digits == '-';
    const char* const end = digits + length;
    number.r = digits;
    number.flags = 0;
    const auto whole = std::from_chars(digits + (negative ? 1 : 0), end, number.i);
    if (whole.ec == std::errc() && whole.ptr == end) {
        number.d = static_cast<double>(number.i);
        if (negative) {
            number.i = -number.i;
            number.d = -number.d;
        }
        number.flags = YAJL_NUMBER_INT_VALID | YAJL_NUMBER_DOUBLE_VALID;
        return;
    }
    number.i = negative ? LLONG_MIN : LLONG_MAX;
    const auto real = std::from_chars(static_cast<const char*>(digits), end, number.d);
    if (real.ec != std::errc() || std::abs(number.d) <= DBL_MIN) {
        // Too large or too small: the C library decides what the value is, and whether it counts.
        errno = 0;
        number.d = read_double(digits);
        if (errno != 0) return;
    }
    number.flags = YAJL_NUMBER_DOUBLE_VALID;
}

/// What yajl's parser of one text allocates. It does not check for null, so there has to be enough
/// from the start: its state, and two buffers for strings, each allocated anew with twice its size
/// as it fills, of which no more bytes than the text has go into both.
class ParserMemory {
public:
    /// @throws std::bad_alloc
    explicit ParserMemory(std::size_t text_length)
        : large_(needed(text_length) > sizeof own_ ? new unsigned char[needed(text_length)]
                                                   : nullptr),
          arena_(large_ != nullptr ? large_.get() : own_,
                 large_ != nullptr ? needed(text_length) : sizeof own_),
          functions_(arena_.yajl_functions()) {}

    yajl_alloc_funcs* functions() noexcept { return &functions_; }

private:
    static constexpr std::size_t kState = 2048;
    static constexpr std::size_t kFirstBuffers = std::size_t{2} * 2048;

    static constexpr std::size_t needed(std::size_t text_length) noexcept {
        return kState + kFirstBuffers + 4 * text_length;
    }

    alignas(std::max_align_t) unsigned char own_[12U << 10U];
    std::unique_ptr<unsigned char[]> large_;
    Arena arena_;
    yajl_alloc_funcs functions_;
};

struct ParserFree {
    void operator()(yajl_handle_t* parser) const noexcept { yajl_free(parser); }
};

}  // namespace

/// One tree's nodes, and the state of its parsing: yajl reports what it reads to the callbacks.
/// None of them throws, since it would be through yajl's frames. Without memory they end the
/// parsing, and parse() throws afterwards.
class JsonDocument {
public:
    JsonDocument() noexcept : arena_(kept_, sizeof kept_) {}
    JsonDocument(const JsonDocument&) = delete;
    JsonDocument& operator=(const JsonDocument&) = delete;

    /// @return the root; null when the text is not taken.
    yajl_val parse(std::string_view text) {
        constexpr yajl_callbacks kCallbacks{add_constant<yajl_t_null>,
                                            add_bool,
                                            nullptr,
                                            nullptr,
                                            add_number,
                                            add_string,
                                            open<yajl_t_object>,
                                            set_key,
                                            close,
                                            open<yajl_t_array>,
                                            close};
        text = text.substr(0, text.find('\0'));
        ParserMemory memory(text.size());
        const std::unique_ptr<yajl_handle_t, ParserFree> parser(
            yajl_alloc(&kCallbacks, memory.functions(), this));
        if (parser == nullptr) throw std::bad_alloc();
        const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
        const bool complete = yajl_parse(parser.get(), bytes, text.size()) == yajl_status_ok &&
                              yajl_complete_parse(parser.get()) == yajl_status_ok;
        if (out_of_memory_) throw std::bad_alloc();
        return complete ? &open_[0].first->value : nullptr;
    }

    void clear() noexcept {
        arena_.clear();
        depth_ = 0;
        open_[0] = {};
        out_of_memory_ = false;
    }

private:
    /// A node, its key if it is the member of an object, and the next one of its owner.
    struct Node {
        yajl_val_s value;  ///< First: what is handed out is its address.
        const char* key;
        Node* next;
    };

    /// An object or array that is not complete yet; in front of them the document.
    struct Open {
        Node* owner = nullptr;
        Node* first = nullptr;
        Node* last = nullptr;
        std::size_t count = 0;
        const char* key = nullptr;  ///< Of the member that comes next.
    };

    static JsonDocument& of(void* self) noexcept { return *static_cast<JsonDocument*>(self); }

    /// @return null, with out_of_memory_ set, when there is no memory.
    void* take(std::size_t size) noexcept {
        void* const memory = arena_.take(size);
        if (memory == nullptr) out_of_memory_ = true;
        return memory;
    }

    /// Adds a node to the innermost object or array.
    /// @param extra bytes behind it.
    Node* add(yajl_type type, std::size_t extra = 0) noexcept {
        auto* const node = static_cast<Node*>(take(sizeof(Node) + extra));
        if (node == nullptr) return nullptr;
        Open& innermost = open_[depth_];
        node->value.type = type;
        node->key = innermost.key;
        node->next = nullptr;
        (innermost.last != nullptr ? innermost.last->next : innermost.first) = node;
        innermost.last = node;
        ++innermost.count;
        return node;
    }

    /// Copies a string that yajl has read, and a NUL behind it.
    static char* copy(void* to, const void* from, std::size_t length) noexcept {
        auto* const string = static_cast<char*>(to);
        std::memcpy(string, from, length);
        string[length] = '\0';
        return string;
    }

    template <yajl_type type>
    static int add_constant(void* self) noexcept {
        return of(self).add(type) != nullptr ? 1 : 0;
    }

    static int add_bool(void* self, int value) noexcept {
        return value != 0 ? add_constant<yajl_t_true>(self) : add_constant<yajl_t_false>(self);
    }

    static int add_number(void* self, const char* digits, std::size_t length) noexcept {
        Node* const node = of(self).add(yajl_t_number, length + 1);
        if (node == nullptr) return 0;
        set_number(node->value, copy(node + 1, digits, length), length);
        return 1;
    }

    static int add_string(void* self, const unsigned char* bytes, std::size_t length) noexcept {
        Node* const node = of(self).add(yajl_t_string, length + 1);
        if (node == nullptr) return 0;
        node->value.u.string = copy(node + 1, bytes, length);
        return 1;
    }

    static int set_key(void* self, const unsigned char* bytes, std::size_t length) noexcept {
        JsonDocument& document = of(self);
        void* const memory = document.take(length + 1);
        if (memory == nullptr) return 0;
        document.open_[document.depth_].key = copy(memory, bytes, length);
        return 1;
    }

    template <yajl_type type>
    static int open(void* self) noexcept {
        JsonDocument& document = of(self);
        if (document.depth_ == kMaxJsonDepth) return 0;
        Node* const node = document.add(type);
        if (node == nullptr) return 0;
        document.open_[++document.depth_] = {node};
        return 1;
    }

    static int close(void* self) noexcept {
        JsonDocument& document = of(self);
        const Open& closed = document.open_[document.depth_--];
        const std::size_t count = closed.count;
        yajl_val_s& owner = closed.owner->value;
        const bool is_object = owner.type == yajl_t_object;
        yajl_val* values = nullptr;
        const char** keys = nullptr;
        if (count != 0) {
            values = static_cast<yajl_val*>(document.take(count * sizeof(yajl_val)));
            if (is_object) keys = static_cast<const char**>(document.take(count * sizeof(char*)));
            if (document.out_of_memory_) return 0;
        }
        Node* node = closed.first;
        for (std::size_t i = 0; i < count; ++i, node = node->next) {
            values[i] = &node->value;
            if (is_object) keys[i] = node->key;
        }
        if (is_object) {
            owner.u.object = {keys, values, count};
        } else {
            owner.u.array = {values, count};
        }
        return 1;
    }

    alignas(std::max_align_t) unsigned char kept_[kKeptJsonBytes];
    Arena arena_;
    std::array<Open, kMaxJsonDepth + 1> open_;
    std::size_t depth_ = 0;
    bool out_of_memory_ = false;
};

JsonMemory::JsonMemory() noexcept = default;
JsonMemory::~JsonMemory() = default;

JsonTree::JsonTree(std::string_view text)
    : memory_(nullptr),
      document_(std::make_unique<JsonDocument>()),
      root_(document_->parse(text)) {}

JsonTree::JsonTree(std::string_view text, JsonMemory& memory)
    : memory_(&memory), document_(std::move(memory.spare_)) {
    if (document_ == nullptr) document_ = std::make_unique<JsonDocument>();
    root_ = document_->parse(text);
}

JsonTree::~JsonTree() {
    if (memory_ == nullptr) return;
    document_->clear();
    memory_->spare_ = std::move(document_);
}

}  // namespace jovu
