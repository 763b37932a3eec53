#include <unistd.h>

#include "shr/dgsend.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/nbndgio.h"

namespace {

// The daemon's datagrams leave by its two sockets; answers to the datagrams
// of one wake-up leave together. Without agents there is no ENS socket, and
// the one broadcast of the host's equivalence goes out on a socket opened
// for it alone.
int send_out(DgWay way, const uint8_t* data, int len, const UniAddr* to)
{
    if (way == DgWay::name)
        return put_ddg_held(dg_fd, data, len, to);
    if (ens_fd >= 0)
        return put_ddg(ens_fd, data, len, to);
    int fd = open_socket(ensport);
    if (fd < 0)
        return -1;
    int n = put_ddg(fd, data, len, to);
    close(fd);
    return n;
}

}  // namespace

int main(int argc, char* argv[])
{
    main_init(argc, argv);
    dg_set_work(name_recv, redo_init);
    dg_set_sender(send_out);
    dg_fd = name_init();
    recv_datagrams();
    dg_exit(0);
}
