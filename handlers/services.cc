#include "handlers/services.h"

#include "daemon/dispatch.h"

void service_handler(const char* name, dv_io* io, int fd)
{
    serve_granted(DV_SERVICE_NAME, handler, handler_size, name, io, fd);
}

void sendmail_service_handler(const char* name, dv_io* io, int fd)
{
    serve_granted(DV_SEND_MAIL_SERVICE_NAME, sendmail_handler, sendmail_handler_size, name, io, fd);
}
