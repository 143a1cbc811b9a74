// Loading and unloading platform libraries per call, with the loader's
// reasons for a failure in the debug log.
#include "daemon/platform_lib.h"

#include <dlfcn.h>

#include <string>

#include "daemon/log.h"
#include "platform/paths.h"

void* platform_lib_open(const char* library)
{
    const std::string path = platform_path(library);
    void* handle = dlopen(path.c_str(), RTLD_NOW);
    if (!handle) {
        const char* why = dlerror();
        DBG("dlopen %s fail: %s", path.c_str(), why ? why : "unknown");
    }
    return handle;
}

void* platform_lib_symbol(void* handle, const char* library, const char* symbol)
{
    dlerror();  // a null address is only an error when dlerror() says so
    void* address = dlsym(handle, symbol);
    if (!address) {
        const char* why = dlerror();
        DBG("dlsym %s in %s fail: %s", symbol, library, why ? why : "null address");
    }
    return address;
}

void platform_lib_close(void* handle)
{
    if (handle)
        dlclose(handle);
}
