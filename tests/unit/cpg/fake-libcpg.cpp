#include "fake-libcpg.h"

#include <cstring>

static FakeLibcpg &lib() {
    return *FakeLibcpg::current;
}

cs_error_t cpg_model_initialize(cpg_handle_t *handle, cpg_model_t, cpg_model_data_t *model,
                                void *context) {
    memcpy(&lib().model, model, sizeof lib().model);
    *handle = FakeLibcpg::the_handle;
    const cs_error_t result = lib().called(__func__, " " + std::to_string(lib().model.flags));
    lib().context = result == CS_OK ? context : nullptr;
    return result;
}

cs_error_t cpg_finalize(cpg_handle_t handle) {
    EXPECT_EQ(handle, FakeLibcpg::the_handle);
    const cs_error_t result = lib().called(__func__);
    lib().context = result == CS_OK ? nullptr : lib().context;
    return result;
}

cs_error_t cpg_context_get(cpg_handle_t handle, void **context) {
    EXPECT_EQ(handle, FakeLibcpg::the_handle);
    *context = lib().context;
    return lib().results.contains(__func__) ? lib().results[__func__] : CS_OK;
}

cs_error_t cpg_local_get(cpg_handle_t, unsigned int *nodeid) {
    *nodeid = FakeLibcpg::local_node;
    return lib().called(__func__);
}

cs_error_t cpg_join(cpg_handle_t, const cpg_name *group) {
    /* Bytes behind a name's length mean nothing: a reader that does not mind the length shows them.
     */
    memset(lib().group.value, '#', sizeof lib().group.value);
    memcpy(lib().group.value, group->value, group->length);
    lib().group.length = group->length;
    return lib().called(__func__, " " + std::string(group->value, group->length));
}

cs_error_t cpg_fd_get(cpg_handle_t, int *fd) {
    *fd = lib().fd;
    return lib().called(__func__);
}

cs_error_t cpg_mcast_joined(cpg_handle_t, cpg_guarantee_t guarantee, const iovec *iov,
                            unsigned int count) {
    std::string bytes = " " + std::to_string(guarantee) + ":";
    for (unsigned int i = 0; i < count; i++) {
        bytes.append(static_cast<const char *>(iov[i].iov_base), iov[i].iov_len);
    }
    return lib().called(__func__, bytes);
}

cs_error_t cpg_dispatch(cpg_handle_t, cs_dispatch_flags_t types) {
    EXPECT_EQ(types, CS_DISPATCH_ONE);
    const cs_error_t scripted = lib().called(__func__);
    return scripted == CS_OK ? lib().dispatch_one() : scripted;
}
