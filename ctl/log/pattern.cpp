#include "ctl/log/pattern.h"

namespace ctl {

/* G_REGEX_RAW: a log may hold bytes that are no UTF-8, and the matching must not refuse them. */
Pattern::Pattern(const std::string &pattern)
    : regex(g_regex_new(
          pattern.c_str(),
          static_cast<GRegexCompileFlags>(G_REGEX_RAW | G_REGEX_DOTALL | G_REGEX_OPTIMIZE),
          G_REGEX_MATCH_DEFAULT, nullptr)) {}

Pattern::Pattern(Pattern &&other) noexcept : regex(other.regex) {
    other.regex = nullptr;
}

Pattern::~Pattern() {
    if (regex != nullptr) {
        g_regex_unref(regex);
    }
}

Match::Match(const Pattern &pattern, const std::string &text)
    : matched(g_regex_match_full(pattern.get(), text.data(), static_cast<gssize>(text.size()), 0,
                                 G_REGEX_MATCH_DEFAULT, &info, nullptr) != FALSE) {}

Match::~Match() {
    g_match_info_free(info);
}

std::string Match::group(int number) const {
    gint begin = -1;
    gint end = -1;
    if (!g_match_info_fetch_pos(info, number, &begin, &end) || begin < 0) {
        return {};
    }
    return {g_match_info_get_string(info) + begin, static_cast<std::size_t>(end - begin)};
}

} // namespace ctl
