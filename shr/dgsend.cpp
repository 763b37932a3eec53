#include "shr/dgsend.h"

namespace {
dg_send_fn sender = nullptr;
int via_fd = -1;
}  // namespace

void dg_set_sender(dg_send_fn fn)
{
    sender = fn;
}

int dg_send(DgWay way, const uint8_t* data, int len, const UniAddr* to)
{
    return sender != nullptr ? sender(way, via_fd, data, len, to) : -1;
}

void dg_send_via(int fd)
{
    via_fd = fd;
}
