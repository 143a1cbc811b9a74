// The audit lines. Command names come from the caller: they are cut and
// escaped like any request text.
#include "daemon/audit.h"

#include <syslog.h>

#include "daemon/log.h"

namespace {

const char* outcome_text(AuditOutcome outcome)
{
    switch (outcome) {
    case AuditOutcome::replied:
        return "replied";
    case AuditOutcome::input_error:
        return "input error";
    case AuditOutcome::refused:
        return "refused by policy";
    case AuditOutcome::no_reply:
        break;
    }
    return "no reply";
}

}  // namespace

void audit_reply(dv_io* io, const std::string& reply)
{
    RequestAudit* audit = io ? static_cast<RequestAudit*>(dv_io_get(io)) : nullptr;
    if (!audit)
        return;
    const bool input_error = reply.find("\"error_msg\":\"input error\"") != std::string::npos ||
                             reply.find("\"error_msg\":\"paser fail\"") != std::string::npos;
    audit->outcome = input_error ? AuditOutcome::input_error : AuditOutcome::replied;
}

void audit_request(const RequestAudit& audit)
{
    const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::steady_clock::now() - audit.start).count();
    const AuditOutcome outcome = audit.outcome;
    const std::string command = log_text(audit.command);
    DBG("audit: %s \"%s\" pid %d uid %u: %s, %lld ms", audit.service, command.c_str(), audit.pid, audit.uid,
        outcome_text(outcome), ms);
    if (outcome == AuditOutcome::refused)
        syslog(LOG_AUTHPRIV | LOG_NOTICE, "refused %s \"%s\" to pid %d uid %u", audit.service, command.c_str(),
               audit.pid, audit.uid);
}

void audit_refused_connection(const char* service, int pid, unsigned uid)
{
    DBG("audit: %s pid %d uid %u: refused by policy at connect", service, pid, uid);
    syslog(LOG_AUTHPRIV | LOG_NOTICE, "refused %s to pid %d uid %u", service, pid, uid);
}
