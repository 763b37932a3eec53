#include "shr/dgsend.h"
#include "src/maininit.h"
#include "src/namecust.h"

int main(int argc, char* argv[])
{
    main_init(argc, argv);
    dg_set_work(name_recv, redo_init);
    dg_set_sender(name_send);
    name_init();
    recv_datagrams();
    dg_exit(0);
}
