/* How things are written for programs: JSON, a line each. */
#pragma once

#include "client/snapshot.h"

#include <json-glib/json-glib.h>

#include <cstdint>
#include <string>

namespace ctl {

/* Grows by one with each change that a program could notice other than an added key. */
constexpr int json_schema = 1;

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
    JsonLine &add_node(const char *key, client::NodeId node);
    /* A node id in an array. */
    JsonLine &add_element(client::NodeId node);
    JsonLine &open_object(const char *key); /* null inside an array */
    JsonLine &close_object();
    JsonLine &open_array(const char *key);
    JsonLine &close_array();
    /* The whole object, without the newline. No more can be added then. */
    std::string text();

private:
    JsonBuilder *builder;
};

void add_snapshot(JsonLine &line, const client::Snapshot &snapshot);

} // namespace ctl
