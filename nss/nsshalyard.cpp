// The entry points glibc's Name Service Switch looks up in
// libnss_halyard.so.2 when "halyard" is on the hosts line of
// /etc/nsswitch.conf. IPv4 only: NetBIOS names have IPv4 owners.

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <netdb.h>
#include <nss.h>
#include <pthread.h>

#include "nss/nssanswer.h"
#include "nss/nssask.h"

#define NSS_EXPORT extern "C" [[gnu::visibility("default")]]

NSS_EXPORT nss_status _nss_halyard_gethostbyname4_r(const char* name, gaih_addrtuple** pat, char* buffer,
                                                    size_t buflen, int* errnop, int* herrnop, int32_t* ttlp);
NSS_EXPORT nss_status _nss_halyard_gethostbyname3_r(const char* name, int af, hostent* result, char* buffer,
                                                    size_t buflen, int* errnop, int* herrnop, int32_t* ttlp,
                                                    char** canonp);
NSS_EXPORT nss_status _nss_halyard_gethostbyname2_r(const char* name, int af, hostent* result, char* buffer,
                                                    size_t buflen, int* errnop, int* herrnop);
NSS_EXPORT nss_status _nss_halyard_gethostbyname_r(const char* name, hostent* result, char* buffer,
                                                   size_t buflen, int* errnop, int* herrnop);

namespace {

nss_status fail(nss_status s, int err, int herr, int* errnop, int* herrnop)
{
    *errnop = err;
    *herrnop = herr;
    return s;
}

// The address of name through the daemon, as a status for glibc.
nss_status resolve(const char* name, uint32_t* addr, int* errnop, int* herrnop)
{
    // A name that cannot be a NetBIOS name costs no request.
    uint8_t probe[16];
    if (nss_nbname(probe, name, 0) != 0)
        return fail(NSS_STATUS_NOTFOUND, ENOENT, HOST_NOT_FOUND, errnop, herrnop);
    // poll() is a cancellation point: a thread cancelled inside would leave
    // its descriptors open and the clients' lock held.
    int cancel_state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    int err = 0;
    NssResult r = nss_ask(name, addr, &err);
    pthread_setcancelstate(cancel_state, nullptr);
    switch (r) {
    case NssResult::found:
        return NSS_STATUS_SUCCESS;
    case NssResult::not_found:
        return fail(NSS_STATUS_NOTFOUND, ENOENT, HOST_NOT_FOUND, errnop, herrnop);
    case NssResult::busy:
        return fail(NSS_STATUS_TRYAGAIN, EAGAIN, TRY_AGAIN, errnop, herrnop);
    case NssResult::unavailable:
        break;
    }
    return fail(NSS_STATUS_UNAVAIL, err, NO_RECOVERY, errnop, herrnop);
}

// Carves n bytes aligned for T from the caller's buffer, or null.
template <typename T>
T* carve(char*& at, size_t& left, size_t n = sizeof(T))
{
    size_t pad = (alignof(T) - reinterpret_cast<uintptr_t>(at) % alignof(T)) % alignof(T);
    if (left < pad + n)
        return nullptr;
    T* p = reinterpret_cast<T*>(at + pad);
    at += pad + n;
    left -= pad + n;
    return p;
}

nss_status too_small(int* errnop, int* herrnop)
{
    // glibc grows the buffer and asks again on ERANGE with NETDB_INTERNAL.
    return fail(NSS_STATUS_TRYAGAIN, ERANGE, NETDB_INTERNAL, errnop, herrnop);
}

nss_status no_inet6(int* errnop, int* herrnop)
{
    // Not "not found": a name with an IPv4 owner has no IPv6 address, and
    // the sources after this one on the hosts line are still asked.
    return fail(NSS_STATUS_UNAVAIL, EAFNOSUPPORT, NO_DATA, errnop, herrnop);
}

// Where a hostent's parts go in the caller's buffer: the address list and
// its end, the empty alias list, the address, the name. Carved before the
// daemon is asked, so that a buffer too small costs no wait.
struct HostentRoom {
    char** list;
    uint32_t* addr;
    char* name;
};

bool carve_hostent(HostentRoom* r, const char* name, char* buffer, size_t buflen)
{
    char* at = buffer;
    size_t left = buflen;
    r->list = carve<char*>(at, left, 3 * sizeof(char*));
    r->addr = carve<uint32_t>(at, left);
    r->name = carve<char>(at, left, strlen(name) + 1);
    return r->list != nullptr && r->addr != nullptr && r->name != nullptr;
}

void fill_hostent(const HostentRoom& r, const char* name, uint32_t addr, hostent* result)
{
    *r.addr = addr;
    memcpy(r.name, name, strlen(name) + 1);
    r.list[0] = reinterpret_cast<char*>(r.addr);
    r.list[1] = nullptr;
    r.list[2] = nullptr;
    result->h_name = r.name;
    result->h_aliases = r.list + 2;
    result->h_addrtype = AF_INET;
    result->h_length = sizeof addr;
    result->h_addr_list = r.list;
}

}  // namespace

nss_status _nss_halyard_gethostbyname4_r(const char* name, gaih_addrtuple** pat, char* buffer, size_t buflen,
                                         int* errnop, int* herrnop, int32_t* ttlp)
{
    char* at = buffer;
    size_t left = buflen;
    // The caller may hand in a tuple of its own.
    gaih_addrtuple* t = *pat != nullptr ? *pat : carve<gaih_addrtuple>(at, left);
    char* h_name = carve<char>(at, left, strlen(name) + 1);
    if (t == nullptr || h_name == nullptr)
        return too_small(errnop, herrnop);
    uint32_t addr = 0;
    nss_status s = resolve(name, &addr, errnop, herrnop);
    if (s != NSS_STATUS_SUCCESS)
        return s;
    memcpy(h_name, name, strlen(name) + 1);
    *t = gaih_addrtuple{};
    t->name = h_name;
    t->family = AF_INET;
    t->addr[0] = addr;
    *pat = t;
    if (ttlp != nullptr)
        *ttlp = 0;
    return NSS_STATUS_SUCCESS;
}

nss_status _nss_halyard_gethostbyname3_r(const char* name, int af, hostent* result, char* buffer, size_t buflen,
                                         int* errnop, int* herrnop, int32_t* ttlp, char** canonp)
{
    if (af != AF_INET)
        return no_inet6(errnop, herrnop);
    HostentRoom room;
    if (!carve_hostent(&room, name, buffer, buflen))
        return too_small(errnop, herrnop);
    uint32_t addr = 0;
    nss_status s = resolve(name, &addr, errnop, herrnop);
    if (s != NSS_STATUS_SUCCESS)
        return s;
    fill_hostent(room, name, addr, result);
    if (ttlp != nullptr)
        *ttlp = 0;
    if (canonp != nullptr)
        *canonp = result->h_name;
    return NSS_STATUS_SUCCESS;
}

nss_status _nss_halyard_gethostbyname2_r(const char* name, int af, hostent* result, char* buffer, size_t buflen,
                                         int* errnop, int* herrnop)
{
    return _nss_halyard_gethostbyname3_r(name, af, result, buffer, buflen, errnop, herrnop, nullptr, nullptr);
}

nss_status _nss_halyard_gethostbyname_r(const char* name, hostent* result, char* buffer, size_t buflen,
                                        int* errnop, int* herrnop)
{
    return _nss_halyard_gethostbyname3_r(name, AF_INET, result, buffer, buflen, errnop, herrnop, nullptr,
                                         nullptr);
}
