/* How things are written for eyes. */
#pragma once

#include "client/node-id.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace ctl {

enum class Colour { plain, good, doubtful, bad, faint };

/* `text`, coloured when standard output is a terminal that has colours and nobody forbids it
   (NO_COLOR). */
std::string paint(Colour colour, const std::string &text);

/* "node 3232235777" */
std::string node_text(client::NodeId node);
/* "1 member", "3 members" */
std::string counted(uint64_t count, const char *noun);
/* "signal 15 (Terminated)" */
std::string signal_text(int number);
/* "exited with status 2", "killed by signal 15 (Terminated)"; "" for success. */
std::string wait_status_text(int status);
/* The last part of a path, safe for a terminal. */
std::string file_name(const std::string &path);
/* `text` on one line: what is not visible (control characters, marks of direction, separators of
   lines) as \xNN or \uNNNN, and every invalid byte as U+FFFD. Texts of other nodes must not steer
   the reader's terminal, nor hide anything from the reader. */
std::string printable(const std::string &text);

/* The reason of a freeze, safe for a terminal. */
std::string reason_text(const std::string &reason);

/* Microseconds since 1970 as local time: "12:03:04.512", "2024-05-01 12:03:04.512", and RFC 3339
   with the zone's offset. */
std::string clock_text(int64_t time);
std::string date_clock_text(int64_t time);
std::string iso_text(int64_t time);
/* "20 ms", "3.2 s", "2 min 5 s" */
std::string duration_text(std::chrono::microseconds duration);

/* `text` and the blanks up to the next column, which is `width` wide; at least one blank. */
std::string column(std::string text, std::size_t width);

/* Writes a line of `text` on standard error; returns `status`. */
int complain(int status, const std::string &text);

/* Prints on standard output. False when it could not be written: the reader has gone. */
bool print(const std::string &text);
/* The same with a newline, written out at once. */
bool print_line(const std::string &text);

/* Writes out what is buffered; `failed`, with a message, when not all could be written, else
   `status`. That a reader had enough and closed the pipe is not a failure. */
int finish_output(int status, int failed);

} // namespace ctl
