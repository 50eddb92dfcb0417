#include "ctl/print/json.h"

namespace ctl {

JsonLine::JsonLine() : builder(json_builder_new()) {
    json_builder_begin_object(builder);
    add("schema", int64_t{json_schema});
}

JsonLine &JsonLine::add(const char *key, const std::string &value) {
    json_builder_set_member_name(builder, key);
    /* JSON is UTF-8, and a log line may hold anything. */
    g_autofree char *valid = g_utf8_make_valid(value.data(), static_cast<gssize>(value.size()));
    json_builder_add_string_value(builder, valid);
    return *this;
}

JsonLine &JsonLine::add(const char *key, int64_t value) {
    json_builder_set_member_name(builder, key);
    json_builder_add_int_value(builder, value);
    return *this;
}

JsonLine &JsonLine::add(const char *key, bool value) {
    json_builder_set_member_name(builder, key);
    json_builder_add_boolean_value(builder, value ? TRUE : FALSE);
    return *this;
}

JsonLine &JsonLine::add_null(const char *key) {
    json_builder_set_member_name(builder, key);
    json_builder_add_null_value(builder);
    return *this;
}

JsonLine &JsonLine::add_node(const char *key, client::NodeId node) {
    return node != 0 ? add(key, int64_t{node}) : add_null(key);
}

JsonLine &JsonLine::add_element(client::NodeId node) {
    json_builder_add_int_value(builder, node);
    return *this;
}

JsonLine &JsonLine::open_object(const char *key) {
    if (key != nullptr) {
        json_builder_set_member_name(builder, key);
    }
    json_builder_begin_object(builder);
    return *this;
}

JsonLine &JsonLine::close_object() {
    json_builder_end_object(builder);
    return *this;
}

JsonLine &JsonLine::open_array(const char *key) {
    json_builder_set_member_name(builder, key);
    json_builder_begin_array(builder);
    return *this;
}

JsonLine &JsonLine::close_array() {
    json_builder_end_array(builder);
    return *this;
}

std::string JsonLine::text() {
    json_builder_end_object(builder);
    g_autoptr(JsonNode) root = json_builder_get_root(builder);
    g_autofree char *line = json_to_string(root, FALSE);
    return line;
}

void add_snapshot(JsonLine &line, const client::Snapshot &snapshot) {
    line.add("version", snapshot.interface_version)
        .add_node("local_node", snapshot.local_node)
        .add_node("master_node", snapshot.master_node)
        .add("is_master", snapshot.is_master)
        .add("members", int64_t{snapshot.members})
        .add_node("frozen_node", snapshot.frozen_node);
    if (snapshot.frozen_node != 0) {
        line.add("frozen_reason", snapshot.frozen_reason);
    } else {
        line.add_null("frozen_reason");
    }
    line.add("preferred", snapshot.preferred)
        .add("in_transition", snapshot.in_transition)
        .add("devices", int64_t{snapshot.devices});
}

} // namespace ctl
