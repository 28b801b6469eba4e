#include "words.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

#include "failure.h"

namespace jovu_cli {
namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

}  // namespace

std::vector<std::string> split_words(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    bool in_word = false;
    char quote = '\0';
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\\' && quote != '\'') {
            if (++i == line.size()) {
                throw Failure(ExitCode::usage, "nothing follows the backslash: " + line);
            }
            word += line[i];
            in_word = true;
        } else if (quote != '\0') {
            if (c == quote) {
                quote = '\0';
            } else {
                word += c;
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
            in_word = true;
        } else if (!is_blank(c)) {
            word += c;
            in_word = true;
        } else if (in_word) {
            words.push_back(word);
            word.clear();
            in_word = false;
        }
    }
    if (quote != '\0') {
        throw Failure(ExitCode::usage, "a quote is not closed: " + line);
    }
    if (in_word) {
        words.push_back(word);
    }
    return words;
}

std::string lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace jovu_cli
