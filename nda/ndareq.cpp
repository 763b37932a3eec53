#include "nda/ndareq.h"

#include <cstring>

#include "misc/pktdis.h"

namespace {

// Pairs (int, ip) until int 0, or until the record is full.
int read_addr_list(NdaRequest* r)
{
    r->addr_ct = 0;
    while (r->addr_ct < NDA_MAXADDR) {
        int32_t more = 0;
        if (pktd_int(&more) < 0)
            return NDA_BADBODY;
        if (more == 0)
            return 0;
        uint32_t a = 0;
        if (pktd_ip(&a) < 0)
            return NDA_BADBODY;
        r->addrs[r->addr_ct++] = a;
    }
    return 0;
}

}  // namespace

int nda_read_request(const uint8_t* bytes, int len, NdaRequest* out)
{
    memset(out, 0, sizeof *out);
    if (pktd_hdr(bytes, len) < 0)
        return NDA_BADHDR;
    out->id = pk_id;
    out->response = pk_type;
    out->action = pk_action;
    out->ans = pk_ans;
    out->err = pk_err;
    if (pk_type == 1)
        return pk_action == ENS_VERIFY ? 0 : NDA_NOTOURS;
    switch (pk_action) {
    case ENS_QUERY:
        return pktd_name(out->name) < 0 ? NDA_BADBODY : 0;
    case ENS_ADD:
        if (pktd_name(out->name) < 0 || pktd_int(&out->flags) < 0 || read_addr_list(out) < 0)
            return NDA_BADBODY;
        return out->addr_ct > 0 ? 0 : NDA_BADBODY;
    case ENS_DELETE:
        if (pktd_name(out->name) < 0 || read_addr_list(out) < 0)
            return NDA_BADBODY;
        return 0;
    case ENS_EQUIV:
        if (read_addr_list(out) < 0)
            return NDA_BADBODY;
        return out->addr_ct > 0 ? 0 : NDA_BADBODY;
    case ENS_PURGE:
        if (pktd_ip(&out->addrs[0]) < 0)
            return NDA_BADBODY;
        out->addr_ct = 1;
        return 0;
    default:
        return NDA_NOTOURS;
    }
}
