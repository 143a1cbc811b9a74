// Simulated "/usr/lib/libHalcyon_config.so.0.0": the SMS gateway settings from
// [SMS] of the root's /var/lib/sim/sms.conf.
#include "platform/paths.h"
#include "platform/platform_libs.h"
#include "sim/simlib.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>

extern "C" int Get_SMS_config(T_SMS_CONFIG* config);
static_assert(std::is_same_v<decltype(&Get_SMS_config), Get_SMS_config_fn>);

namespace {

template <std::size_t N>
void copy_text(char (&field)[N], const std::string& ini, const char* key)
{
    std::string value;
    sim::ini_value(ini, "SMS", key, value);
    std::size_t n = std::min(value.size(), N - 1);
    memcpy(field, value.data(), n);
    field[n] = '\0';
}

int number(const std::string& ini, const char* key)
{
    std::string value;
    int n = 0;
    return sim::ini_value(ini, "SMS", key, value) && sim::parse_int(value, n) ? n : 0;
}

} // namespace

extern "C" int Get_SMS_config(T_SMS_CONFIG* config)
{
    std::string root = sim::root_of_library(reinterpret_cast<const void*>(&Get_SMS_config));
    sim::journal(root, PATH_LIB_CONFIG, {"Get_SMS_config"}, nullptr);
    if (!config)
        return -1;
    memset(config, 0, sizeof *config);
    std::string ini;
    if (root.empty() || !sim::read_file(root + sim::STATE_DIR + "/sms.conf", ini))
        return -1;
    config->mode = number(ini, "mode");
    config->max_provider = number(ini, "max_provider");
    config->now_provider = number(ini, "now_provider");
    config->using_provider = number(ini, "using_provider");
    copy_text(config->country, ini, "country");
    copy_text(config->country_code, ini, "country_code");
    copy_text(config->phone1, ini, "phone1");
    copy_text(config->phone2, ini, "phone2");
    return 0;
}
