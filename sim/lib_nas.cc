// Simulated "/usr/lib/libHalcyon_NAS.so.0.0": local users and groups from the
// root's /etc/passwd and /etc/group, in file order.
#include "platform/paths.h"
#include "platform/platform_libs.h"
#include "sim/simlib.h"

#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>

extern "C" int Get_Local_User_List_V2(char** list, int, int, int, int* count);
extern "C" int Get_Local_Group_List_V2(char** list, int, int, int, int* count);
extern "C" int Get_NAS_User_List_Of_Group_Ex(const char* group, char*** members);
static_assert(std::is_same_v<decltype(&Get_Local_User_List_V2), Get_Local_User_List_V2_fn>);
static_assert(std::is_same_v<decltype(&Get_Local_Group_List_V2), Get_Local_Group_List_V2_fn>);
static_assert(std::is_same_v<decltype(&Get_NAS_User_List_Of_Group_Ex), Get_NAS_User_List_Of_Group_Ex_fn>);

namespace {

std::string root()
{
    return sim::root_of_library(reinterpret_cast<const void*>(&Get_Local_User_List_V2));
}

// The colon-separated records of an account file; false when it is missing.
bool records(const std::string& root, const char* file, std::vector<std::vector<std::string>>& out)
{
    std::string text;
    if (root.empty() || !sim::read_file(root + file, text))
        return false;
    for (const std::string& line : sim::split_lines(text))
        if (!line.empty() && line[0] != '#')
            out.push_back(sim::split(line, ':'));
    return true;
}

int name_list(const char* file, const char* function, std::size_t width, char** list, int* count)
{
    std::string r = root();
    sim::journal(r, PATH_LIB_NAS, {function}, nullptr);
    std::vector<std::vector<std::string>> recs;
    if (!list || !count || !records(r, file, recs))
        return -1;
    *list = nullptr;
    *count = 0;
    if (recs.empty())
        return 0;
    char* block = static_cast<char*>(calloc(recs.size(), width));
    if (!block)
        return -1;
    for (std::size_t i = 0; i < recs.size(); ++i)
        memcpy(block + i * width, recs[i][0].data(), std::min(recs[i][0].size(), width - 1));
    *list = block;
    *count = static_cast<int>(recs.size());
    return 0;
}

} // namespace

extern "C" int Get_Local_User_List_V2(char** list, int, int, int, int* count)
{
    return name_list("/etc/passwd", "Get_Local_User_List_V2", NAS_USER_ENTRY_LEN, list, count);
}

extern "C" int Get_Local_Group_List_V2(char** list, int, int, int, int* count)
{
    return name_list("/etc/group", "Get_Local_Group_List_V2", NAS_GROUP_ENTRY_LEN, list, count);
}

// Members are the fourth field of the group's record; an empty name between
// two commas comes back as a null entry.
extern "C" int Get_NAS_User_List_Of_Group_Ex(const char* group, char*** members)
{
    std::string r = root();
    sim::journal(r, PATH_LIB_NAS, {"Get_NAS_User_List_Of_Group_Ex", group ? group : ""}, nullptr);
    std::vector<std::vector<std::string>> recs;
    if (!group || !records(r, "/etc/group", recs))
        return -1;
    for (const std::vector<std::string>& rec : recs) {
        if (rec[0] != group)
            continue;
        std::vector<std::string> names;
        if (rec.size() > 3 && !rec[3].empty())
            names = sim::split(rec[3], ',');
        if (members) {
            *members = nullptr;
            if (!names.empty()) {
                char** array = static_cast<char**>(calloc(names.size(), sizeof(char*)));
                if (!array)
                    return -1;
                for (std::size_t i = 0; i < names.size(); ++i)
                    array[i] = names[i].empty() ? nullptr : strdup(names[i].c_str());
                *members = array;
            }
        }
        return static_cast<int>(names.size());
    }
    return -1;
}
