#include "nversion.h"
#include "shr/logging.h"

int main()
{
    open_log("/var/opt/KORRbase/log.nb");
    log_new();
    log_catmsg(LOG_SET, 203, "NB NetBIOS services %s %s starting.\n", smbv_string, smbv_variant);
    return 0;
}
