// The framework's own answer to DV_DESCRIBE_COMMAND (see dv.h).
#pragma once

#include "dv.h"

// When io asks for the description and the service registered one: replies
// with it, closes extra (when >= 0), frees io and returns true. Otherwise
// touches nothing and returns false: the request goes to the service.
bool dv_answer_description(dv_handle* service_handle, dv_io* io, int extra);
