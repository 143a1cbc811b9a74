// One audit line per request in the debug log: the service, the command, who
// called (pid and uid), how it ended and how long it took. Refusals go to
// syslog (LOG_AUTHPRIV) as well.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <string>

#include "dv.h"

enum class AuditOutcome { no_reply, replied, input_error, refused };

// Lives on the dispatcher's stack for one request; the message object points
// at it (dv_io_set) so that the reply can say how the request ended.
struct RequestAudit {
    RequestAudit(const char* service, const char* command, int pid, unsigned uid)
        : service(service), command(command ? command : ""), pid(pid), uid(uid)
    {
    }
    const char* service;
    std::string command;
    int pid;
    unsigned uid;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::atomic<AuditOutcome> outcome{AuditOutcome::no_reply};
};

// Notes on the request's audit record (if io carries one) that reply went
// out: an input error ("input error", "paser fail") or any other reply.
void audit_reply(dv_io* io, const std::string& reply);
// The request's line, written once it is over.
void audit_request(const RequestAudit& audit);
// A connection the policy did not let in.
void audit_refused_connection(const char* service, int pid, unsigned uid);
