// HandlerService: SimRoot + debug log + TestService, and one-line calls.
#include "support/handler_service.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

StdoutKeeper::StdoutKeeper() : saved_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {}

StdoutKeeper::~StdoutKeeper()
{
    if (saved_ < 0)
        return;
    fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
}

HandlerService::HandlerService(dv_exec_fn exec, size_t workers) : service_(exec, DV_PTHREAD_MODE | DV_STANDALONE, workers)
{
    root_.make_current();
}

std::string HandlerService::call(const std::string& command, const std::string& request, int* status, int fd,
                                 unsigned timeout_s) const
{
    void* recv = nullptr;
    size_t rsize = 0;
    int rc = dv_ez_call(name().c_str(), command.c_str(), request.data(), request.size(), &recv, &rsize, timeout_s, fd);
    if (status)
        *status = rc;
    std::string reply;
    if (rc == DV_STATUS_OK && recv)
        reply.assign(static_cast<const char*>(recv), rsize);
    free(recv);
    return reply;
}
