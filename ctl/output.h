/* How things are written: for eyes, and as JSON for programs. */
#pragma once

#include "ctl/notice.h"
#include "ctl/problem.h"
#include "ctl/snapshot.h"

#include <json-glib/json-glib.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace ctl {

/* Grows by one with each change that a program could notice other than an added key. */
constexpr int json_schema = 1;

enum class Colour { plain, good, doubtful, bad, faint };

/* `text`, coloured when standard output is a terminal that has colours and nobody forbids it
   (NO_COLOR). */
std::string paint(Colour colour, const std::string &text);

/* "node 3232235777" */
std::string node_text(uint32_t node);
/* "1 member", "3 members" */
std::string counted(uint64_t count, const char *noun);
/* The last part of a path, safe for a terminal. */
std::string file_name(const std::string &path);
/* `text` with every control character as \xNN and every invalid byte as U+FFFD: texts of other
   nodes must not steer the reader's terminal. */
std::string printable(const std::string &text);

/* Microseconds since 1970 as local time: "12:03:04.512", "2024-05-01 12:03:04.512", and RFC 3339
   with the zone's offset. */
std::string clock_text(int64_t time);
std::string date_clock_text(int64_t time);
std::string iso_text(int64_t time);
/* "20 ms", "3.2 s", "2 min 5 s" */
std::string duration_text(std::chrono::microseconds duration);

/* A JSON object under construction; written as one line. */
class JsonLine {
public:
    JsonLine(); /* opens with the schema number */
    JsonLine(const JsonLine &) = delete;
    JsonLine &operator=(const JsonLine &) = delete;
    ~JsonLine() { g_object_unref(builder); }

    JsonLine &add(const char *key, const std::string &value);
    JsonLine &add(const char *key, const char *value) { return add(key, std::string(value)); }
    JsonLine &add(const char *key, int64_t value);
    JsonLine &add(const char *key, bool value);
    JsonLine &add_null(const char *key);
    /* A node id; null when it is 0. */
    JsonLine &add_node(const char *key, uint32_t node);
    /* A node id in an array. */
    JsonLine &add_element(uint32_t node);
    JsonLine &open_object(const char *key); /* null inside an array */
    JsonLine &close_object();
    JsonLine &open_array(const char *key);
    JsonLine &close_array();
    /* The whole object, without the newline. No more can be added then. */
    std::string text();

private:
    JsonBuilder *builder;
};

void add_snapshot(JsonLine &line, const Snapshot &snapshot);
void add_problem(JsonLine &line, const Problem &problem);
void add_notice(JsonLine &line, const Notice &notice);

/* Prints on standard output. False when it could not be written: the reader has gone. */
bool print(const std::string &text);
/* The same with a newline, written out at once. */
bool print_line(const std::string &text);

/* Writes out what is buffered; Exit::failed, with a message, when not all could be written, else
   `status`. A reader who had enough and closed the pipe is no failure. */
int finish_output(int status);

} // namespace ctl
