// From a service name to its socket path, shared by servers and clients.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"

extern "C" {

DV_API const char* dv_socket_dir(void)
{
    const char* dir = getenv("DV_SOCKET_DIR");
    return (dir && *dir) ? dir : DV_DEFAULT_SOCKET_DIR;
}

DV_API int dv_sockfile(const char* name, char* buf, size_t size)
{
    if (name[0] == '@') {
        snprintf(buf, size, "%s", name + 1);
        return 0;
    }
    SHA1Context sha1;
    SHA1Reset(&sha1);
    SHA1Input(&sha1, reinterpret_cast<const unsigned char*>(name), static_cast<unsigned>(strlen(name)));
    if (!SHA1Result(&sha1))
        return -1;
    // The first digest word, upper-case hex without leading zeros.
    snprintf(buf, size, "%s/%X.sock", dv_socket_dir(), sha1.Message_Digest[0]);
    return 0;
}

}  // extern "C"
