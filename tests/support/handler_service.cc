#include "support/handler_service.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "support/daemon_process.h"

HandlerService::HandlerService(dv_exec_fn exec, size_t workers)
    : saved_stdout_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)), service_(exec, DV_PTHREAD_MODE | DV_STANDALONE, workers)
{
    root_.make_current();
}

HandlerService::~HandlerService()
{
    service_.stop();
    fflush(stdout);
    dup2(saved_stdout_, STDOUT_FILENO);
    close(saved_stdout_);
}

std::string HandlerService::call(const std::string& command, const std::string& request, int* status, int fd) const
{
    return call_socket(service_.sockfile(), command, request, status, fd);
}
