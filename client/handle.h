/*
 * Owners for what GLib hands out. A local variable that never leaves its function may as well be a
 * g_autoptr; these can be members, arguments and results.
 */
#pragma once

#include <glib-object.h>

#include <memory>
#include <utility>

namespace client {

template <auto release>
struct Release {
    template <typename T>
    void operator()(T *handle) const {
        release(handle);
    }
};

template <typename T>
using Object = std::unique_ptr<T, Release<g_object_unref>>;
using Variant = std::unique_ptr<GVariant, Release<g_variant_unref>>;
using Error = std::unique_ptr<GError, Release<g_error_free>>;

/* Owns the reference to a new GVariant that is still floating. */
inline Variant owned(GVariant *floating) {
    return Variant(g_variant_ref_sink(floating));
}

/*
 * Owns a source of the default main context by its id: removes it from there when it goes. A
 * callback that removes its own source (G_SOURCE_REMOVE) must call release() first.
 */
class Source {
public:
    Source() = default;
    explicit Source(guint source_id) : id(source_id) {}
    Source(Source &&other) noexcept : id(std::exchange(other.id, 0)) {}
    Source &operator=(Source &&other) noexcept {
        std::swap(id, other.id);
        return *this;
    }
    ~Source() {
        if (id != 0) {
            g_source_remove(id);
        }
    }

    explicit operator bool() const { return id != 0; }
    void release() { id = 0; }

private:
    guint id = 0;
};

} // namespace client
