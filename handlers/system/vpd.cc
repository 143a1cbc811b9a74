// The hardware's product data (VPD) through hwd_app: the product name, the
// EEPROM key, the channel count, and a slice of the extended area.
#include <cstdio>
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

int system_call_hwdapp_vpdget(const char* obj_index, std::string* out)
{
    char selector[64];
    snprintf(selector, sizeof(selector), "enc_sys_id=root,obj_index=%s", obj_index);
    std::string output;
    if (run_program(PATH_HWD_APP, {"--vpd_get_field", selector}, output) == -1)
        return -2;
    *out = output;

    // The tool prints "KEY = value" and a newline; anything else is not a
    // value we can vouch for.
    std::vector<std::string> parts = str_split_to_vector(output, "=", true);
    if (parts.size() != 2)
        return -2;
    trim_front_and_end(parts[1], " \n");
    *out = parts[1];
    return 0;
}

namespace {

void reply_vpd_field(dv_io* io, const char* obj_index, const char* reply_key, const char* failure)
{
    Json::Value reply;
    std::string value;
    if (system_call_hwdapp_vpdget(obj_index, &value) == 0) {
        reply["result"] = 0;
        reply[reply_key] = value;
    } else {
        set_failure(reply, failure);
    }
    send_reply(io, reply);
}

// The area as hwd_app prints it, every blank and newline removed. -2 when
// the tool cannot be run.
int system_call_hwdapp_vpdget_ext_area(int offset, int length, std::string* out)
{
    char range[32] = {};
    snprintf(range, sizeof(range), "offset=%d,length=%d", offset, length);
    DBG("/sbin/hwd_app --vpd_get_ext_area  %s", range);
    std::string output;
    if (run_program(PATH_HWD_APP, {"--vpd_get_ext_area", range}, output) == -1)
        return -2;
    DBG("str_output=%s", output.c_str());
    trim_char(output, " \n");
    *out = output;
    return 0;
}

}  // namespace

void nox_get_vpd_productnamed_handler(dv_io* io, int)
{
    reply_vpd_field(io, "0:7", "vpd_productnamed", "nox_get_vpd_productnamed_handler fail");
}

void nox_get_vpd_eepkey_handler(dv_io* io, int)
{
    reply_vpd_field(io, "0:8", "vpd_eepkey", "nox_get_vpd_eepkey_handler fail");
}

void nox_get_vpd_channel_handler(dv_io* io, int)
{
    reply_vpd_field(io, "0:9", "vpd_channel", "nox_get_vpd_channel_handler fail");
}

void nox_get_vpd_ext_area_handler(dv_io* io, int)
{
    Json::Value reply;
    int offset = 0, length = 0;
    if (fetch_request_args(io, reply, keys::get_vpd_ext_area, {&offset, &length})) {
        std::string area;
        int ret = system_call_hwdapp_vpdget_ext_area(offset, length, &area);
        if (ret == 0) {
            reply["result"] = 0;
            reply["vpd_ext_area"] = area;
        } else {
            DBG("get vpd area failed, ret=%d", ret);
            set_failure(reply, "nox_get_vpd_ext_area_handler fail");
        }
    }
    send_reply(io, reply);
}
