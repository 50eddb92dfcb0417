#include "ctl/print/text.h"

#include "ctl/exit-status.h"

#include <glib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ctl {

namespace {

bool colours_wanted() {
    const char *forbidden = std::getenv("NO_COLOR");
    const char *terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (forbidden == nullptr || *forbidden == '\0') &&
           terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

/* In the order of Colour. */
constexpr const char *escape_codes[] = {"", "\033[32m", "\033[33m", "\033[1;31m", "\033[2m"};

std::string local_time(int64_t time, const char *format) {
    g_autoptr(GDateTime) local = g_date_time_new_from_unix_local(time / G_USEC_PER_SEC);
    g_autofree char *text = g_date_time_format(local, format);
    return text;
}

std::string thousandths(int64_t time) {
    char text[8];
    std::snprintf(text, sizeof text, ".%03d", static_cast<int>(time % G_USEC_PER_SEC / 1000));
    return text;
}

} // namespace

std::string paint(Colour colour, const std::string &text) {
    static const bool wanted = colours_wanted();
    if (!wanted || colour == Colour::plain) {
        return text;
    }
    return escape_codes[static_cast<std::size_t>(colour)] + text + "\033[0m";
}

std::string node_text(client::NodeId node) {
    return "node " + std::to_string(node);
}

std::string counted(uint64_t count, const char *noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string signal_text(int number) {
    return "signal " + std::to_string(number) + " (" + strsignal(number) + ")";
}

std::string wait_status_text(int status) {
    if (WIFSIGNALED(status)) {
        return "killed by " + signal_text(WTERMSIG(status));
    }
    return status == 0 ? "" : "exited with status " + std::to_string(WEXITSTATUS(status));
}

std::string file_name(const std::string &path) {
    return printable(path.substr(path.rfind('/') + 1));
}

std::string printable(const std::string &text) {
    g_autofree char *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    std::string result;
    for (const char *at = valid; *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar character = g_utf8_get_char(at);
        const GUnicodeType type = g_unichar_type(character);
        if (!g_unichar_isprint(character) || type == G_UNICODE_LINE_SEPARATOR ||
            type == G_UNICODE_PARAGRAPH_SEPARATOR) {
            char code[16];
            std::snprintf(code, sizeof code, character < 0x100 ? "\\x%02x" : "\\u%04x", character);
            result += code;
        } else {
            result.append(at, static_cast<std::size_t>(g_utf8_next_char(at) - at));
        }
    }
    return result;
}

std::string reason_text(const std::string &reason) {
    return reason.empty() ? "no reason given" : printable(reason);
}

std::string clock_text(int64_t time) {
    return local_time(time, "%H:%M:%S") + thousandths(time);
}

std::string date_clock_text(int64_t time) {
    return local_time(time, "%Y-%m-%d %H:%M:%S") + thousandths(time);
}

std::string iso_text(int64_t time) {
    return local_time(time, "%Y-%m-%dT%H:%M:%S") + thousandths(time) + local_time(time, "%:z");
}

std::string duration_text(std::chrono::microseconds duration) {
    const double seconds = std::chrono::duration<double>(duration).count();
    char text[48];
    if (duration < std::chrono::seconds(1)) {
        const auto whole = std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
        std::snprintf(text, sizeof text, "%lld ms", static_cast<long long>(whole));
    } else if (seconds < 60) {
        std::snprintf(text, sizeof text, "%.1f s", seconds);
    } else {
        const auto whole = static_cast<long>(seconds);
        std::snprintf(text, sizeof text, "%ld min %ld s", whole / 60, whole % 60);
    }
    return text;
}

std::string column(std::string text, std::size_t width) {
    text.resize(std::max(width, text.size() + 1), ' ');
    return text;
}

int complain(int status, const std::string &text) {
    std::fprintf(stderr, "duskvalectl: %s\n", text.c_str());
    return status;
}

/* The first fault of the output: a later write may fail in another way, or not at all. */
static int output_fault = 0;

static bool succeeded(bool success) {
    if (!success && output_fault == 0) {
        output_fault = errno;
    }
    return success;
}

bool print(const std::string &text) {
    return succeeded(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

bool print_line(const std::string &text) {
    return print(text + "\n") && succeeded(std::fflush(stdout) == 0);
}

int finish_output(int status, int failed) {
    succeeded(std::fflush(stdout) == 0);
    /* Who closes a pipe has seen enough. */
    if (output_fault == 0 || output_fault == EPIPE) {
        return status;
    }
    return complain(failed, std::string("cannot write the output: ") + std::strerror(output_fault));
}

} // namespace ctl
