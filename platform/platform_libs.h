// The platform libraries' functions as the daemon sees them: one function-pointer
// type per symbol looked up with dlsym, and the records and buffer sizes they use.
// Shared by the handlers that load the libraries and by the simulated libraries.
#pragma once

#include <cstddef>

// Session user names come back in a buffer of the daemon's own, zeroed before
// the call; the platform's longest user name fits with room to spare.
inline constexpr std::size_t AUTH_USER_BUF_LEN = 256;

// The user and group lists are one malloc'd block of fixed-width,
// NUL-terminated names: entry i starts at i * width.
inline constexpr std::size_t NAS_USER_ENTRY_LEN = 33;   // names of up to 32 characters
inline constexpr std::size_t NAS_GROUP_ENTRY_LEN = 257; // names of up to 256 characters

// The SMS gateway settings, filled in by Get_SMS_config. Texts are
// NUL-terminated within their fields.
struct T_SMS_CONFIG {
    int mode;
    int max_provider;
    int now_provider;
    int using_provider;
    char country[16];
    char country_code[16];
    char phone1[32];
    char phone2[32];
};
static_assert(sizeof(T_SMS_CONFIG) == 112, "the platform's SMS record is 112 bytes");

// "/usr/lib/libHalcyon_nasauth.so.1.0.0"
// Registers a login session; extra is always "". 0 on success.
using auth_add_session_fn = int (*)(const char* sid, const char* user, int type, const char* extra);
// Finds a session's user and writes it, NUL-terminated, into user_buf
// (AUTH_USER_BUF_LEN bytes). 0 on success.
using auth_get_session_fn = int (*)(const char* sid, int type, char* user_buf);

// "/usr/lib/libHalcyon_NAS.so.0.0"
// Stores a malloc'd block of *count entries (NAS_USER_ENTRY_LEN or
// NAS_GROUP_ENTRY_LEN wide) in *list; the caller frees it. The three ints
// in the middle are always 0. Negative on error.
using Get_Local_User_List_V2_fn = int (*)(char** list, int, int, int, int* count);
using Get_Local_Group_List_V2_fn = int (*)(char** list, int, int, int, int* count);
// Returns the member count of group, negative on error. With a non-null
// members it stores a malloc'd array of that many malloc'd names; an entry may
// be null. The caller frees every entry and then the array.
using Get_NAS_User_List_Of_Group_Ex_fn = int (*)(const char* group, char*** members);

// "/usr/lib/libHalcyon_config.so.0.0"
// Fills the record; its result is not used.
using Get_SMS_config_fn = int (*)(T_SMS_CONFIG* config);
