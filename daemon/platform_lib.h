// Calling one function of a platform library: load it for this call only
// (dlopen with immediate binding), look the function up, call it, unload.
// The platform may replace its libraries at any time, so nothing is kept
// loaded between requests.
#pragma once

#include <atomic>

// The library at its platform path (under the platform root), or null when
// it cannot be loaded; the reason goes to the debug log.
void* platform_lib_open(const char* library);
// The address of symbol in an opened library, or null (logged).
void* platform_lib_symbol(void* handle, const char* library, const char* symbol);
void platform_lib_close(void* handle);

// Loads library, looks symbol up and stores its address in slot (the
// process-wide p_<function> pointer), calls call(function) and unloads the
// library again before returning. False, with nothing called, when the
// library or the symbol is missing. Whatever call() leaves behind must not
// point into the library: it is gone once this returns.
//
// Concurrent calls all store the same address; the slot is atomic so that
// doing so is well defined, and each call goes through the address it has
// just looked up itself.
template <class Fn, class Call>
bool call_platform_function(const char* library, const char* symbol, std::atomic<Fn>& slot, Call&& call)
{
    void* handle = platform_lib_open(library);
    if (!handle)
        return false;
    Fn fn = reinterpret_cast<Fn>(platform_lib_symbol(handle, library, symbol));
    slot.store(fn, std::memory_order_relaxed);
    if (fn)
        call(fn);
    platform_lib_close(handle);
    return fn != nullptr;
}
