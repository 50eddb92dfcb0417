#include "cpg/duskvale-cpg.h"

#include "base/log.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

/* Its address is the context of the library's handle, so it never moves. */
struct duskvale_cpg {
    cpg_handle_t handle;
    cpg_name group;
    uint32_t local_nodeid;
    cpg_model_v1_data_t model_data;
    const DuskvaleGCpgAgents *agents;
    void *user_data;
    int fd;
};

namespace {

struct DestroyConnection {
    void operator()(duskvale_cpg *cpg) const { duskvale_cpg_destroy(cpg); }
};

void cpg_deliver_fn(cpg_handle_t handle, const cpg_name *, uint32_t nodeid, uint32_t, void *message,
                    size_t length) noexcept {
    void *context = nullptr;
    if (cpg_context_get(handle, &context) != CS_OK) {
        DUSKVALE_ERR("%s: Failed: cpg_context_get()\n", __func__);
        return;
    }
    const auto *cpg = static_cast<const duskvale_cpg *>(context);
    if (cpg->agents != nullptr && cpg->agents->got_message != nullptr) {
        cpg->agents->got_message(cpg->user_data, nodeid, message, length);
    }
}

/* To standard output, which reaches the log in the background: a list is not a line of its own. */
void print_cpg_addr_list(const char *label, const cpg_address *list, size_t count) {
    for (size_t i = 0; i < count; i++) {
        printf("\t[%d] %s: nodeid=%u pid=%u reason=%u\n", static_cast<int>(i), label,
               list[i].nodeid, list[i].pid, list[i].reason);
    }
    /* Into a pipe it would else wait for a full buffer, and be lost when the process aborts. */
    fflush(stdout);
}

void cpg_confchg_fn(cpg_handle_t handle, const cpg_name *group_name, const cpg_address *,
                    size_t member_count, const cpg_address *left_list, size_t left_count,
                    const cpg_address *joined_list, size_t joined_count) noexcept {
    DUSKVALE_DBG(LogCategory::cpg, "group_name='%.*s'\n", static_cast<int>(group_name->length),
                 group_name->value);
    if (duskvale_debug(LOG_DEBUG, static_cast<int>(LogCategory::cpg))) {
        print_cpg_addr_list("left", left_list, left_count);
        print_cpg_addr_list("joined", joined_list, joined_count);
    }

    void *context = nullptr;
    if (cpg_context_get(handle, &context) != CS_OK) {
        DUSKVALE_ERR("%s: Failed: cpg_context_get()\n", __func__);
        return;
    }
    const auto *cpg = static_cast<const duskvale_cpg *>(context);
    if (cpg->agents == nullptr) {
        return;
    }
    if (cpg->agents->left != nullptr) {
        for (size_t i = 0; i < left_count; i++) {
            cpg->agents->left(cpg->user_data, left_list[i].nodeid, member_count);
        }
    }
    if (cpg->agents->joined != nullptr) {
        for (size_t i = 0; i < joined_count; i++) {
            cpg->agents->joined(cpg->user_data, joined_list[i].nodeid, member_count);
        }
    }
}

/* A change of the ring that leaves the group as it is concerns nobody here. */
void cpg_totem_confchg_fn(cpg_handle_t, cpg_ring_id, uint32_t, const uint32_t *) noexcept {}

} // namespace

cs_error_t duskvale_cpg_new(duskvale_cpg **out, const char *group_name,
                            const DuskvaleGCpgAgents *agents, void *user_data) {
    const size_t name_length = strlen(group_name);
    if (name_length >= CPG_MAX_NAME_LENGTH) {
        DUSKVALE_ERR("Group name of %zu bytes is too long, at most %d are allowed\n", name_length,
                     CPG_MAX_NAME_LENGTH - 1);
        return CS_ERR_NAME_TOO_LONG;
    }
    std::unique_ptr<duskvale_cpg> record(new (std::nothrow) duskvale_cpg{});
    if (record == nullptr) {
        return CS_ERR_NO_MEMORY;
    }
    record->user_data = user_data;
    record->agents = agents;
    record->group.length = static_cast<uint32_t>(name_length);
    memcpy(record->group.value, group_name, name_length);
    record->model_data = {.model = CPG_MODEL_V1,
                          .cpg_deliver_fn = cpg_deliver_fn,
                          .cpg_confchg_fn = cpg_confchg_fn,
                          .cpg_totem_confchg_fn = cpg_totem_confchg_fn,
                          .flags = CPG_MODEL_V1_DELIVER_INITIAL_TOTEM_CONF};

    cs_error_t result = cpg_model_initialize(
        &record->handle, CPG_MODEL_V1, reinterpret_cast<cpg_model_data_t *>(&record->model_data),
        record.get());
    if (result != CS_OK) {
        DUSKVALE_ERR("Failed: cpg_initialize()\n");
        return result;
    }
    /* From here on the library holds the record's address: giving up finalizes the handle first. */
    std::unique_ptr<duskvale_cpg, DestroyConnection> cpg(record.release());

    if ((result = cpg_local_get(cpg->handle, &cpg->local_nodeid)) != CS_OK) {
        DUSKVALE_ERR("Failed: cpg_local_get()\n");
        return result;
    }
    DUSKVALE_DBG(LogCategory::cpg, "Local node: %u\n", cpg->local_nodeid);
    if ((result = cpg_join(cpg->handle, &cpg->group)) != CS_OK) {
        DUSKVALE_ERR("Failed: cpg_join()\n");
        return result;
    }
    if ((result = cpg_fd_get(cpg->handle, &cpg->fd)) != CS_OK) {
        DUSKVALE_ERR("%s: failed getting file descriptor\n", __func__);
        return result;
    }
    DUSKVALE_DBG(LogCategory::cpg, "Joined: Poll fd: %d\n", cpg->fd);
    *out = cpg.release();
    return CS_OK;
}

uint32_t duskvale_cpg_local_nodeid(const duskvale_cpg *cpg) {
    return cpg->local_nodeid;
}

int duskvale_cpg_fd(const duskvale_cpg *cpg) {
    return cpg->fd;
}

cs_error_t duskvale_cpg_send(duskvale_cpg *cpg, const struct iovec *iov, unsigned int count) {
    const cs_error_t result = cpg_mcast_joined(cpg->handle, CPG_TYPE_FIFO, iov, count);
    if (result != CS_OK) {
        DUSKVALE_ERR("Failed: cpg_mcast_joined()\n");
    }
    return result;
}

cs_error_t duskvale_cpg_dispatch(duskvale_cpg *cpg) {
    const cs_error_t result = cpg_dispatch(cpg->handle, CS_DISPATCH_ONE);
    if (result != CS_OK) {
        DUSKVALE_ERR("Failed: cpg_dispatch()\n");
    }
    return result;
}

cs_error_t duskvale_cpg_destroy(duskvale_cpg *cpg) {
    if (cpg_finalize(cpg->handle) != CS_OK) {
        /* The handle lives on and still points to the record. */
        DUSKVALE_ERR("Failed: cpg_finalize()\n");
        return CS_OK;
    }
    delete cpg;
    return CS_OK;
}
