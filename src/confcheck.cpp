#include "src/confcheck.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <bit>
#include <cstring>

#include "src/namelogin.h"
#include "src/netaddr.h"

namespace {

FILE* check_out = nullptr;
const char* check_prefix = "";
const char* check_path = "";
int error_ct = 0;
int warning_ct = 0;

// The text of a line as found, printable whatever the file holds: leading
// blanks dropped, control and non-ASCII bytes escaped, cut at 160 characters.
void print_shown(const char* found)
{
    constexpr int MAX_SHOWN = 160;
    if (found == nullptr)
        return;
    while (*found == ' ' || *found == '\t')
        found++;
    int n = 0;
    for (const char* p = found; *p != '\0'; p++, n++) {
        if (n >= MAX_SHOWN) {
            fputs("...", check_out);
            break;
        }
        auto c = static_cast<unsigned char>(*p);
        if (c >= 0x20 && c < 0x7f)
            fputc(c, check_out);
        else
            fprintf(check_out, "\\x%02x", c);
    }
}

void print_note(bool error, int line, const char* found, const char* expected)
{
    (error ? error_ct : warning_ct)++;
    fprintf(check_out, "%s%s", check_prefix, check_path);
    if (line > 0)
        fprintf(check_out, ":%d", line);
    fprintf(check_out, ": %s", error ? "" : "warning: ");
    print_shown(found);
    fprintf(check_out, ": %s\n", expected);
}

const char* dotted(uint32_t addr)
{
    in_addr a{addr};
    return inet_ntoa(a);
}

void print_port(const char* what, uint16_t port, uint16_t dflt)
{
    fprintf(check_out, "  %-16s %u%s\n", what, port != 0 ? port : dflt, port != 0 ? "" : " (default)");
}

void print_settings()
{
    FILE* o = check_out;
    fprintf(o, "settings:\n");
    const char* transports = transport_tcpip != 0 ? (transport_vznbu != 0 ? "tcpip vznbu" : "tcpip")
                                                  : (transport_vznbu != 0 ? "vznbu" : "none");
    fprintf(o, "  %-16s %s\n", "transports", transports);
    if (transport_tcpip == 0)
        return;  // nothing else is read without the UDP transport
    // Kept before the completion, to tell what came from the file.
    if_entry as_read[MAX_INTERFACES];
    for (int i = 0; i < my_addr_ct; i++)
        as_read[i] = my_addr[i];
    prepare_addresses();
    if (my_addr_ct == 0 && if_select_ct == 0)
        fprintf(o, "  %-16s none: no name is claimed or answered on the network\n", "interfaces");
    for (int i = 0; i < my_addr_ct; i++) {
        const if_entry& e = my_addr[i];
        fprintf(o, "  %-16s %s", i == 0 ? "interfaces" : "", dotted(e.addr));
        fprintf(o, " broadcast %s%s", dotted(e.bcast), as_read[i].bcast != 0 ? "" : " (completed on this host)");
        fprintf(o, " netmask %s%s\n", dotted(e.mask), as_read[i].mask != 0 ? "" : " (completed on this host)");
    }
    if (if_select_ct > 0) {
        fprintf(o, "  %-16s", "followed");
        for (int i = 0; i < if_select_ct; i++) {
            const if_select& sel = if_selects[i];
            int len = std::popcount(sel.mask);
            if (sel.name[0] != '\0')
                fprintf(o, " %s", sel.name);
            else if (len == 0)
                fprintf(o, " all");
            else
                fprintf(o, " %s/%d", dotted(sel.net), len);
        }
        fprintf(o, ": the addresses of these interfaces while they are up\n");
    }
    for (int i = 0; i < cfg_name_ct; i++) {
        const cfg_name& c = cfg_names[i];
        int n = 15;
        while (n > 0 && c.name[n - 1] == ' ')
            n--;
        fprintf(o, "  %-16s %.*s<%02x>%s\n", i == 0 ? "names" : "", n, reinterpret_cast<const char*>(c.name),
                c.name[15], c.flags != 0 ? " group" : "");
    }
    print_port("name port", nmport, 137);
    print_port("datagram port", dgport, 138);
    print_port("session port", ssport, 139);
    print_port("agent port", ndport, 227);
    print_port("ENS port", ensport, 228);
    fprintf(o, "  %-16s", "agents");
    if (nda_ct == 0)
        fprintf(o, " none");
    for (int i = 0; i < nda_ct; i++)
        fprintf(o, " %s", dotted(nda_addr[i]));
    fprintf(o, "\n");
    fprintf(o, "  %-16s", "WINS servers");
    if (wins_ct == 0)
        fprintf(o, " none");
    for (int i = 0; i < wins_ct; i++)
        fprintf(o, " %s", dotted(wins_addr[i]));
    fprintf(o, "\n");
    fprintf(o, "  %-16s %s\n", "ENS key", nda_key[0] != '\0' ? nda_key : "none: ENS datagrams without a code");
    fprintf(o, "  %-16s %s\n", "ENS client", ens_client != 0 ? "on" : "off");
    fprintf(o, "  %-16s %s\n", "scope", nb_scope[0] != '\0' ? nb_scope : "none");
    fprintf(o, "  %-16s %s\n", "bcast-style", dotted(broadcast_addr));
    fprintf(o, "  %-16s %s\n", "wildcard status", wildcard_status != 0 ? "on" : "off");
    if (client_gid >= 0)
        fprintf(o, "  %-16s %d: FIFOs and lock file for their owner and this group only\n", "client group",
                client_gid);
    else
        fprintf(o, "  %-16s none: FIFOs and lock file open to every local user\n", "client group");
}

}  // namespace

int conf_check(const char* path, FILE* out, const char* prefix, bool settings)
{
    check_out = out;
    check_prefix = prefix;
    check_path = path;
    error_ct = warning_ct = 0;
    name_settings_clear();
    namelogin_notes(print_note);
    namelogin(path);
    namelogin_notes(nullptr);
    if (settings) {
        print_settings();
        fprintf(out, "%d error%s, %d warning%s\n", error_ct, error_ct == 1 ? "" : "s", warning_ct,
                warning_ct == 1 ? "" : "s");
    }
    name_settings_clear();
    fflush(out);
    return error_ct;
}
