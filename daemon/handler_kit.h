// What a command handler includes: reading its request (daemon/request.h),
// running platform programs (daemon/program.h), replying (daemon/reply.h),
// the app's registry values, INI files, strings and the debug log. Each handler reads top to
// bottom: fetch its arguments, do its work, set its reply keys, reply.
#pragma once

#include "daemon/app_values.h"
#include "daemon/ini.h"
#include "daemon/log.h"
#include "daemon/program.h"
#include "daemon/reply.h"
#include "daemon/request.h"
#include "daemon/strutil.h"
