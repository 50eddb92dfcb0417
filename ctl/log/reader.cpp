#include "ctl/log/reader.h"

#include "base/paths.h"

#include <gio/gio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ctl {

namespace {

/* A step program may write a line without end; no line of the daemon is nearly as long. */
constexpr std::size_t longest_line = 65536;

/* Feeds lines, which may come in pieces of any size. */
class Feeder {
public:
    void feed(const char *bytes, std::size_t length) {
        for (std::size_t i = 0; i < length; i++) {
            if (bytes[i] == '\n') {
                end_line();
            } else if (line.size() < longest_line) {
                line += bytes[i];
            }
        }
    }
    std::vector<Episode> finish() {
        end_line();
        return builder.episodes();
    }

private:
    void end_line() {
        if (line.ends_with('\r')) {
            line.pop_back();
        }
        if (const std::optional<Event> event = parse_event(parse_log_line(line, now))) {
            builder.add(*event);
        }
        line.clear();
    }

    const Clocks now = Clocks::now();
    std::string line;
    EpisodeBuilder builder;
};

LogRead read_stream(std::FILE *stream, const std::string &name) {
    Feeder feeder;
    char buffer[65536];
    std::size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, stream)) > 0) {
        feeder.feed(buffer, got);
    }
    if (std::ferror(stream) != 0) {
        return {{}, "cannot read " + name + ": " + std::strerror(errno)};
    }
    return {feeder.finish(), ""};
}

LogRead read_file(const std::string &name) {
    std::FILE *stream = std::fopen(name.c_str(), "re");
    if (stream == nullptr) {
        return {{}, "cannot open " + name + ": " + std::strerror(errno)};
    }
    LogRead result = read_stream(stream, name);
    std::fclose(stream);
    return result;
}

const char *whose_journal() {
    return geteuid() == 0 ? "" : "; only root and the group systemd-journal may read all of it";
}

constexpr const char *elsewhere = "\nTry to name the daemon's log: --log=FILE";

LogRead read_journal(const std::string &since) {
    const std::string since_option = "--since=" + since;
    constexpr const char *unit_option = "--unit=" DUSKVALE_IDENT;
    const char *words[] = {"journalctl",
                           unit_option,
                           "--output=json",
                           "--output-fields=MESSAGE,SYSLOG_IDENTIFIER",
                           "--no-pager",
                           "--quiet",
                           since.empty() ? nullptr : since_option.c_str(),
                           nullptr};
    g_autoptr(GError) error = nullptr;
    g_autoptr(GSubprocess) journal =
        g_subprocess_newv(words, G_SUBPROCESS_FLAGS_STDOUT_PIPE, &error);
    if (journal == nullptr) {
        return {{}, std::string("cannot read the journal: ") + error->message + elsewhere};
    }
    Feeder feeder;
    char buffer[65536];
    gssize got = 0;
    GInputStream *stream = g_subprocess_get_stdout_pipe(journal);
    while ((got = g_input_stream_read(stream, buffer, sizeof buffer, nullptr, &error)) > 0) {
        feeder.feed(buffer, static_cast<std::size_t>(got));
    }
    if (got < 0 || !g_subprocess_wait_check(journal, nullptr, &error)) {
        return {{},
                std::string("journalctl failed: ") + error->message + whose_journal() + elsewhere};
    }
    LogRead result{feeder.finish(), ""};
    if (result.episodes.empty()) {
        result.fault = "the journal of " DUSKVALE_IDENT " tells nothing";
        result.fault += since.empty() ? "" : " since " + since;
        result.fault += whose_journal();
        result.fault += elsewhere;
    }
    return result;
}

} // namespace

LogRead read_log(const LogSource &source) {
    if (source.file.empty()) {
        return read_journal(source.since);
    }
    return source.file == "-" ? read_stream(stdin, "standard input") : read_file(source.file);
}

} // namespace ctl
