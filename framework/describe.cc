// Introspection: a service's description of itself, kept on its handle and
// sent back to whoever asks with the reserved command name.
#include "describe.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "internal.h"

extern "C" DV_API int dv_set_description(dv_handle* service_handle, const char* json)
{
    if (!service_handle || service_handle->magic != DV_HANDLE_MAGIC)
        dv_abort("[ABORT] @%s() cannot describe incorrect dv_handle %p: `%s'\n", "dv_set_description",
                 static_cast<const void*>(service_handle),
                 "service_handle && (*(u_int32_t*) service_handle == DV_HANDLE_MAGIC)");
    char* copy = nullptr;
    if (json && !(copy = strdup(json)))
        return -1;
    // Consumers read it without a lock: it goes in whole or not at all.
    free(__atomic_exchange_n(&service_handle->description, copy, __ATOMIC_ACQ_REL));
    return 0;
}

bool dv_answer_description(dv_handle* service_handle, dv_io* io, int extra)
{
    const char* text = __atomic_load_n(&service_handle->description, __ATOMIC_ACQUIRE);
    if (!text || strcmp(io->name, DV_DESCRIBE_COMMAND) != 0)
        return false;
    if (extra >= 0)
        close(extra);
    // The description is the whole reply; a client whose file cannot take
    // it loses its reply, as with any other.
    if (dv_io_alive(io)) {
        dv_io_realloc(io, 0);
        dv_io_write(io, text, strlen(text));
        dv_reply(io);
    }
    dv_io_free(io);
    return true;
}
